"""Keys, layouts, and what the calls of a file tell, as plain tuples."""

from __future__ import annotations

import re
from typing import NamedTuple, Optional, Tuple, Union

_TILE = re.compile(r"(0|[1-9]\d{0,9})/(0|[1-9]\d{0,9})/(0|[1-9]\d{0,9})", re.ASCII)
_MOST = 2**32 - 1


class Tile(NamedTuple):
    """A tile of a pyramid: zoom, column from west to east, row from north to south."""

    z: int
    x: int
    y: int

    @property
    def name(self) -> str:
        """``"z/x/y"``, the name under which a file of names has it."""
        return f"{self.z}/{self.x}/{self.y}"

    @classmethod
    def parse(cls, name: str) -> Optional[Tile]:
        """The tile of such a name; None for any other text."""
        match = _TILE.fullmatch(name)
        numbers = tuple(map(int, match.groups())) if match else (_MOST + 1,)
        return cls(*numbers) if max(numbers) <= _MOST else None


class Cell(NamedTuple):
    """A cell of a grid."""

    row: int
    col: int


#: By what a tile is found: ``(z, x, y)``, ``(row, col)`` or a name.
Key = Union[Tile, Cell, str, Tuple[int, int, int], Tuple[int, int]]
#: What a walk gives: a name that is a tile's comes as a Tile.
FoundKey = Union[Tile, Cell, str]


class Names(NamedTuple):
    """The layout of a file that has names, with room for so many at first; it grows."""

    capacity: int = 1024


class Grid(NamedTuple):
    """The layout of a file that has cells: at most 2**28 of them."""

    rows: int
    cols: int


class ZoomRange(NamedTuple):
    """The part of a zoom that a grid has room for. A list of them, one for each zoom, is the
    layout of a folder of grids."""

    zoom: int
    first_col: int = 0
    first_row: int = 0
    cols: int = 1
    rows: int = 1

    @classmethod
    def whole(cls, zoom: int) -> ZoomRange:
        """All of a zoom: 2**zoom columns and rows."""
        return cls(zoom, 0, 0, 2**zoom, 2**zoom)


class Version(NamedTuple):
    """One version of a tile."""

    stamp: int  #: larger for newer
    size: int  #: of the payload area
    filled: int  #: how far that is filled

    @property
    def complete(self) -> bool:
        """Whether it is filled to the end."""
        return self.filled == self.size


class Entry(NamedTuple):
    """A tile without its bytes; size and filled are those of the newest version."""

    key: FoundKey
    size: int
    filled: int
    stamps: Tuple[int, ...]  #: of all versions, the newest first


class Statistics(NamedTuple):
    """What a file consists of, in numbers; of a folder of grids, of all files together."""

    tiles: int
    entries: int  #: cells of a grid, or names with those that were removed
    index_bytes: int
    file_bytes: int
    versions: int  #: of all tiles, the newest included
    payload_bytes: int  #: of the payload areas of all versions
    live_bytes: int  #: of the records of all versions
    dead_bytes: int  #: what a compaction would give back
    damaged: int  #: tiles that cannot be read; not counted by ``tiles``


class Finding(NamedTuple):
    """Something in a file that no writer leaves so."""

    kind: str  #: header, index, entry, record, version, overlap or unreadable
    path: str  #: of the file
    position: int  #: in the file
    number: int  #: of the entry
    row: int  #: of a cell
    col: int  #: of a cell
    stamp: int  #: of an older version
    message: str


class Check(NamedTuple):
    """What a check has come to; true if the file is sound."""

    findings: Tuple[Finding, ...]  #: the first ones; ``found`` counts all
    found: int
    tiles: int
    versions: int
    index_bytes: int
    live_bytes: int
    dead_bytes: int

    def __bool__(self) -> bool:
        return self.found == 0
