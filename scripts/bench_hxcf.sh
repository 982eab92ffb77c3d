#!/usr/bin/env bash
# How fast hxcf takes and gives 65,536 web tiles, each time next to what else copies as many bytes:
# SQLite from one file into another, and tar. Medians of pairs, in some two minutes.
#   scripts/bench_hxcf.sh [PAIRS [FOLDER]]   (3, in build/bench_hxcf; needs some 3 GB)
. "$(dirname "$0")/common.sh"

pairs=${1:-3}
[[ $pairs =~ ^[1-9][0-9]*$ ]] || fail "how many pairs?"
need_compiler sqlite3=sqlite3 python3=python3
build release
hxcf=$PWD/build/release/tools/hxcf/hxcf
mkdir -p "${2:-build/bench_hxcf}"
work=$(mktemp -d -p "$(realpath "${2:-build/bench_hxcf}")")
trap 'rm -rf "$work"' EXIT
cd "$work"

# Sizes as those of web tiles: log-normal around 6 KiB.
python3 - <<'END'
import math, os, random, sqlite3
sizes = random.Random(1)
tiles = sqlite3.connect("tiles.mbtiles")
tiles.executescript("""CREATE TABLE metadata (name text, value text);
  CREATE TABLE tiles (zoom_level integer, tile_column integer, tile_row integer, tile_data blob);
  CREATE UNIQUE INDEX tile_index ON tiles (zoom_level, tile_column, tile_row);""")
tiles.execute("INSERT INTO metadata VALUES ('name', 'bench')")
for x in range(256):
    column = []
    for y in range(256):
        size = int(sizes.lognormvariate(math.log(6144), 0.8)) + 8
        column.append((8, x, y, b"\x89PNG\r\n\x1a\n" + os.urandom(size - 8)))
    tiles.executemany("INSERT INTO tiles VALUES (?, ?, ?, ?)", column)
tiles.commit()
END

# Like the command, it keeps what the process has written, but not through a loss of power.
sqlite() {
  sqlite3 copy.mbtiles "PRAGMA synchronous = OFF; ATTACH 'tiles.mbtiles' AS source;
    CREATE TABLE tiles (zoom_level integer, tile_column integer, tile_row integer, tile_data blob);
    CREATE UNIQUE INDEX tile_index ON tiles (zoom_level, tile_column, tile_row);
    BEGIN; INSERT INTO tiles SELECT * FROM source.tiles; COMMIT;"
}
import() { "$hxcf" -q import "$1" copy.cf; }
export_mbtiles() { "$hxcf" -q export all.cf copy.mbtiles; }
folder() { "$hxcf" -q import folder copy.cf; }
tape() { tar -cf copy.tar folder; }

# seconds COMMAND...: how long it takes. What others have written goes to the disk before.
seconds() {
  rm -f copy.*
  sync -f .
  local begin=$EPOCHREALTIME
  "$@"
  awk -v a="$begin" -v b="$EPOCHREALTIME" 'BEGIN {printf "%.3f", b - a}'
}
# pair NAME COMMAND... -- COMMAND...: the second one is what the first is measured by.
pair() {
  local name=$1 first=() i
  shift
  while [ "$1" != -- ]; do
    first+=("$1")
    shift
  done
  shift
  for ((i = 0; i < pairs; ++i)); do
    echo "$(seconds "${first[@]}") $(seconds "$@")"
  done | awk -v name="$name" '{
      own[NR] = $1; other[NR] = $2; ratio[NR] = $1 / $2
    }
    function median(of, n,   i, j, t) {
      for (i = 1; i <= n; ++i) for (j = i + 1; j <= n; ++j)
        if (of[j] < of[i]) { t = of[i]; of[i] = of[j]; of[j] = t }
      return n % 2 ? of[(n + 1) / 2] : (of[n / 2] + of[n / 2 + 1]) / 2
    }
    END {
      printf "| %s | %.2f s | %.2f s | %.2f |\n", name, median(own, NR), median(other, NR), median(ratio, NR)
    }'
}

import tiles.mbtiles && mv copy.cf all.cf
"$hxcf" -q export all.cf folder
echo "$(du -m tiles.mbtiles | cut -f1) MB of tiles; average load $(cut -d' ' -f1 /proc/loadavg)"
echo "| hxcf | time | the other's | ratio |"
echo "|---|---|---|---|"
pair "import of MBTiles, beside SQLite's INSERT ... SELECT" import tiles.mbtiles -- sqlite
pair "export to MBTiles, beside the same" export_mbtiles -- sqlite
pair "import of a folder, beside tar -c" folder -- tape
