"""Many small binary objects, such as map tiles, in one file.

    with hxcf.open("tiles.cf", "a") as tiles:
        tiles[14, 8721, 5433] = data
        data = tiles[14, 8721, 5433]
"""

from collections.abc import MutableMapping as _MutableMapping

from ._errors import (
    AccessError,
    ArgumentError,
    Cause,
    ClosedError,
    DamagedError,
    Error,
    ExistsError,
    ForkError,
    KindError,
    NoFileError,
    StorageError,
)
from ._hxcf import Payload, Tiles, Walk, __version__ as __version__, open
from ._types import (
    Cell,
    Check,
    Entry,
    Finding,
    FoundKey,
    Grid,
    Key,
    Names,
    Statistics,
    Tile,
    Version,
    ZoomRange,
)

__all__ = [
    "AccessError",
    "ArgumentError",
    "Cause",
    "Cell",
    "Check",
    "ClosedError",
    "DamagedError",
    "Entry",
    "Error",
    "ExistsError",
    "Finding",
    "ForkError",
    "FoundKey",
    "Grid",
    "Key",
    "KindError",
    "Names",
    "NoFileError",
    "Payload",
    "Statistics",
    "StorageError",
    "Tile",
    "Tiles",
    "Version",
    "Walk",
    "ZoomRange",
    "open",
]

_MutableMapping.register(Tiles)
