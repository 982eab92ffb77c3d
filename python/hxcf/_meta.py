"""The metadata of a set of tiles."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Iterator, Mapping, MutableMapping

if TYPE_CHECKING:
    from ._hxcf import Tiles


class Metadata(MutableMapping[str, str]):
    """Texts by the keys of MBTiles. Each look reads them, and each change writes all of them: use
    ``update`` for several."""

    def __init__(self, tiles: Tiles) -> None:
        self._tiles = tiles

    def __getitem__(self, key: str) -> str:
        return self._tiles._get_metadata()[key]

    def __setitem__(self, key: str, value: str) -> None:
        self.update({key: value})

    def __delitem__(self, key: str) -> None:
        values = self._tiles._get_metadata()
        del values[key]
        self._tiles._set_metadata(values)

    def __iter__(self) -> Iterator[str]:
        return iter(self._tiles._get_metadata())

    def __len__(self) -> int:
        return len(self._tiles._get_metadata())

    def update(self, *others: Any, **more: str) -> None:
        """As dict.update, in one step."""
        values = self._tiles._get_metadata()
        values.update(*others, **more)
        self._tiles._set_metadata(values)

    def clear(self) -> None:
        self._tiles._set_metadata({})

    def replace(self, values: Mapping[str, str]) -> None:
        """These, and no others."""
        self._tiles._set_metadata(dict(values))

    def __repr__(self) -> str:
        return f"Metadata({self._tiles._get_metadata()!r})"
