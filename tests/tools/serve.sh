#!/usr/bin/env bash
# The server as clients see it: serve.sh HXCF. Every file is made here.
set -euo pipefail
hxcf=$1
work=$(mktemp -d)
running=()
trap 'kill "${running[@]}" 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"
fail() {
  echo "$*" >&2
  exit 1
}
# start NAME ARGUMENT...: a server at a free port; $NAME is its address, ${NAME}_id the process.
start() {
  local name=$1
  shift
  : >"$name.out"
  "$hxcf" serve --port 0 "$@" >"$name.out" &
  running+=($!)
  printf -v "${name}_id" %s $!
  until grep -q http "$name.out"; do kill -0 "${running[-1]}" || fail "no server: $*"; done
  printf -v "$name" %s "$(sed 's|.* at \(http.*\)/$|\1|' "$name.out")"
}
# gets STATUS PATH [CURL-OPTION...]: head and body are in the files of these names.
gets() {
  local status
  : >body
  status=$(curl -sS --path-as-is -D head -o body -w '%{http_code}' "${@:3}" "$server$2")
  [ "$status" = "$1" ] || fail "${*:2} gives $status: $(cat body)"
}
# has PATTERN: a line of the head.
has() { tr -d '\r' <head | grep -qiE "^$1\$" || fail "no $1 in: $(cat head)"; }
has_no() { ! grep -qiE "^$1" head || fail "$1 in: $(cat head)"; }
# says CODE: of the JSON in the body, as j.
says() { python3 -c "import json; j = json.load(open('body')); assert ($1), j" || fail "not so: $1"; }
no() { [ ! -s body ] || fail "a body: $(head -c 200 body)"; }

{ printf '\x89PNG\r\n\x1a\n' && head -c 200000 /dev/urandom; } >png
printf '\x1a\x0d\x0a\x05water\x12\x04\x12\x02\x00\x00' >layer
gzip -9nc layer >vector
for tile in 0/0/0 1/1/0 2/3/1; do
  mkdir -p "set/${tile%/*}" && cp png "set/$tile.png"
done
echo '{"name": "The World", "attribution": "nobody", "minzoom": "0", "maxzoom": "2"}' >set/metadata.json
"$hxcf" -q import set world && "$hxcf" -q import --layout grid set grids
mkdir -p more/3/7 && cp png more/3/7/7.png
"$hxcf" -q create vectors && "$hxcf" -q put vectors 4/5/6 vector
"$hxcf" -q create --layout grid --rows 40 --cols 30 health
"$hxcf" -q put --stamp 1700000000 health 7,8 png && "$hxcf" -q put --stamp 1700000100 health 7,8 layer
"$hxcf" -q create words && "$hxcf" -q put words 'a b/c.txt' layer && "$hxcf" -q put words ../x vector
mkdir folder && mv words.cf vectors.cf folder
start server world.cf grids health.cf folder --cors '*' --max-age 9
[ "$(cat server.out)" = "serving world, grids, health-file, vectors, words at $server/" ]

# Every path, by what it gives.
for path in /world/0/0/0 /world/2/3/1.png /grids/1/1/0.webp /health-file/cell/7/8?stamp=1700000000; do
  gets 200 $path && cmp body png && has 'content-type: image/png' && has 'cache-control: public, max-age=9'
done
for path in /words/name/a%20b/c.txt /words/name/a%20b%2Fc.txt /health-file/cell/7/8; do
  gets 200 $path && cmp body layer
done
has 'last-modified: Tue, 14 Nov 2023 22:15:00 GMT'
gets 200 '/world/0/0/0?download=1' && has 'content-disposition: attachment; filename="world-0-0-0.png"'
gets 200 / --compressed && has 'content-type: text/html.*' && grep -q '<html' body && cp body page
has "content-security-policy: default-src 'self';.*"
gets 200 / && cmp body page && gets 200 /health && gets 404 /_/nothing.js
gets 200 /index.json && says '[f["kind"] for f in j] == ["pyramid", "pyramid", "grid", "pyramid", "names"]'
says '(j[0]["name"], j[0]["tiles"], j[0]["format"]) == ("world", 3, "png")'
gets 200 /world.json && says 'j["tilejson"] == "3.0.0" and j["maxzoom"] == 2 and j["name"] == "The World"'
says "j['tiles'] == ['$server/world/{z}/{x}/{y}.png']"
gets 200 /vectors.json && says '(j["minzoom"], j["maxzoom"], j["format"]) == (4, 4, "pbf")'
for name in world grids; do
  gets 200 /$name/info.json && says '[(z["zoom"], z["tiles"], z["columns"]) for z in j["zooms"]] ==
    [(0, 1, [0, 0]), (1, 1, [1, 1]), (2, 1, [3, 3])]'
done
gets 200 /health-file/info.json && says '(j["tiles"], j["versions"], j["zooms"][0]["zoom"], j["path"]) ==
  (1, 2, None, "health.cf")'
for box in '' '?box=0,8,99,99'; do
  gets 200 "/health-file/heat.json$box" && says 'j["box"] == [7, 8, 7, 8] and j["versions"] == [2]'
