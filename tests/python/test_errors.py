"""What cannot be done raises what the documents say, and leaves no harm."""

import _thread
import gc
import itertools
import os
import pickle
import resource
import signal
import subprocess
import sys
import threading

import hxcf
import pytest


OWN = (hxcf.Tiles, hxcf.Walk, hxcf.Payload)


def grid(folder):
    return hxcf.open(folder / "grid.cf", "a", layout=hxcf.Grid(4, 4))


@pytest.mark.parametrize(
    "call, kind, builtin, cause",
    [
        (lambda t, f: hxcf.open(f / "none"), hxcf.NoFileError, FileNotFoundError, "NO_FILE"),
        (lambda t, f: hxcf.open(t.path, "x"), hxcf.ExistsError, FileExistsError, "EXISTS"),
        (lambda t, f: hxcf.open(f / "text"), hxcf.DamagedError, hxcf.Error, "WRONG_FORMAT"),
        (lambda t, f: hxcf.open(t.path).clear(), hxcf.AccessError, PermissionError, "READ_ONLY"),
        (lambda t, f: t.put("a", b""), hxcf.ArgumentError, ValueError, "EMPTY_ARGUMENT"),
        (lambda t, f: t.put("a" * 129, b"x"), hxcf.ArgumentError, ValueError, "TOO_LONG"),
        (lambda t, f: t.put((1, -2, 3), b"x"), hxcf.ArgumentError, ValueError, "OUT_OF_RANGE"),
        (lambda t, f: t.put_many([("a", b"")]), hxcf.ArgumentError, ValueError, "EMPTY_ARGUMENT"),
        (lambda t, f: grid(f).put((4, 0), b"x"), hxcf.ArgumentError, ValueError, "OUT_OF_RANGE"),
        (lambda t, f: hxcf.open(os.fsencode(f) + b"/\xe9.cf", "a"), hxcf.ArgumentError, ValueError, "BAD_PATH"),
        (lambda t, f: t[1, 2], hxcf.KindError, TypeError, "WRONG_KIND"),
        (lambda t, f: grid(f)["name"], hxcf.KindError, TypeError, "WRONG_KIND"),
        (lambda t, f: t.compact(lambda *_: False), hxcf.Error, Exception, "CANCELLED"),
        (lambda t, f: t.verify(lambda *_: False), hxcf.Error, Exception, "CANCELLED"),
    ],
)
def test_errors(names, tmp_path, call, kind, builtin, cause):
    names["a"] = b"data"
    (tmp_path / "text.cf").write_text("no tiles" * 100)
    with pytest.raises(builtin) as caught:
        call(names, tmp_path)
    error = caught.value
    assert type(error) is kind and error.cause == hxcf.Cause[cause] and error.code != 0
    assert os.fspath(tmp_path) in error.path and error.path in str(error)
    assert isinstance(error, OSError) == (error.errno != 0)
    copy = pickle.loads(pickle.dumps(error))
    assert (type(copy), str(copy), vars(copy)) == (kind, str(error), vars(error))
    assert names["a"] == b"data"


@pytest.mark.parametrize(
    "call, kind",
    [
        (lambda t: t[1.5, 2, 3], TypeError),
        (lambda t: t[b"bytes"], TypeError),
        (lambda t: t[1, 2, 3, 4], TypeError),
        (lambda t: 5 in t, TypeError),
        (lambda t: t.__setitem__("a", "text"), TypeError),
        (lambda t: t.__setitem__("a", None), TypeError),
        (lambda t: t.put("a", b"x", version=-1), ValueError),
        (lambda t: t.put("a", b"x", version=2**64), ValueError),
        (lambda t: t.put("a", b"x", version="1"), TypeError),
        (lambda t: t.put("a", b"x", capacity=-1), ValueError),
        (lambda t: t.verify(limit=-1), ValueError),
        (lambda t: t.cell(-1, 0), ValueError),
        (lambda t: t.meta.update(name="\udce9"), UnicodeEncodeError),
        (lambda t: t.get(), TypeError),
        (lambda t: t.get("a", stamp=1), TypeError),
        (lambda t: t.pop("a", 1, 2), TypeError),
        (lambda t: t.put_many([("a", b"x", 1)]), ValueError),
        (lambda t: t.put_many(5), TypeError),
        (lambda t: t.put_many(1 / 0 for _ in "a"), ZeroDivisionError),
        (lambda t: t.readinto("a", b"read only"), BufferError),
        (lambda t: t.stats(lambda done, total: 1 / 0), ZeroDivisionError),
        (lambda t: t.compact(lambda done, total: t.close()), RuntimeError),
        (lambda t: hxcf.open(t.path, "rw"), ValueError),
        (lambda t: hxcf.open(t.path, "r", layout=hxcf.Names()), ValueError),
        (lambda t: hxcf.open(t.path, "w", layout=[hxcf.ZoomRange.whole(1)]), ValueError),
        (lambda t: hxcf.open(t.path, "w", layout=["grid"]), TypeError),
        (lambda t: hxcf.open(t.path, "w", layout=hxcf.Grid(-1, 1)), ValueError),
        (lambda t: t.keys(zoom=2**32), ValueError),
        (lambda t: t.keys(zoom=["1"]), TypeError),
        *((lambda t, own=own: own(), TypeError) for own in OWN),
        *((lambda t, own=own: own.__new__(own), TypeError) for own in OWN),
        *((lambda t, p=p: pickle.dumps(t, p), TypeError) for p in (0, 1, 2, 5)),
        (lambda t: pickle.dumps(t.keys(), 0), TypeError),
        (lambda t: pickle.dumps(t.view("a"), 1), TypeError),
    ],
)
def test_wrong_calls(names, call, kind):
    names["a"] = b"data"
    with pytest.raises(kind):
        call(names)
    assert names["a"] == b"data" and len(names) == 1


