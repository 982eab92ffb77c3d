#!/usr/bin/env bash
# What hxcf does with data that other people have made: fetches them through apt and npm into
# build/realdata, where they stay, and compares every byte of what comes out again.
#   scripts/realdata.sh [HXCF]
# Without a command it builds one and installs what it needs; with one it uses what is there, and ends
# with 77 if a program or the network is missing.
. "$(dirname "$0")/common.sh"

skip() {
  echo "left out: $*"
  exit 77
}
if [ $# -eq 0 ]; then
  need_compiler sqlite3=sqlite3 npm=npm node=nodejs gdal_translate=gdal-bin
  build release
  hxcf=$PWD/build/release/tools/hxcf/hxcf
else
  hxcf=$(realpath "$1")
  for program in apt-get dpkg sqlite3 npm node; do
    command -v $program >/dev/null || skip "no program $program"
  done
fi

data=$PWD/build/realdata/data work=$PWD/build/realdata/work
mkdir -p "$data"
rm -rf "$work" && mkdir "$work"
trap 'rm -rf "$work"' EXIT

# fetch NAME COMMAND...: runs it in a new folder, which gets that name if it succeeds.
fetch() {
  [ -d "$data/$1" ] && return
  rm -rf "$data/new" && mkdir "$data/new"
  (cd "$data/new" && "${@:2}") >"$data/$1.log" 2>&1 ||
    skip "cannot fetch $1, perhaps for want of a network (see $data/$1.log)"
  mv "$data/new" "$data/$1"
}
from_apt() {
  apt-get -o APT::Sandbox::User=root download "$1" && dpkg -x ./*.deb . && rm ./*.deb
}
from_npm() {
  npm pack --silent --fetch-retries=0 "$1" && tar -xzf ./*.tgz "${@:2}" && rm ./*.tgz
}
fetch marble-qt-data from_apt marble-qt-data
fetch papirus-icon-theme from_apt papirus-icon-theme
fetch cesium from_npm cesium@1.140.0 package/Source/Assets/Textures/NaturalEarthII
fetch mvt-fixtures from_npm @mapbox/mvt-fixtures@4.0.0 package/real-world
fetch pmtiles npm install --silent --fetch-retries=0 --no-save --prefix . pmtiles@4.5.0 fflate@0.8.2
cd "$work"

quiet() { "$hxcf" -q "$@" || fail "hxcf $* has failed"; }
sound() { "$hxcf" verify "$1" >verify.log || fail "hxcf verify $1: $(cat verify.log)"; }
# holds FILE COUNT: that many files or tiles, no less for a package that has changed.
holds() {
  local tiles
  tiles=$("$hxcf" ls "$1" | grep -vc '^metadata.json$')
  [ "$tiles" -eq "$2" ] || fail "$1 holds $tiles tiles, not $2"
}
count() { find "$1" -type f | wc -l; }
same_folder() {
  diff -r -x metadata.json "$1" "$2" >diff.log || fail "$1 and $2 differ: $(head -n 3 diff.log)"
}
dump() {
  sqlite3 "$1" "SELECT zoom_level, tile_column, tile_row, quote(tile_data) FROM tiles ORDER BY 1, 2, 3;
    SELECT name, value FROM metadata ORDER BY 1, 2"
}
same_mbtiles() { cmp <(dump "$1") <(dump "$2") || fail "$1 and $2 differ"; }

# by_mbtiles FILE: to MBTiles, back, and to MBTiles.
by_mbtiles() {
  quiet export "$1" first.mbtiles
  quiet import first.mbtiles again.cf
  sound again.cf
  quiet export again.cf second.mbtiles
  same_mbtiles first.mbtiles second.mbtiles
  rm again.cf first.mbtiles second.mbtiles
}
# by_pmtiles FILE FOLDER: other people's reader finds every tile of the folder, and no other.
by_pmtiles() {
  quiet export "$1" out.pmtiles
  node --input-type=module - "$data/pmtiles" out.pmtiles "$2" <<'END'
import { createRequire } from "node:module";
import fs from "node:fs";
import path from "node:path";
import zlib from "node:zlib";
const [modules, file, folder] = process.argv.slice(2);
const { PMTiles } = createRequire(path.resolve(modules, "x.js"))("pmtiles");
const bytes = fs.readFileSync(file);
const read = async (at, size) => ({ data: new Uint8Array(bytes.subarray(at, at + size)).buffer });
const tiles = new PMTiles({ getKey: () => file, getBytes: read });
let count = 0;
for (const name of fs.readdirSync(folder, { recursive: true })) {
  const at = name.match(/^(\d+)\/(\d+)\/(\d+)\./);
  if (!at) continue;
  let own = fs.readFileSync(path.join(folder, name));
  if (own[0] === 0x1f && own[1] === 0x8b) own = zlib.gunzipSync(own);
  const theirs = await tiles.getZxy(...at.slice(1).map(Number));
  if (!theirs || !own.equals(Buffer.from(theirs.data))) throw new Error(`${name} is another one`);
  ++count;
}
const { numAddressedTiles, maxZoom } = await tiles.getHeader();
if (count === 0 || count !== numAddressedTiles) throw new Error(`${numAddressedTiles} tiles`);
if (await tiles.getZxy(maxZoom + 1, 0, 0)) throw new Error("there is a tile too many");
await tiles.getMetadata();
END
  quiet import out.pmtiles from-pm.cf
  sound from-pm.cf
  quiet export from-pm.cf from-pm
  same_folder "$2" from-pm
  rm -r out.pmtiles from-pm.cf from-pm
}

# Two columns at zoom 0, and columns have their rows' numbers: ROW/ROW_COLUMN.jpg.
source=$data/marble-qt-data/usr/share/marble/data/maps/earth/srtm
while IFS= read -r file; do
  [[ $file =~ /([0-9]+)/[0-9]+/([0-9]+)_([0-9]+)\.jpg$ ]] || continue
  column=srtm/${BASH_REMATCH[1]}/$((10#${BASH_REMATCH[3]}))
  mkdir -p "$column"
  cp "$file" "$column/$((10#${BASH_REMATCH[2]})).jpg"
done < <(find "$source" -type f)
quiet import --layout grid srtm srtm-grid
sound srtm-grid
holds srtm-grid 170
quiet export srtm-grid srtm-out
same_folder srtm srtm-out
by_mbtiles srtm-grid
if "$hxcf" -q export srtm-grid srtm.pmtiles 2>refused || [ -e srtm.pmtiles ]; then
  fail "a PMTiles file was made of a pyramid with two columns at zoom 0"
fi
echo "marble's SRTM: $(count srtm) tiles in grids, as a folder and MBTiles the same; PMTiles refused"

source=$data/cesium/package/Source/Assets/Textures/NaturalEarthII
find "$source" -name '*.jpg' -printf '%P\n' | while IFS= read -r name; do
  mkdir -p "natural/${name%/*}" && cp "$source/$name" "natural/$name"
done
quiet import --scheme tms natural natural.cf
sound natural.cf
holds natural.cf 42
"$hxcf" get natural.cf 2/3/0 | cmp - natural/2/3/3.jpg
quiet export --scheme tms natural.cf natural-out
same_folder natural natural-out
by_mbtiles natural.cf
echo "cesium's NaturalEarthII: $(count natural) tiles from the south, as a folder and MBTiles the same"

# Each folder is a set of its own. Those that are compressed stay so.
sets=0 tiles=0
for source in "$data"/mvt-fixtures/package/real-world/*/; do
  set=$(basename "$source")
  while IFS= read -r file; do
    [[ $file =~ /([0-9]+)-([0-9]+)-([0-9]+)\.(mvt|mvt\.gz|vector\.pbf|pbf)$ ]] || continue
    [ -s "$file" ] || continue
    column=$set/${BASH_REMATCH[1]}/${BASH_REMATCH[2]}
    mkdir -p "$column" && cp "$file" "$column/${BASH_REMATCH[3]}.pbf"
  done < <(find "$source" -type f)
  [ -d "$set" ] || fail "$source has no tiles"
  quiet import "$set" "$set.cf"
  sound "$set.cf"
  holds "$set.cf" "$(count "$set")"
  quiet export "$set.cf" "$set-out"
  same_folder "$set" "$set-out"
  by_mbtiles "$set.cf"
  by_pmtiles "$set.cf" "$set"
  sets=$((sets + 1)) tiles=$((tiles + $(count "$set")))
done
[ $sets -ge 5 ] && [ $tiles -ge 200 ] || fail "only $tiles vector tiles in $sets sets"
echo "mvt-fixtures: $tiles vector tiles in $sets sets, as folders, MBTiles and PMTiles the same"

# The links of the theme would only be the same files once more.
mkdir icons
source=$data/papirus-icon-theme/usr/share/icons
(cd "$source" && find . -type f -size +0 -print0 | xargs -0 cp -l --parents -t "$work/icons")
quiet import --by-name icons icons.cf
sound icons.cf
holds icons.cf "$(count icons)"
quiet export --by-name icons.cf icons-out
diff -r icons icons-out >diff.log || fail "icons differ: $(head -n 3 diff.log)"
quiet import --by-name icons icons.cf
holds icons.cf "$(count icons)"
echo "papirus-icon-theme: $(count icons) files by name, as a folder the same"

# One raster of some of marble's tiles, made MBTiles by GDAL.
if ! command -v gdal_translate >/dev/null; then
  echo "GDAL's MBTiles: left out, no program gdal_translate (package gdal-bin)"
  exit 0
fi
for ((x = 0; x < 8; ++x)); do
  for ((y = 0; y < 4; ++y)); do
    gdal_translate -q -a_srs EPSG:4326 -a_ullr $((x * 45 - 180)) $((90 - y * 45)) \
      $((x * 45 - 135)) $((45 - y * 45)) srtm/2/$x/$y.jpg geo-$x-$y.tif
  done
done
gdalbuildvrt -q world.vrt geo-*.tif
gdal_translate -q -of MBTILES -projwin -180 85 180 -85 world.vrt gdal.mbtiles
gdaladdo -q gdal.mbtiles 2 4 8 16
quiet import gdal.mbtiles gdal.cf
sound gdal.cf
holds gdal.cf "$(sqlite3 gdal.mbtiles 'SELECT count(*) FROM tiles')"
quiet export gdal.cf ours.mbtiles
same_mbtiles gdal.mbtiles ours.mbtiles
# GDAL sees the same picture in both, by the checksums of its bands and overviews.
picture() { gdalinfo -nomd -checksum "$1" | grep -v '^Files:'; }
cmp <(picture gdal.mbtiles) <(picture ours.mbtiles) || fail "GDAL sees two pictures"
picture ours.mbtiles | grep -q 'Checksum=[1-9]' || fail "GDAL sees nothing"
quiet export gdal.cf gdal-out
by_pmtiles gdal.cf gdal-out
echo "GDAL's MBTiles: $(find gdal-out -name '*.png' | wc -l) tiles, as MBTiles (also to GDAL) and PMTiles the same"