done
gets 200 '/health-file/heat.json?box=0,9,99,99' && says 'j["fieldRows"] == 0 and j["tiles"] == []'
gets 200 '/words/names.json?limit=1' && says 'j == {"names": ["../x"], "next": "..%2Fx"}'
name=$'a\xff%41' && "$hxcf" -q put folder/words "$name" layer
gets 200 /words/name/a%ff%2541 && gets 200 '/words/names.json?limit=1&after=a+b/c.txt'
says 'j["names"][0][0] == "a" and j["next"] == j["escaped"]["0"] and j["next"].endswith("%2541")'
next=$(python3 -c 'import json; print(json.load(open("body"))["next"])') && gets 200 "/words/name/$next"
gets 200 "/words/names.json?after=${next//%/%25}" && says 'j["names"] == []'
"$hxcf" -q rm folder/words "$name" && gets 400 '/words/names.json?after=%25'

gets 200 '/words/names.json?after=../x' && says 'j == {"names": ["a b/c.txt"], "next": None}'
gets 200 '/health-file/versions.json?cell=7/8'
says '[(v["stamp"], v["time"][:10], v["type"]) for v in j] ==
  [(1700000100, "2023-11-14", "application/vnd.mapbox-vector-tile"), (1700000000, "2023-11-14", "image/png")]'

# What is not there, what makes no sense, and what leads out of the files.
for path in /world/3/0/0 /grids/9/9/9 /health-file/cell/40/0 /words/name/nothing /world/0/0/0?stamp=1; do
  gets 204 "$path" && no && has_no content-length
done
for path in /none /none/0/0/0 /world/0/0 /health-file.json /words/cell/0/0 /world/heat.json?zoom=9 /world.cf; do
  gets 404 "$path"
done
for path in /world/0/0/x /world/-1/0/0 /world/0/0/99999999999 /world/0/0/0?stamp=x /words/name/%00 /%zz \
  /words/name/../x /world/%2e%2e/health.cf /../world.cf /%2e%2E/%2e%2e/etc/passwd /world/0/0/0%00.png \
  '/health-file/cell/7/8;' '/world/heat.json?size=513' \
  '/health-file/heat.json?box=1,2,3' '/world/versions.json?tile=1'; do
  gets 400 "$path"
done
gets 404 //etc/passwd
gets 200 /words/name/..%2Fx && cmp body vector  # a name is no path
for method in POST PUT DELETE PATCH; do
  gets 405 /world/0/0/0 -X $method --data-binary @layer && has 'allow: GET, HEAD, OPTIONS'
done
gets 405 /world/0/0/0 --data-binary @png && gets 400 /world/0/0/0 -X NONSENSE
gets 414 "/$(printf '%020000d' 1)" && gets 431 / -H "X: $(printf '%020000d' 1)"

# The head alone; what the client has already; other sites.
gets 200 /world/0/0/0 --head && cmp body head && has "content-length: $(stat -c %s png)" && has 'etag: "0-.*"'
tag=$(tr -d '\r' <head | sed -n 's/^ETag: //Ip')
gets 304 /world/0/0/0 -H "If-None-Match: \"other\", W/$tag" && no && has "etag: $tag"
gets 304 /world/0/0/0 -H 'If-None-Match: "other"' -H $'If-None-Match: "more",\t'"$tag"
gets 200 /world/0/0/0 -H 'If-None-Match: "other"'
gets 304 /health-file/cell/7/8 -H 'If-Modified-Since: Tue, 14 Nov 2023 22:15:00 GMT' && no
for second in 14:59 15:01; do  # only the very time: the stamp of a newer tile may be older
  gets 200 /health-file/cell/7/8 -H "If-Modified-Since: Tue, 14 Nov 2023 22:$second GMT"
done
"$hxcf" -q put --stamp $(($(date +%s) + 7200)) health 1,1 layer
gets 200 /health-file/cell/1/1 && has_no last-modified
gets 204 /world/0/0/0 -X OPTIONS && has 'access-control-allow-origin: \*' && has 'access-control-allow-methods: GET.*'

# Compressed tiles go out as they are, or inflated for a client that cannot do that.
for accept in gzip 'br, GZIP;q=0.5' '*'; do
  gets 200 /vectors/4/5/6.pbf -H "Accept-Encoding: $accept" && cmp body vector && has 'content-encoding: gzip'
  has 'content-type: application/vnd.mapbox-vector-tile' && has 'vary: accept-encoding'
done
tag=$(tr -d '\r' <head | sed -n 's/^ETag: //Ip')
for accept in identity 'gzip;q=0' br; do
  gets 200 /vectors/4/5/6.pbf -H "Accept-Encoding: $accept" && cmp body layer && has_no content-encoding
