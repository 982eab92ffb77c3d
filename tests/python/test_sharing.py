"""Threads and processes on one file, with every answer checked."""

import multiprocessing
import os
import random
import sys
import threading
import time

import hxcf
import pytest

TILES = 64


def bytes_of(key, number):
    """What no other tile and no other store has; of a size that differs."""
    text = f"{tuple(key)} {number};".encode()
    return text * (1 + number * 7919 % 300)


def number_of(key, data):
    """Of the store that the bytes are of; a mixture of two is none."""
    number = int(data.split(b";", 1)[0].rsplit(b" ", 1)[1])
    assert data == bytes_of(key, number)
    return number


def work(tiles, keys, worker, workers, steps=1200):
    """Stores own tiles, and reads those of all: an own one is as stored, another one never goes back."""
    rng = random.Random(worker)
    own = {key: 0 for key in keys[worker::workers]}
    seen = dict.fromkeys(keys, 0)
    for step in range(1, steps):
        key = rng.choice(keys)
        if key not in own:
            number = number_of(key, rng.choice([tiles.get, tiles.__getitem__, tiles.view])(key).__bytes__())
            assert number >= seen[key]
            seen[key] = number
        elif rng.random() < 0.6:
            own[key] = step
            tiles[key] = bytes_of(key, step)
        elif rng.random() < 0.1:
            own.update(dict.fromkeys(own, step))
            tiles.put_many((key, bytes_of(key, step)) for key in own)
        else:
            assert number_of(key, tiles[key]) == own[key]
        if step % 300 == 0:
            found = dict(tiles.items())
            assert set(found) == set(keys)
            for key, data in found.items():
                assert number_of(key, data) >= seen[key]
    for key, number in own.items():
        assert number_of(key, tiles[key]) == number


def work_in_process(path, keys, worker, workers):
    with hxcf.open(path, "r+") as tiles:
        work(tiles, keys, worker, workers)


def fill(tiles, case):
    keys = [case.key(i) for i in range(48)]
    tiles.put_many((key, bytes_of(key, 0)) for key in keys)
    return keys


