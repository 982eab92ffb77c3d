"""How fast Python's hxcf gives 65,536 web tiles, and takes a quarter of them, beside lmdb and sqlite3.

The contenders take turns, in another order each time, and each ratio is that of two measurements made
moments apart; the medians are shown. Processor time counts, for all work is that of one thread. What
is stored survives the death of the process, not the loss of power: LMDB does not sync, SQLite has a
write-ahead log and synchronous=OFF. Usage: python_bench.py FOLDER [PASSES]
"""

import functools
import gc
import math
import os
import pathlib
import random
import shutil
import sqlite3
import statistics
import sys
import time

import hxcf
import lmdb

SIDE = 256
BATCH = 1024
STORED = 16 * BATCH  # one by one, and in batches
NAMES = ("hxcf", "hxcf, alone", "hxcf, mapped", "lmdb", "lmdb, renewed", "sqlite3")
ZOOM = 8


def web_tiles():
    """Keys and bytes; sizes are log-normal around 6 KiB."""
    sizes = random.Random(2)
    block = os.urandom(1 << 18)
    for x in range(SIDE):
        for y in range(SIDE):
            size = int(min(max(sizes.lognormvariate(math.log(6144), 0.9), 200), 102400))
            first = sizes.randrange(len(block) - size)
            yield (ZOOM, x, y), block[first : first + size]


class Hxcf:
    """Keys are (z, x, y)."""

    def __init__(self, folder, **options):
        self.path, self.options = folder / "tiles.cf", options

    @staticmethod
    def key(tile):
        return tile

    def open(self, mode):
        self.tiles = hxcf.open(self.path, mode, **self.options)

    def close(self):
        self.tiles.close()

    def put(self, pairs):
        tiles = self.tiles
        for key, data in pairs:
            tiles[key] = data

    def put_many(self, pairs):
        self.tiles.put_many(pairs)

    def get(self, keys):
        tiles, total = self.tiles, 0
        for key in keys:
            total += len(tiles[key])
        return total

    def walk(self):
        return sum(map(len, self.tiles.values()))


class Lmdb:
    """Keys are names. Lookups see the file as it was when their transaction began; with `renews`,
    each is one of its own and sees what others have stored meanwhile, as those of hxcf do."""

    def __init__(self, folder, renews=False):
        self.path, self.renews = str(folder / "lmdb"), renews

    @staticmethod
    def key(tile):
        return b"%d/%d/%d" % tile

    def open(self, mode):
        self.base = lmdb.open(self.path, map_size=8 << 30, sync=False, subdir=False)

    def close(self):
        self.base.close()

    def put(self, pairs):
        base = self.base
        for key, data in pairs:
            with base.begin(write=True) as transaction:
                transaction.put(key, data)

    def put_many(self, pairs):
        with self.base.begin(write=True) as transaction, transaction.cursor() as cursor:
            cursor.putmulti(pairs)

    def get(self, keys):
        base, total = self.base, 0
        if self.renews:
            for key in keys:
                with base.begin() as transaction:
                    total += len(transaction.get(key))
            return total
        with base.begin() as transaction:
            for key in keys:
                total += len(transaction.get(key))
        return total

    def walk(self):
        with self.base.begin() as transaction:
            return sum(map(len, transaction.cursor().iternext(keys=False, values=True)))


class Sqlite:
    """A table and its index, as MBTiles have them."""

    INSERT = "INSERT OR REPLACE INTO tiles VALUES (?, ?, ?, ?)"
    SELECT = "SELECT data FROM tiles WHERE z = ? AND x = ? AND y = ?"

    def __init__(self, folder):
        self.path = folder / "sqlite"

    @staticmethod
    def key(tile):
        return tile

    def open(self, mode):
        self.base = sqlite3.connect(self.path, isolation_level=None)
        self.base.execute("PRAGMA journal_mode=WAL")
        self.base.execute("PRAGMA synchronous=OFF")
        if mode == "w":
            columns = "z INTEGER, x INTEGER, y INTEGER, data BLOB, PRIMARY KEY (z, x, y)"
            self.base.execute(f"CREATE TABLE tiles ({columns})")

    def close(self):
        self.base.close()

    def put(self, pairs):
        base = self.base
        for key, data in pairs:
            base.execute(self.INSERT, (*key, data))

    def put_many(self, pairs):
        self.base.execute("BEGIN")
        self.base.executemany(self.INSERT, [(*key, data) for key, data in pairs])
        self.base.execute("COMMIT")

    def get(self, keys):
        base, total = self.base, 0
        for key in keys:
            total += len(base.execute(self.SELECT, key).fetchone()[0])
        return total

    def walk(self):
        return sum(len(data) for (data,) in self.base.execute("SELECT data FROM tiles"))


