#!/usr/bin/env bash
# Builds the command hxcf and shows what it does: it packs the files of a folder by name, and a pyramid
# of them into grids, looks at both, checks, compacts, exports and compares.
#   scripts/demo.sh [FOLDER]   (default: /usr/include)
. "$(dirname "$0")/common.sh"

folder=$(cd "${OLDPWD:-.}" && realpath -- "${1:-/usr/include}")
[ -d "$folder" ] || fail "$folder is not a folder"
need_compiler
build release
rm -rf out
mkdir -p out/pyramid
PATH=$PWD/build/release/tools/hxcf:$PATH
cd out
run() {
  printf '\n$ %s\n' "$*"
  "$@"
}

run hxcf import --by-name "$folder" names.cf
run hxcf info names.cf
# A second version of the same tiles, of which the first is removed again: dead space.
run hxcf import --by-name --stamp 1 "$folder" names.cf
hxcf ls names.cf >list
head -n 100 list | while IFS= read -r name; do hxcf rm --stamp 0 names.cf "$name"; done
run hxcf compact names.cf
run hxcf verify names.cf
run hxcf export --by-name names.cf files
# Empty files and links to folders are no tiles.
diff -rq "$folder" files | grep -v "^Only in $folder" && fail "what came out is not what went in"
echo "every file came out as it went in"

# The first files of the folder as a pyramid with two zooms.
number=0
while IFS= read -r -d '' file; do
  zoom=$((number % 2 + 4)) place=$((number / 2))
  side=$((1 << zoom))
  [ $((place / side)) -lt $side ] || continue
  mkdir -p pyramid/$zoom/$((place % side))
  ln "$file" "pyramid/$zoom/$((place % side))/$((place / side)).bin" 2>/dev/null ||
    cp "$file" "pyramid/$zoom/$((place % side))/$((place / side)).bin"
  number=$((number + 1))
  [ $number -lt 500 ] || break
done < <(find "$folder" -type f -size +0 -print0)
run hxcf import --layout grid pyramid grids
run hxcf info grids
run hxcf import pyramid pyramid.cf
run hxcf export grids pyramid.mbtiles
run hxcf export pyramid.cf pyramid.pmtiles
run hxcf import pyramid.mbtiles from-mbtiles.cf
run hxcf import pyramid.pmtiles from-pmtiles.cf
run hxcf diff from-mbtiles.cf from-pmtiles.cf | grep -v '^! metadata.json' || true
run hxcf export from-pmtiles.cf back
diff -rq -x metadata.json pyramid back || fail "the pyramid is not what it was"
echo "every tile came out as it went in"
ls -l --block-size=K ./*.cf ./*.mbtiles ./*.pmtiles
