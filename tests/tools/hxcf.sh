#!/usr/bin/env bash
# The command as a user types it: hxcf.sh HXCF. Every file is made here.
set -euo pipefail
hxcf=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
fail() {
  echo "$*" >&2
  exit 1
}
# ends STATUS WORD COMMAND...: with that status, and a sentence on stderr that has the word.
ends() {
  local status=0
  "$hxcf" "${@:3}" >out 2>err || status=$?
  [ $status -eq "$1" ] || fail "$* has ended with $status: $(cat err)"
  grep -qi -- "$2" err || fail "$* says: $(cat err)"
  [ "$(wc -l <err)" -le 1 ] || fail "$* says more than a sentence: $(cat err)"
}
quiet() { "$hxcf" -q "$@" || fail "hxcf $* has failed"; }

# A pyramid with the magic bytes of its format, and metadata as they come out again.
for tile in 0/0/0 1/0/0 1/1/1 2/3/0 2/1/2; do
  mkdir -p "set/${tile%/*}"
  { printf '\x89PNG\r\n\x1a\n' && head -c $((RANDOM % 3000 + 1)) /dev/urandom; } >"set/$tile.png"
done
echo '{"name": "Test", "attribution": "nobody"}' >set/metadata.json
tiles() { diff -r -x metadata.json "$@"; }

# Every format into every other one, by both layouts.
quiet import set names
for target in a.mbtiles a.pmtiles folder; do
  quiet export names $target
  for layout in names grid; do
    copy=${target/./-}-$layout
    quiet import --layout $layout $target $copy
    "$hxcf" diff $copy names | grep -v '^! metadata.json$' && fail "$target by $layout"
    quiet export $copy $copy-out
    tiles set $copy-out
    "$hxcf" verify $copy >/dev/null
  done
done
[ "$("$hxcf" meta a-pmtiles-names get attribution)" = nobody ]
quiet export --scheme tms names up
cmp set/2/3/0.png up/2/3/3.png
quiet import --scheme tms up down
quiet export down down-out
tiles set down-out

# To run it again goes on; what is there stays but for --replace.
echo new >one && quiet put names 0/0/0 one
quiet import set names
[ "$("$hxcf" get names 0/0/0)" = new ]
quiet import --replace --stamp 7 set names
"$hxcf" get names 0/0/0 | cmp - set/0/0/0.png
[ "$("$hxcf" ls --versions names | grep -c ' of .* bytes')" -eq 11 ]
ends 2 'several versions' rm names 0/0/0
quiet rm --stamp 7 names 0/0/0
[ "$("$hxcf" get names 0/0/0)" = new ]
quiet rm names 0/0/0 && ends 1 'no tile' get names 0/0/0

# Parts of it.
[ "$("$hxcf" ls --zoom 1 names | sort | tr '\n' ' ')" = '1/0/0 1/1/1 ' ]
quiet copy --min-zoom 2 names part && [ "$("$hxcf" ls --prefix 2/ part | wc -l)" -eq 2 ]
[ "$("$hxcf" ls --bbox -180,0,-1,85 --max-zoom 1 names)" = 1/0/0 ]

# Names, and cells.
quiet import --by-name set by-name && quiet export --by-name by-name by-name-out
diff -r set by-name-out
quiet create --layout grid --rows 2 --cols 3 cells && echo cell | quiet put cells 1,2
[ "$("$hxcf" get cells 1,2)" = cell ] && quiet compact cells
ends 1 'range' put cells 2,0 one
ends 2 'no cell' get cells 1/2
"$hxcf" --json info names | python3 -c 'import json, sys; assert json.load(sys.stdin)["kind"] == "names"'

# Two fill a file while others read it; one of them dies at its work, and a new one goes on.
python3 - <<'END'
import sqlite3
for name, odd in ("even", 0), ("odd", 1):
    db = sqlite3.connect(name + ".mbtiles")
    db.execute("CREATE TABLE tiles (zoom_level, tile_column, tile_row, tile_data)")
    db.executemany("INSERT INTO tiles VALUES (8, ?, ?, randomblob(500))",
                   ((x, y) for x in range(odd, 100, 2) for y in range(256)))
    db.commit()
# Its last column comes to no end.
db.executescript("""ATTACH 'endless.mbtiles' AS other; CREATE TABLE other.t AS SELECT * FROM tiles;
  CREATE VIEW other.tiles AS SELECT zoom_level, tile_column, tile_row, CASE tile_column WHEN 99 THEN
  (WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n) SELECT count(*) FROM n)
  ELSE tile_data END AS tile_data FROM t""")
END
quiet create shared
"$hxcf" -q import endless.mbtiles shared & dying=$!
trap 'kill -9 $dying || true; rm -rf "$work"' EXIT
"$hxcf" -q import even.mbtiles shared & living=$!
until [ -n "$("$hxcf" ls --prefix 8/1/ shared)" ]; do kill -0 $dying; done
kill -9 $dying
wait $dying 2>/dev/null || [ $? -eq 137 ] || fail "the import did not live until it was killed"
while kill -0 $living 2>/dev/null; do quiet verify shared >/dev/null; done
wait $living || fail "the import beside the one that died has failed"
trap 'rm -rf "$work"' EXIT
quiet import odd.mbtiles shared
"$hxcf" verify shared >/dev/null
quiet export shared shared.mbtiles
python3 - <<'END'
import sqlite3
def rows(*names):
    return sorted(row for name in names for row in sqlite3.connect(name + ".mbtiles").execute(
        "SELECT zoom_level, tile_column, tile_row, tile_data FROM tiles"))
assert rows("shared") == rows("even", "odd")
END

# What cannot be, makes nothing.
rm out err
before=$(ls)
ends 1 'no such file' info missing
ends 1 'missing' import missing.mbtiles new
ends 1 'exist' create names
ends 2 'FILE' info
ends 2 'no zooms' import --by-name --min-zoom 1 set new
ends 1 'no metadata' meta names get nothing
ends 1 'mbtiles' export names a.mbtiles
head -c 100 /dev/urandom >junk.pmtiles && ends 1 'junk' import junk.pmtiles new
head -c 500 a.mbtiles >cut.mbtiles && ends 1 'cut' import cut.mbtiles new
head -c 300 a.pmtiles >cut.pmtiles && ends 1 'cut' import cut.pmtiles new
rm junk.pmtiles cut.mbtiles cut.pmtiles out err
[ "$before" = "$(ls)" ] || fail "made: $(ls)"

# A manual page for every command, and a completion that bash takes.
for command in hxcf $("$hxcf" --bash-completion | sed -n "s/^    \([a-z]*\)) words.*/\1/p"); do
  "$hxcf" --man "$command" | grep -q '^.SH OPTIONS' || fail "no manual page of $command"
done
"$hxcf" --bash-completion | bash -n
