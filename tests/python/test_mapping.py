"""One thread and one process: what goes in comes out, under every kind of key."""

import array
import collections.abc
import os

import hxcf
import pytest


def test_is_a_mapping(case):
    with case.create() as tiles:
        model = {}
        for i in range(48):
            model[case.key(i)] = tiles[case.key(i)] = bytes([i]) * (i + 1)
        for i in (3, 5):
            del tiles[case.key(i)], model[case.key(i)]
        assert isinstance(tiles, collections.abc.MutableMapping)
        assert dict(tiles.items()) == dict(tiles) == model and len(tiles) == len(model) == 46
        assert sorted(tiles) == sorted(tiles.keys()) == sorted(model)
        assert sorted(tiles.values()) == sorted(model.values())
        key, gone, other = case.key(0), case.key(3), b"other"
        assert key in tiles and gone not in tiles
        assert tiles[tuple(key)] == tiles.get(key, other) == b"\0"
        assert tiles.get(gone) is None and tiles.get(gone, other) is other
        with pytest.raises(KeyError) as missing:
            tiles[gone]
        assert missing.value.args == (gone,)
        for call in (tiles.__delitem__, tiles.pop, tiles.view, lambda key: tiles.readinto(key, bytearray(1))):
            with pytest.raises(KeyError):
                call(gone)
        assert tiles.pop(key) == model.pop(key) and tiles.pop(key, other) is other
        assert tiles.setdefault(gone, other) == tiles.setdefault(gone, b"third") == other
        key, data = tiles.popitem()
        assert data == {**model, gone: other}[key] and key not in tiles
        tiles.update({case.key(1): b"one", case.key(2): b"two"})
        assert tiles[case.key(1)] == b"one"
        tiles.clear()
        assert not list(tiles) and not tiles
        with pytest.raises(KeyError):
            tiles.popitem()


def test_modes_and_layouts(case):
    with case.create() as tiles:
        assert tiles.layout == case.layout and tiles.mode == "x" and not tiles.closed
        tiles[case.key(0)] = b"old"
        assert tiles.path == os.fspath(case.path) and tiles.path in repr(tiles)
    assert tiles.closed and "closed" in repr(tiles)
    with pytest.raises(hxcf.ExistsError):
        case.create()
    for mode in ("r", "r+", "a"):
        with hxcf.open(os.fsencode(case.path), mode) as tiles:
            assert tiles[case.key(0)] == b"old" and tiles.layout == case.layout
            if mode == "r":
                with pytest.raises(hxcf.AccessError):
                    tiles[case.key(0)] = b"new"
    if case.kind == "grids":
        return
    with hxcf.open(case.path, "w", layout=case.layout, password="sesame") as tiles:
        assert len(tiles) == 0
        tiles.set_password("open")
    with pytest.raises(hxcf.DamagedError):
        hxcf.open(case.path)
    assert len(hxcf.open(case.path, password="open", mapped=True, process_lock=False)) == 0


def test_names_of_all_kinds(names):
    """Texts stay as they are; a tile and its name are the same."""
    keys = ["a", "Straße/日本/🗺", "01/2/3", "x" * 128, os.fsdecode(b"caf\xe9.png"), hxcf.Tile(14, 8721, 5433)]
    names.put_many((key, repr(key).encode()) for key in keys)
    assert dict(names.items()) == {key: repr(key).encode() for key in keys}
    assert names["14/8721/5433"] == names[14, 8721, 5433] and keys[-1].name == "14/8721/5433"
    for text in ("14/8721/5433", "0/0/4294967295", "0/0/4294967296", "01/2/3", "1/2", "1/2/٣"):
        tile = hxcf.Tile.parse(text)
        names[text] = b"text"
        found = set(names.keys(prefix=text))
        assert found == {tile if tile else text} and (tile is None or tile.name == text)


def test_filters(case):
    with case.create() as tiles:
        for i in range(10):
            tiles[case.key(i)] = b"data"
        if case.kind == "grid":
            for filters in ({"zoom": 1}, {"prefix": "1"}):
                with pytest.raises(TypeError):
                    tiles.keys(**filters)
            return
        tiles[4, 0, 0] = b"low"
        if case.kind == "names":
            tiles["legend"] = b"no tile"
        low, high = {hxcf.Tile(4, 0, 0)}, {case.key(i) for i in range(10)}
        for filters, expected in (
            ({"zoom": 4}, low),
            ({"zoom": 3}, high),
            ({"zoom": range(9)}, low | high),
            ({"zoom": [4, 7]}, low),
            ({"zoom": ()}, set()),
            ({"zoom": 3, "prefix": "3/2/"}, {key for key in high if key.x == 2}),
            ({"prefix": "4"}, low),
            ({"prefix": "x"}, set()),
        ):
            assert set(tiles.keys(**filters)) == expected, filters
            assert [e.key for e in tiles.entries(**filters)] == list(tiles.keys(**filters))