def test_threads(case):
    failures = []

    def run(worker):
        try:
            work(tiles, keys, worker, 8)
        except BaseException as failure:
            failures.append(failure)

    with case.create() as tiles:
        keys = fill(tiles, case)
        threads = [threading.Thread(target=run, args=[worker]) for worker in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert failures == [] and tiles.verify()


@pytest.mark.parametrize("method", ["spawn", "fork"])
def test_processes(case, method):
    """Of those that fork, the parent has the file open, and uses it meanwhile."""
    with case.create() as tiles:
        keys = fill(tiles, case)
        context = multiprocessing.get_context(method)
        processes = [context.Process(target=work_in_process, args=(case.path, keys, i, 5)) for i in range(4)]
        for process in processes:
            process.start()
        work(tiles, keys, 4, 5)
        for process in processes:
            process.join()
        assert [process.exitcode for process in processes] == [0] * 4
        assert tiles.verify() and len(tiles) == 48


def test_a_child_cannot_use_its_parents_file(names):
    names["a"] = b"data"
    walk = names.items()
    child = os.fork()
    if child == 0:
        refused = 0
        try:
            for call in (lambda: names["a"], lambda: names.put("a", b"child"), lambda: next(walk), names.compact):
                try:
                    call()
                except hxcf.ForkError as error:
                    refused += error.path == names.path and isinstance(error, RuntimeError)
            with hxcf.open(names.path, "r+") as own:
                own["child"] = names.path.encode()
            names.close()
            del walk
        finally:
            os._exit(0 if refused == 4 else 1)
    assert os.waitpid(child, 0)[1] == 0
    names["b"] = b"more"
    assert list(walk)[0] == ("a", b"data") and names["child"] == names.path.encode()
    assert len(names) == 3 and names.verify()


def test_a_child_of_a_callback(names):
    """It ends the call with ForkError, and takes nothing from its parent's compaction."""
    names.put_many((str(i), bytes(2000)) for i in range(2000))
    main, children, status = os.getpid(), [], 1

    def fork(done, total):
        if not children:
            children.append(os.fork())
            if children[0] != 0:
                assert os.waitpid(children[0], 0)[1] == 0

    try:
        names.compact(fork)
    except hxcf.ForkError:
        status = 0
    finally:
        if os.getpid() != main:
            os._exit(status)
    assert status == 1 and names.verify() and len(names) == 2000


@pytest.mark.parametrize("is_item", [False, True])
def test_a_tile_is_popped_once(names, is_item):
    keys = [str(i) for i in range(2000)]
    names.put_many((key, b"data") for key in keys)
    found = []

    def run():
        if is_item:
            with pytest.raises(KeyError):
                while True:
                    found.append(names.popitem()[0])
        else:
            found.extend(key for key in keys if names.pop(key, None))

    threads = [threading.Thread(target=run) for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sorted(found) == sorted(keys) and len(names) == 0


def test_closing_waits_for_calls_of_other_threads(names):
    """Each of them has its answer, or finds the file closed."""
    names.put_many((str(i), bytes_of(str(i), i)) for i in range(TILES))
    ends = []
    begun = threading.Barrier(9)

    def read(worker):
        begun.wait()
        try:
            for step in range(10**9):
                number = (step * 7 + worker) % TILES
                assert number_of(str(number), names[str(number)]) == number
        except Exception as end:
            ends.append(type(end))

    threads = [threading.Thread(target=read, args=[worker]) for worker in range(8)]
    for thread in threads:
        thread.start()
    begun.wait()
    names.close()
    for thread in threads:
        thread.join()
    assert ends == [hxcf.ClosedError] * 8


def test_other_threads_run_during_each_call(names):
    """Python takes its lock from no thread here, so another one runs only where a call gives it up. A
    short call may have it back before the other one has woken, so there are many of them."""
    names.put_many((str(i), b"data" * 1000) for i in range(500))
    calls = {
        "t[key]": lambda: names["1"],
        "t[key] = data": lambda: names.__setitem__("1", b"data"),
        "pop": lambda: names.pop("none", None),
        "in": lambda: "1" in names,
        "len": lambda: len(names),
        "get": lambda: names.get("none"),
        "view": lambda: names.view("1"),
        "readinto": lambda: names.readinto("1", bytearray(9)),
        "put": lambda: names.put("1", b"data", version=1),
        "put_many": lambda: names.put_many([("1", b"data")]),
        "versions": lambda: names.versions("1"),
        "discard": lambda: names.discard("none"),
        "next": lambda: next(names.items()),
        "stats": names.stats,
        "verify": names.verify,
        "compact": names.compact,
        "flush": names.flush,
        "discard_older": lambda: names.discard_older(0),
        "meta": lambda: names.meta.update(name="x"),
        "open": lambda: hxcf.open(names.path),
    }
    turns, ends = [0], threading.Event()

    def count():
        while not ends.is_set():
            turns[0] += 1
            time.sleep(0)

    interval = sys.getswitchinterval()
    thread = threading.Thread(target=count)
    thread.start()
    sys.setswitchinterval(10**6)
    try:
        for name, call in calls.items():
            before = turns[0]
            assert any(call() is turns or turns[0] != before for _ in range(10**6)), name
    finally:
        sys.setswitchinterval(interval)
        ends.set()
        thread.join()


def test_an_iterator_is_one_threads_at_a_time(names):
    """Two that use it at once share the tiles, or one is refused; none is given twice."""
    names.put_many((str(i), b"data") for i in range(20000))
    found = [[], []]

    def run(own, walk):
        while True:
            try:
                own.append(next(walk))
            except ValueError:
                continue
            except StopIteration:
                return

    walk = names.keys()
    threads = [threading.Thread(target=run, args=[own, walk]) for own in found]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sorted(found[0] + found[1]) == sorted(map(str, range(20000)))
