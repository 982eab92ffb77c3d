"""What the calls raise."""

from __future__ import annotations

import enum
import errno as _errno
import os
from typing import Type


class Cause(enum.IntEnum):
    """Why a call has failed."""

    NONE = 0
    OTHER = 1
    DISK_FULL = 2
    SIZE_LIMIT = 3
    PERMISSION = 4
    READ_ONLY = 5
    LOCKED = 6
    IN_USE = 7
    NOT_OPEN = 8
    NO_FILE = 9
    NO_TILE = 10
    EXISTS = 11
    MOVED = 12
    WRONG_FORMAT = 13
    WRONG_KIND = 14
    UNFINISHED = 15
    DAMAGED_HEADER = 16
    DAMAGED_ENTRY = 17
    DAMAGED_RECORD = 18
    OUT_OF_RANGE = 19
    EMPTY_ARGUMENT = 20
    TOO_LONG = 21
    BAD_PATH = 22
    BAD_NAME = 23
    BAD_SOURCE = 24
    FULL = 25
    CANCELLED = 26
    NO_MEMORY = 27
    TOO_MANY_FILES = 28
    NOT_SUPPORTED = 29
    INPUT_OUTPUT = 30


class Error(Exception):
    """A call could not do what it says. Each of the classes below is one of these and, where Python
    has one that means the same, that one as well."""

    code: int  #: the result code of the library
    cause: Cause
    errno: int  #: of the system call that failed; 0: none did
    path: str  #: the file

    def __init__(self, message: str, code: int, cause: Cause, errno: int, path: str) -> None:
        super().__init__(message)
        self.code, self.cause, self.errno, self.path = code, cause, errno, path
        if isinstance(self, OSError):
            setattr(self, "filename", path)  # of OSError

    def __str__(self) -> str:
        return str(self.args[0])

    def __reduce__(self) -> tuple[object, ...]:
        return type(self), (str(self), self.code, self.cause, self.errno, self.path)


class NoFileError(Error, FileNotFoundError):
    """There is no such file or folder."""


class ExistsError(Error, FileExistsError):
    """A file is there already."""


class AccessError(Error, PermissionError):
    """This process may not do that, or the file is open for reading only."""


class StorageError(Error, OSError):
    """Another failure of the system: the disk is full, or reports an error, say."""


class DamagedError(Error):
    """The file, an entry or a record of it is damaged, or it is no compact file at all; the latter
    also with a wrong password."""


class ArgumentError(Error, ValueError):
    """A number or a name is not allowed, or the bytes are empty."""


class KindError(Error, TypeError):
    """The call or the key is for another kind of file."""


class ClosedError(Error, ValueError):
    """The object was closed."""


class ForkError(Error, RuntimeError):
    """The object is the parent process's. Open the file in the child."""


_CLASSES: dict[Cause, Type[Error]] = {
    Cause.NO_FILE: NoFileError,
    Cause.EXISTS: ExistsError,
    Cause.PERMISSION: AccessError,
    Cause.READ_ONLY: AccessError,
    Cause.DISK_FULL: StorageError,
    Cause.SIZE_LIMIT: StorageError,
    Cause.TOO_MANY_FILES: StorageError,
    Cause.INPUT_OUTPUT: StorageError,
    Cause.WRONG_FORMAT: DamagedError,
    Cause.DAMAGED_HEADER: DamagedError,
    Cause.DAMAGED_ENTRY: DamagedError,
    Cause.DAMAGED_RECORD: DamagedError,
    Cause.OUT_OF_RANGE: ArgumentError,
    Cause.EMPTY_ARGUMENT: ArgumentError,
    Cause.TOO_LONG: ArgumentError,
    Cause.BAD_PATH: ArgumentError,
    Cause.BAD_NAME: ArgumentError,
    Cause.WRONG_KIND: KindError,
    Cause.NOT_OPEN: ClosedError,
}
# Where no system call has failed, what Python's own would tell.
_ERRNO = {NoFileError: _errno.ENOENT, ExistsError: _errno.EEXIST, AccessError: _errno.EACCES}


def _make(message: str, code: int, number: int, errno: int, path: bytes) -> Error:
    """For the extension."""
    cause = Cause(number) if number in Cause._value2member_map_ else Cause.OTHER
    kind = _CLASSES.get(cause, StorageError if errno else Error)
    return kind(message, code, cause, errno or _ERRNO.get(kind, 0), os.fsdecode(path))
