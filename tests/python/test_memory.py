"""Nothing that is used stays in memory."""

import gc
import sys

import hxcf
import pytest


def resident():
    with open("/proc/self/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))


def test_a_million_tiles_leave_nothing(names):
    """An object of Python kept for one tile in a thousand would show in the blocks, and eight bytes
    kept for each tile in the memory of the process."""
    names.put_many(((f"{i}", b"%d" % i * 50) for i in range(25000)))
    names.put_many((((9, i, i), b"%d" % i * 50) for i in range(25000)))

    def walk():
        assert sum(1 for _ in names.items()) == 50000

    for _ in range(3):
        walk()
    gc.collect()
    blocks, memory = sys.getallocatedblocks(), resident()
    for _ in range(20):
        walk()
    gc.collect()
    assert sys.getallocatedblocks() - blocks < 1000 and resident() - memory < 8000


def calls(tiles, key, data, other):
    """Each does one thing, some of which fail."""
    return {
        "store": lambda: tiles.__setitem__(key, data),
        "find": lambda: tiles[key],
        "miss": lambda: tiles[other],
        "get": lambda: tiles.get(key, other),
        "default": lambda: tiles.get(other, data, version=3),
        "in": lambda: key in tiles,
        "view": lambda: bytes(memoryview(tiles.view(key))),
        "readinto": lambda: tiles.readinto(key, bytearray(9)),
        "batch": lambda: tiles.put_many([(key, data)] * 3),
        "half a batch": lambda: tiles.put_many([(key, data), (key,)]),
        "empty": lambda: tiles.put(key, b""),
        "text": lambda: tiles.put(key, "text"),
        "versions": lambda: tiles.versions(key),
        "entries": lambda: list(tiles.entries(zoom=[1, 9])),
        "first": lambda: next(tiles.items()),
        "pop": lambda: tiles.pop(other, data),
        "verify": lambda: tiles.verify(lambda done, total: 1 / 0),
        "stats": lambda: tiles.stats(lambda done, total: data),
        "meta": lambda: dict(tiles.meta),
        "open": lambda: hxcf.open(tiles.path).close(),
        "no file": lambda: hxcf.open(tiles.path + ".none"),
    }


@pytest.mark.parametrize("name", calls(*[None] * 4))
def test_references(names, name):
    key, data, other = (1000, 2000, 3000), b"data" * 500, (4000, 5000, 6000)
    names[key] = data
    call = calls(names, key, data, other)[name]

    def repeat(times):
        for _ in range(times):
            try:
                call()
            except (LookupError, ValueError, TypeError, ArithmeticError, OSError):
                pass
        gc.collect()
        objects = (names, key, data, other, None, *key, *other)
        return [*map(sys.getrefcount, objects)], sys.getallocatedblocks()

    repeat(10)
    counts, blocks = repeat(10)
    later, more = repeat(300)
    assert max(abs(a - b) for a, b in zip(counts, later)) < 100 and more - blocks < 200
