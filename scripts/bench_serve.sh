#!/usr/bin/env bash
# How fast hxcf serve gives 65,536 web tiles, next to nginx giving the same tiles as files of a folder;
# and what an importer costs that stores 500 tiles in a second meanwhile. Random tiles, 64 connections,
# medians of pairs, in some three minutes.
#   scripts/bench_serve.sh [PAIRS [SECONDS [FOLDER]]]   (5, 5, in build/bench_serve; needs some 2 GB)
. "$(dirname "$0")/common.sh"

pairs=${1:-5} seconds=${2:-5}
[[ $pairs =~ ^[1-9][0-9]*$ && $seconds =~ ^[1-9][0-9]*$ ]] || fail "how many pairs, of how many seconds?"
need_compiler sqlite3=sqlite3 python3=python3 wrk=wrk
need_nginx
build release
hxcf=$PWD/build/release/tools/hxcf/hxcf
mkdir -p "${3:-build/bench_serve}"
work=$(mktemp -d -p "$(realpath "${3:-build/bench_serve}")")
running=()
trap 'kill "${running[@]}" 2>/dev/null; wait; rm -rf "$work"' EXIT
cd "$work"

# Sizes as those of web tiles: log-normal around 6 KiB.
python3 - <<'END'
import math, os, random
sizes = random.Random(1)
for x in range(256):
    os.makedirs(f"tiles/8/{x}")
    for y in range(256):
        size = int(sizes.lognormvariate(math.log(6144), 0.8)) + 8
        with open(f"tiles/8/{x}/{y}.png", "wb") as tile:
            tile.write(b"\x89PNG\r\n\x1a\n" + os.urandom(size - 8))
# What the importer stores again and again: a hundred tiles in each of five folders.
for part in range(5):
    for x in range(10):
        os.makedirs(f"part{part}/8/{part * 10 + x}")
        for y in range(10):
            os.link(f"tiles/8/{part * 10 + x}/{y}.png", f"part{part}/8/{part * 10 + x}/{y}.png")
END
"$hxcf" -q import tiles tiles.cf

port=$((20000 + RANDOM % 10000))
cat >nginx.conf <<END
user $(id -un);
pid $work/nginx.pid;
error_log $work/nginx.log;
worker_processes auto;
daemon off;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000000;
  default_type image/png;
  client_body_temp_path $work/temp; proxy_temp_path $work/temp; fastcgi_temp_path $work/temp;
  uwsgi_temp_path $work/temp; scgi_temp_path $work/temp;
  server { listen 127.0.0.1:$port; root $work; }
}
END
"$nginx" -c "$work/nginx.conf" -e "$work/nginx.log" &
running+=($!)
"$hxcf" serve tiles.cf --port 0 >address &
running+=($!)
until grep -q http address; do kill -0 "${running[1]}"; done
peer=http://127.0.0.1:$port
ours=$(sed 's|.* at \(http.*\)/|\1|' address)
until curl -sf "$peer/tiles/8/0/0.png" >/dev/null; do kill -0 "${running[0]}"; done

cat >random.lua <<'END'
local count = 0
function setup(thread)
  thread:set("number", count)
  count = count + 1
end
function init()
  math.randomseed(number + 1)
end
function request()
  return wrk.format("GET", "/tiles/8/" .. math.random(0, 255) .. "/" .. math.random(0, 255) .. ".png")
end
function done(summary, latency)
  local errors = summary.errors
  io.write(string.format("RESULT %.0f %.2f %d\n", summary.requests / summary.duration * 1e6,
    latency:percentile(99) / 1000,
    errors.connect + errors.read + errors.write + errors.status + errors.timeout))
end
END
# load URL: requests per second, the 99th percentile in milliseconds, and how many have failed.
load() { wrk -t2 -c64 -d"${seconds}s" -s random.lua "$1" | sed -n 's/^RESULT //p'; }

# Stores 500 tiles in a second.
importer() {
  local part=0 next=$EPOCHREALTIME
  while :; do
    "$hxcf" -q import --replace part$part tiles.cf
    echo 100 >>stored
    part=$(((part + 1) % 5))
    next=$(awk -v n="$next" 'BEGIN {printf "%.6f", n + 0.2}')
    sleep "$(awk -v n="$next" -v t="$EPOCHREALTIME" 'BEGIN {print (n > t ? n - t : 0)}')"
  done
}

# table ROWS: a row has requests per second, p99 and errors of both.
table() {
  awk -v name="$1" '{
      own[NR] = $1; late[NR] = $2; base[NR] = $4; baseLate[NR] = $5; ratio[NR] = $1 / $4
      failed += $3 + $6
    }
    function median(of, n,   i, j, t) {
      for (i = 1; i <= n; ++i) for (j = i + 1; j <= n; ++j)
        if (of[j] < of[i]) { t = of[i]; of[i] = of[j]; of[j] = t }
      return n % 2 ? of[(n + 1) / 2] : (of[n / 2] + of[n / 2 + 1]) / 2
    }
    END {
      printf "| %s | %.0f/s | %.1f ms | %.0f/s | %.1f ms | %.2f |\n", name, median(own, NR),
        median(late, NR), median(base, NR), median(baseLate, NR), median(ratio, NR)
      if (failed) { print failed " requests have failed"; exit 1 }
    }'
}

load "$peer" >/dev/null && load "$ours" >/dev/null
echo "$(du -m tiles.cf | cut -f1) MB of tiles; average load $(cut -d' ' -f1 /proc/loadavg)"
echo "| hxcf serve | requests | p99 | the other's requests | its p99 | ratio |"
echo "|---|---|---|---|---|---|"
for ((i = 0; i < pairs; ++i)); do
  echo "$(load "$ours") $(load "$peer")"
done | table "beside nginx and a folder of files"
for ((i = 0; i < pairs; ++i)); do
  alone=$(load "$ours")
  importer &
  running[2]=$!
  beside=$(load "$ours")
  kill $!
  wait $! || true
  unset 'running[2]'
  echo "$beside $alone"
done | table "while 500 tiles in a second are stored, beside itself alone"
awk -v s=$((pairs * seconds)) '{n += $1} END {printf "The importer has stored %.0f tiles in a second.\n", n / s}' stored