class Measures:
    """Seconds by what was measured and by contender, one after the other."""

    def __init__(self, passes):
        self.passes, self.rows = passes, {}

    def take(self, row, count, contenders, work, prepare=lambda name: None):
        """Has `work(name, contender)` done by all in turns, each time after `prepare(name)`. It is
        about so many tiles."""
        order = random.Random(3)
        for _ in range(self.passes):
            for name in order.sample(list(contenders), len(contenders)):
                prepare(name)
                gc.collect()
                begin = time.process_time()
                work(name, contenders[name])
                seconds = (time.process_time() - begin) / count
                self.rows.setdefault(row, {}).setdefault(name, []).append(seconds)
        self.show(row)

    def show(self, row):
        """As a row of a table in Markdown."""
        own = self.rows[row]["hxcf"]
        cells = [f"{statistics.median(own) * 1e6:.2f} µs"]
        for name in NAMES[1:]:
            ratios = [a / b for a, b in zip(own, self.rows[row].get(name, []))]
            cells.append(f"{statistics.median(ratios):.2f}" if ratios else "")
        print(f"| {row} | " + " | ".join(cells) + " |", flush=True)


def main():
    folder = pathlib.Path(sys.argv[1])
    measures = Measures(int(sys.argv[2]) if len(sys.argv) > 2 else 5)
    print("| speed (1.00: as fast as hxcf) | hxcf, time of one | " + " | ".join(NAMES[1:]) + " |")
    print("|---" * (len(NAMES) + 1) + "|")
    tiles = list(web_tiles())
    expected = sum(len(data) for _, data in tiles)

    def make(name):
        # What is removed so soon was never written to the disk, and keeps nobody waiting.
        shutil.rmtree(folder / name, ignore_errors=True)
        (folder / name).mkdir(parents=True)
        return kinds[name](folder / name)

    alone = functools.partial(Hxcf, process_lock=False)
    kinds = {"hxcf": Hxcf, "hxcf, alone": alone, "lmdb": Lmdb, "sqlite3": Sqlite}
    keyed = {"lmdb": [(Lmdb.key(key), data) for key, data in tiles]}
    pairs = {name: keyed.get(name, tiles) for name in kinds}
    made = {}
    for row, how in (("put each", "put"), ("put, 1,024 at once", "put_many")):

        def prepare(name):
            if name in made:
                made[name].close()
            made[name] = make(name)
            made[name].open("w")

        def store(name, _):
            put = getattr(made[name], how)
            for first in range(0, STORED, BATCH):
                put(pairs[name][first : first + BATCH])

        measures.take(row, STORED, dict.fromkeys(pairs), store, prepare)
    for name, contender in made.items():
        contender.put_many(pairs[name][STORED:])  # to be read
        contender.close()

    readers = {
        "hxcf": Hxcf(folder / "hxcf"),
        "hxcf, mapped": Hxcf(folder / "hxcf", mapped=True),
        "lmdb": Lmdb(folder / "lmdb"),
        "lmdb, renewed": Lmdb(folder / "lmdb", renews=True),
        "sqlite3": Sqlite(folder / "sqlite3"),
    }
    order = random.Random(4).sample([key for key, _ in tiles], len(tiles))
    keys = {name: [reader.key(key) for key in order] for name, reader in readers.items()}
    for reader in readers.values():
        reader.open("r")

    def get(name, reader):
        assert reader.get(keys[name]) == expected

    def walk(_, reader):
        assert reader.walk() == expected

    measures.passes *= 2
    for row, work in (("get", get), ("walk", walk)):
        measures.take(row, len(tiles), readers, work)
    for reader in readers.values():
        reader.close()


if __name__ == "__main__":
    main()