@pytest.mark.parametrize(
    "data",
    [b"abcd", bytearray(b"abcd"), memoryview(b"xabcdx")[1:5], array.array("H", b"abcd")],
    ids=lambda data: type(data).__name__,
)
def test_buffers(names, data):
    names["direct"] = data
    names.put("put", data)
    names.put_many([("many", data)])
    for name in ("direct", "put", "many"):
        view, target = names.view(name), bytearray(6)
        assert names[name] == bytes(view) == bytes(memoryview(view)) == b"abcd"
        assert memoryview(view).readonly and len(view) == view.filled == 4 and view.complete
        assert names.readinto(name, target) == 4 and target == b"abcd\0\0"
        assert names.readinto(name, memoryview(target)[:2]) == 4
    kept = memoryview(names.view("direct"))
    names.close()
    assert kept == b"abcd"


def test_versions_and_pieces(case):
    with case.create() as tiles:
        key, other = case.key(1), case.key(2)
        for stamp, data in ((5, b"five"), (2**64 - 2, b"newest"), (7, b"seven")):
            tiles.put(key, data, version=stamp)
        tiles.put_many([(other, b"three")], version=3)
        assert tiles.versions(key) == [(2**64 - 2, 6, 6), (7, 5, 5), (5, 4, 4)]
        assert tiles.versions(key)[0].complete and tiles.versions(case.key(3)) == []
        assert tiles[key] == b"newest" and tiles.get(key, version=7) == b"seven"
        assert tiles.get(key, b"-", version=6) == b"-" and tiles.view(key, version=5).stamp == 5
        assert list(tiles.entries()) == [(key, 6, 6, (2**64 - 2, 7, 5)), (other, 5, 5, (3,))]
        assert tiles.discard(key, version=7) and not tiles.discard(key, version=7)
        assert tiles.discard_older(6) == 2 and [v.stamp for v in tiles.versions(key)] == [2**64 - 2]
        assert other not in tiles and tiles.discard(key) and not tiles.discard(key)
        tiles.put(key, b"cd", capacity=4, offset=0)
        assert len(tiles.view(key)) == 4 and tiles.versions(key)[0].filled == 2
        assert not tiles.view(key).complete
        tiles.put(key, b"ef", capacity=4, offset=2)
        assert tiles[key] == b"cdef" and tiles.view(key).complete


def test_metadata(case):
    with case.create() as tiles:
        if case.kind == "grid":
            with pytest.raises(hxcf.KindError):
                tiles.meta["name"] = "none"
            return
        tiles.meta["name"] = "Straße"
        tiles.meta.update({"format": "png"}, minzoom="0")
        del tiles.meta["format"]
        with pytest.raises(TypeError):
            tiles.meta["maxzoom"] = 4
    with hxcf.open(case.path) as tiles:
        assert dict(tiles.meta) == {"name": "Straße", "minzoom": "0"}
        with pytest.raises(hxcf.AccessError):
            tiles.meta.clear()


def test_whole_files(case):
    told = []
    with case.create() as tiles:
        for data in (b"a" * 5000, b"b" * 6000):
            tiles.put_many((case.key(i), data) for i in range(40))
        assert tiles.stats().dead_bytes > 40 * 5000
        tiles.compact(lambda done, total: told.append((done, total)))
        before = tiles.stats(lambda done, total: None)
        assert told[-1][0] == told[-1][1] > 0 and before.dead_bytes == 0 and before.tiles == 40
        check = tiles.verify()
        assert check and check.findings == () and (check.tiles, check.versions) == (40, 40)
        assert before.live_bytes == check.live_bytes and before.payload_bytes == 40 * 6000
        tiles.flush()
    path = case.path / "3.cf" if case.kind == "grids" else case.path
    assert before.file_bytes >= os.path.getsize(path)
    os.truncate(path, os.path.getsize(path) - 1)
    with hxcf.open(case.path) as tiles:
        check = tiles.verify(limit=0)
        assert not check and check.findings == () and check.found == 1
        finding = tiles.verify().findings[0]
        assert finding.kind == "record" and finding.path == os.fspath(path) and finding.message
        walk = tiles.keys()
        assert len(list(walk)) == 39 and walk.damaged == 1
        damaged = {case.key(i) for i in range(40)} - set(tiles.keys())
        with pytest.raises(hxcf.DamagedError) as error:
            tiles[damaged.pop()]
        assert error.value.cause == hxcf.Cause.DAMAGED_RECORD and error.value.code == 9
