#!/usr/bin/env bash
# The recipe of docs/serving.md, as it stands there: nginx with a cache in front of two servers on one
# file. Under load, while an import stores all tiles again and again, one server is killed, and no
# request fails. The cache gives an old tile until max-age is over, and then the new one.
#   scripts/serving.sh [HXCF]
# Without a command it builds one and installs what it needs; with one it uses what is there, and ends
# with 77 if a program is missing.
. "$(dirname "$0")/common.sh"

if [ $# -eq 0 ]; then
  need_compiler curl=curl python3=python3
  need_nginx
  build release
  hxcf=$PWD/build/release/tools/hxcf/hxcf
else
  hxcf=$(realpath "$1")
  for program in curl python3; do
    command -v $program >/dev/null || { echo "left out: no $program" && exit 77; }
  done
  find_nginx || { echo "left out: no nginx" && exit 77; }
fi
recipe=$PWD/docs/serving.md
work=$(mktemp -d)
running=()
trap 'kill "${running[@]}" 2>/dev/null || true; wait; rm -rf "$work"' EXIT
cd "$work"

max_age=2
for column in $(seq 0 15); do
  mkdir -p "set/4/$column"
  for row in $(seq 0 15); do
    printf '\x89PNG\r\n\x1a\n tile %d %d' "$column" "$row" >"set/4/$column/$row.png"
  done
done
"$hxcf" -q import set world
for i in 0 1; do
  "$hxcf" serve world.cf --port 0 --max-age $max_age >address$i &
  running+=($!)
done
port() {
  until grep -q http "address$1"; do kill -0 "${running[$1]}"; done
  sed 's|.*:\([0-9]*\)/$|\1|' "address$1"
}

# Its ports are those of the servers here, and one that is free; its cache is in a folder of its own.
free=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
awk '/^```nginx$/ { on = 1; next } /^```$/ { on = 0 } on' "$recipe" |
  sed "s|127.0.0.1:8081|127.0.0.1:$(port 0)|; s|127.0.0.1:8082|127.0.0.1:$(port 1)|
    s|listen 80;|listen 127.0.0.1:$free;|; s|/var/cache/nginx/tiles|$work/cache|" >recipe.conf
grep -q "server 127.0.0.1:$(port 1)" recipe.conf || fail "the recipe is not as this script expects it"
cat >nginx.conf <<END
user $(id -un);
pid $work/nginx.pid;
daemon off;
events {}
http {
  access_log off;
  client_body_temp_path $work/temp; fastcgi_temp_path $work/temp; uwsgi_temp_path $work/temp;
  scgi_temp_path $work/temp; proxy_temp_path $work/temp;
  include $work/recipe.conf;
}
END
"$nginx" -c "$work/nginx.conf" -e "$work/nginx.log" &
running+=($!)
map=http://127.0.0.1:$free
until curl -sf "$map/health" >/dev/null; do kill -0 "${running[2]}" || fail "$(cat nginx.log)"; done

# Each of the cached tiles is right, and comes from the cache the second time.
curl -sf -D head "$map/world/4/1/2.png" | cmp - set/4/1/2.png
curl -sf -D head "$map/world/4/1/2.png" | cmp - set/4/1/2.png
grep -qi '^X-Cache-Status: HIT' head || fail "no hit: $(cat head)"

# Everything that clients ask for is answered, while one server dies without a word.
cat >load.py <<'END'
import http.client, random, sys, threading
host, is_over, answers = sys.argv[1], threading.Event(), threading.Semaphore(0)
failed = []
def ask(seed):
    numbers, connection = random.Random(seed), http.client.HTTPConnection(host)
    while not is_over.is_set():
        x, y = numbers.randrange(16), numbers.randrange(16)
        # Every second one is not in the cache.
        query = numbers.choice(["", f"?{numbers.random()}"])
        connection.request("GET", f"/world/4/{x}/{y}.png{query}")
        answer = connection.getresponse()
        body = answer.read()
        if answer.status != 200 or body != b"\x89PNG\r\n\x1a\n tile %d %d" % (x, y):
            failed.append((answer.status, body[:50]))
        answers.release()
threads = [threading.Thread(target=ask, args=(seed,)) for seed in range(8)]
for thread in threads: thread.start()
for _ in range(2000): answers.acquire()
print("under load", flush=True)
sys.stdin.readline()
for _ in range(2000): answers.acquire()
is_over.set()
for thread in threads: thread.join()
print(len(failed), "of the requests have failed", failed[:3], flush=True)
sys.exit(bool(failed))
END
touch importing
while [ -e importing ]; do "$hxcf" -q import --replace set world; done &
import=$!
running+=($import)
coproc LOAD { python3 load.py "127.0.0.1:$free"; }
load=$LOAD_PID
read -r line <&"${LOAD[0]}" && [ "$line" = "under load" ]
kill -9 "${running[1]}"
echo >&"${LOAD[1]}"
read -r line <&"${LOAD[0]}"
echo "one of two servers was killed: $line"
wait "$load" || fail "requests have failed"
kill -0 "$import" || fail "the import has failed"
rm importing && wait "$import"

# What is stored shows when the cache asks again: what is old comes from the cache alone.
printf '\x89PNG\r\n\x1a\n new' >new
"$hxcf" -q put world 4/1/2 new
begin=$SECONDS
until curl -sf -D head -o body "$map/world/4/1/2.png" && cmp -s body new; do
  kill -0 "${running[2]}" || fail "$(cat nginx.log)"
  cmp body set/4/1/2.png && grep -qi '^X-Cache-Status: HIT' head || fail "neither old nor new: $(cat head)"
done
grep -qiE '^X-Cache-Status: (EXPIRED|MISS)' head || fail "a new tile from an old cache: $(cat head)"
echo "a new tile has shown after $((SECONDS - begin)) seconds, with a max-age of $max_age"