done
gets 200 /vectors/4/5/6.pbf -H "If-None-Match: $tag"
python3 - >brotli <<'END'
import base64, sys
sys.stdout.buffer.write(base64.b64decode("CwKAaGVsbG8D"))  # "hello"
END
"$hxcf" -q put folder/vectors 5/0/0 brotli
start server folder/vectors.cf --missing 404 --public-url https://maps.example/tiles
gets 200 /vectors/5/0/0 -H 'Accept-Encoding: br' && cmp body brotli && has_no content-encoding
tag=$(tr -d '\r' <head | sed -n 's/^ETag: //Ip')
"$hxcf" -q meta folder/vectors set compression br  # the same bytes are something else now, at once
gets 200 /vectors/5/0/0 -H 'Accept-Encoding: br' -H "If-None-Match: $tag" && cmp body brotli
has 'content-encoding: br'
gets 200 /vectors/5/0/0 && [ "$(cat body)" = hello ]
gets 404 /vectors/9/9/9 && has_no access-control
for pair in minzoom=-3 maxzoom=99 bounds=-999,-10,20,95 center=11,48,1e9 \
  'vector_layers=[null,7,{"id":1},{"id":"a"},{"id":"a"},{"id":"b"}]'; do
  "$hxcf" -q meta folder/vectors set "${pair%%=*}" "${pair#*=}"
done
gets 200 /vectors.json && says 'j["tiles"] == ["https://maps.example/tiles/vectors/{z}/{x}/{y}.pbf"]'
says '(j["minzoom"], j["maxzoom"], j["vector_layers"]) == (4, 5, [{"id": "a"}, {"id": "b"}])'
says '"center" not in j and j["bounds"] == [-180, -10, 20, 90]'

# What others store shows at once, by two servers on one file; under the same stamp, too.
start other world.cf
start server world.cf
gets 204 /world/7/7/7
for text in first other third; do
  echo $text >one && "$hxcf" -q put world 7/7/7 one
  gets 200 /world/7/7/7 -H "If-None-Match: ${tag:-none}" && [ "$(cat body)" = $text ]
  tag=$(tr -d '\r' <head | sed -n 's/^ETag: //Ip')
  [ "$(curl -sS "$other/world/7/7/7")" = $text ] || fail "the other server gives an old tile"
done
"$hxcf" -q rm world 7/7/7 && gets 204 /world/7/7/7
"$hxcf" -q compact world && gets 200 /world/0/0/0 && cmp body png
gets 200 /metrics && grep -qx 'hxcf_requests_total{status="204"} 2' body && grep -qx 'hxcf_tile_misses_total 2' body
grep -qx "hxcf_request_duration_seconds_count $(awk '/^hxcf_requests_total/ {n += $2} END {print n}' body)" body

# A file that goes, comes back as another one, or is damaged: a sentence, and the server stays.
cp folder/words.cf words.cf && "$hxcf" -q put health 39,29 layer
mkdir mixed && mv words.cf world.cf health.cf grids mixed && cd mixed && cp ../layer one
"$hxcf" -q create damaged && "$hxcf" -q put damaged 0/0/0 one && truncate -s -3 damaged.cf
head -c 100 /dev/urandom >none.cf
start server . 2>err
[[ $(wc -l <err) = 1 && $(cat err) = *none.cf* ]] || fail "of a file that is none: $(cat err)"
gets 500 /damaged/0/0/0 && gets 200 /health
gets 200 '/health-file/heat.json?size=1' && says '(j["box"], j["rows"], j["columns"]) == ([0, 0, 39, 29], 40, 30)'
cp words.cf new && head -c 100 /dev/urandom >words.cf
[[ $(curl -s -o body -w '%{http_code}' "$server/words/name/a%20b/c.txt") = 50[03] && $(wc -l <body) = 1 ]] ||
  fail "of a file that is damaged: $(cat body)"
gets 503 /health && gets 200 /world/0/0/0
mv new words.cf
until curl -sf "$server/words/name/a%20b/c.txt" >body; do kill -0 "$server_id"; done
cmp body ../layer && gets 200 /health
# until_gets STATUS PATH: a file is opened anew at most once in a second.
until_gets() {
  until [ "$(curl -s -o body -w '%{http_code}' "$server$2")" = "$1" ]; do
    kill -0 "$server_id" || fail "the server has ended"
  done
}
"$hxcf" -q import --layout grid ../more more
mv grids old && mv more grids && until_gets 200 /grids/3/7/7 && cmp body ../png
mv health.cf was.cf && cp words.cf new && mv words.cf health.cf && mv was.cf words.cf
until_gets 200 '/health-file/names.json?limit=1' && until_gets 200 '/words/versions.json?cell=7/8'
says 'len(j) == 2'

# It ends when it is told to, also with an open connection, and its file can be opened for writing.
exec 3<>"/dev/tcp/127.0.0.1/${server##*:}"
for signal in TERM:server INT:other; do
  id=${signal#*:}_id
  kill -${signal%:*} "${!id}"
  wait "${!id}" || fail "ends with $? by $signal"
done
# A port that is taken, a file that is none.
status=0 && "$hxcf" serve world.cf --port 0 --host 192.0.2.1 2>err || status=$?
[ $status -eq 1 ] && grep -q 'cannot listen at 192.0.2.1' err || fail "$status: $(cat err)"
status=0 && "$hxcf" serve missing.cf 2>err || status=$?
[ $status -eq 1 ] && grep -q 'no such file' err || fail "$status: $(cat err)"