def test_no_key_is_simply_missing(names, tmp_path):
    for tiles, keys in ((names, ["", "x" * 129, (-1, 0, 0), (2**70, 0, 0)]), (grid(tmp_path), [(4, 0), (0, -1)])):
        for key in keys:
            assert key not in tiles and tiles.get(key) is None and not tiles.discard(key)
            with pytest.raises(KeyError):
                tiles[key]


def test_full_disk(names):
    """The system's error is told, and what was there stays."""
    names["a"] = b"data"
    soft, hard = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, hard))
    try:
        with pytest.raises(OSError) as caught:
            names["a"] = bytes(2 << 20)
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, (soft, hard))
    assert type(caught.value) is hxcf.StorageError and caught.value.cause == hxcf.Cause.SIZE_LIMIT
    assert names["a"] == b"data" and names.verify()


def test_closed(names):
    names["a"] = b"data"
    walk = names.items()
    names.close()
    names.close()
    for call in (lambda: names["a"], lambda: names.put("a", b"x"), lambda: len(names), lambda: next(walk), names.stats):
        with pytest.raises(ValueError) as caught:
            call()
        assert type(caught.value) is hxcf.ClosedError


def test_a_number_may_close_the_file(names):
    class One:
        def __index__(self):
            names.close()
            return 1

    for call in (lambda n: names[n, 0, 0], lambda n: names.put((1, 0, 0), b"x", version=n), names.discard_older):
        with pytest.raises(hxcf.ClosedError):
            call(One())


def test_handlers_of_signals_run_within_calls(names):
    """They may end a call, and a list of all tiles, and cannot close the file that a call uses."""
    names.put_many((str(i), b"data") for i in range(1000))
    before = signal.signal(signal.SIGUSR1, lambda *_: names.close())
    try:
        for call in (names.verify, names.stats, names.compact):
            with pytest.raises(RuntimeError):
                call(lambda *_: signal.raise_signal(signal.SIGUSR1))
    finally:
        signal.signal(signal.SIGUSR1, before)
    walk = names.keys()
    with pytest.raises(KeyboardInterrupt):
        list(itertools.chain(map(_thread.interrupt_main, [signal.SIGINT]), walk))
    assert 0 < len(list(walk)) < 1000 and names.verify()


def test_threads_that_live_at_the_end(names):
    """Daemon threads within calls do not disturb the end of the interpreter."""
    program = """if True:
        import hxcf, sys, threading
        tiles = hxcf.open(sys.argv[1], "r+")
        tiles["a"] = b"data" * 100
        begun = threading.Barrier(4)
        def run(call):
            call()
            begun.wait()
            while True:
                call()
        for call in (lambda: tiles["a"], lambda: tiles.put("a", b"x"), lambda: tiles.verify(lambda *_: None)):
            threading.Thread(target=run, args=[call], daemon=True).start()
        begun.wait()
    """
    for _ in range(3):
        done = subprocess.run([sys.executable, "-c", program, names.path], capture_output=True)
        assert (done.returncode, done.stderr) == (0, b"")


def test_iterators_outlive_their_file(tmp_path):
    with hxcf.open(tmp_path / "a.cf", "w") as tiles:
        tiles.put_many((str(i), b"data") for i in range(100))
    walk = hxcf.open(tmp_path / "a.cf").items()
    gc.collect()
    assert len(list(walk)) == 100


def test_a_pressed_key_ends_a_long_call(names):
    """As soon as a compaction has begun, the main thread is interrupted."""
    image = os.path.join(os.path.dirname(names.path), ".$" + os.path.basename(names.path))

    def press(stop):
        while not stop.is_set():
            if os.path.exists(image):
                _thread.interrupt_main()
                return

    for _ in range(50):  # a compaction may be done before it is noticed
        for data in (b"a" * 10000, b"b" * 11000):
            names.put_many((str(i), data) for i in range(3000))
        stop = threading.Event()
        thread = threading.Thread(target=press, args=[stop])
        thread.start()
        try:
            names.compact()
            stop.set()
            thread.join()
        except KeyboardInterrupt:
            thread.join()
            if names.stats().dead_bytes > 0:
                break
    else:
        pytest.fail("no compaction was ended")
    assert names.verify() and names["7"] == b"b" * 11000
