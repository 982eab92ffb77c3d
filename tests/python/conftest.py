import hxcf
import pytest

LAYOUTS = {
    "names": hxcf.Names(),
    "grid": hxcf.Grid(8, 8),
    "grids": [hxcf.ZoomRange(3, first_col=1, cols=6, rows=8), hxcf.ZoomRange.whole(4)],
}


class Case:
    """A new file of some layout, and keys that it takes."""

    def __init__(self, layout, folder):
        self.kind, self.layout, self.path = layout, LAYOUTS[layout], folder / "tiles.cf"

    def create(self, **options):
        return hxcf.open(self.path, "x", layout=self.layout, **options)

    def key(self, i):
        """Of 0 to 47, as walks give it."""
        if self.kind == "grid":
            return hxcf.Cell(i // 8, i % 8)
        return hxcf.Tile(3, 1 + i % 6, i // 6)


@pytest.fixture(params=LAYOUTS)
def case(request, tmp_path):
    return Case(request.param, tmp_path)


@pytest.fixture
def names(tmp_path):
    with hxcf.open(tmp_path / "names.cf", "x") as tiles:
        yield tiles
