# Sourced by the other scripts: strict mode, the project's folder, and what they need installed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

fail() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

# need COMMAND-OR-PATH=PACKAGE...: installs, through apt, the packages whose command or file is
# missing. A word without a slash is a command: folders of the project have names of commands.
need() {
  local missing=() pair
  for pair in "$@"; do
    local thing=${pair%%=*} package=${pair#*=}
    case $thing in
      */*) [ -e "$thing" ] ;;
      *) command -v "$thing" >/dev/null ;;
    esac || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  local log apt=(apt-get)
  [ "$(id -u)" -eq 0 ] || apt=(sudo -n apt-get)
  log=$(mktemp)
  echo "installing ${missing[*]} ..." >&2
  if ! { "${apt[@]}" update && DEBIAN_FRONTEND=noninteractive "${apt[@]}" install -y \
    --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    fail "cannot install ${missing[*]} through apt (see $log)"
  fi
  rm -f "$log"
}

# Sets nginx to the program: what is installed, or Debian's in build/nginx. It is not installed, for then
# the system would run a server.
need_nginx() {
  find_nginx && return
  echo "fetching nginx ..." >&2
  local folder log state
  log=$(mktemp)
  state=$(mktemp -d)
  mkdir -p "$state/lists/partial" "$state/archives/partial"
  folder=$PWD/build/nginx
  local apt=(apt-get -o Dir::State="$state" -o Dir::State::status=/dev/null -o Dir::Cache="$state"
    -o APT::Sandbox::User=root)
  if ! (cd "$state" && "${apt[@]}" update && "${apt[@]}" download nginx && dpkg -x nginx_*.deb root &&
    mkdir -p "$(dirname "$folder")" && mv root "$folder") >"$log" 2>&1; then
    fail "cannot fetch nginx through apt (see $log)"
  fi
  rm -r "$state" "$log"
  find_nginx
}

find_nginx() {
  for nginx in /usr/sbin/nginx "$PWD/build/nginx/usr/sbin/nginx"; do
    [ ! -x "$nginx" ] || return 0
  done
  return 1
}

# need_charsets MACHINE: the character sets of Debian's C library for that machine, as files in
# build/MACHINE-libc. Its cross packages lack them. Nothing is installed, and apt's lists stay as they
# are.
need_charsets() {
  local machine=$1 state
  local folder=$PWD/build/$machine-libc
  [ -d "$folder" ] && return
  echo "fetching the character sets of $machine ..." >&2
  state=$(mktemp -d)
  mkdir -p "$state/lists/partial" "$state/archives/partial"
  local apt=(apt-get -o APT::Architecture="$machine" -o APT::Architectures="$machine"
    -o Dir::State="$state" -o Dir::State::status=/dev/null -o Dir::Cache="$state"
    -o APT::Sandbox::User=root)
  mkdir -p build
  if ! (cd "$state" && "${apt[@]}" update && "${apt[@]}" download libc6 &&
    dpkg -x libc6_*.deb root && mv root "$folder") >"$state/log" 2>&1; then
    fail "cannot fetch libc6 for $machine through apt (see $state/log)"
  fi
  rm -r "$state"
}

need_compiler() {
  need cmake=cmake ninja=ninja-build g++=g++ \
    /usr/include/nlohmann/json.hpp=nlohmann-json3-dev /usr/include/CLI/CLI.hpp=libcli11-dev \
    /usr/include/sqlite3.h=libsqlite3-dev /usr/include/zlib.h=zlib1g-dev \
    /usr/include/httplib.h=libcpp-httplib-dev /usr/include/brotli/decode.h=libbrotli-dev \
    pkg-config=pkg-config /usr/bin/python3=python3 /usr/bin/python3-config=python3-dev \
    /usr/include/pybind11/pybind11.h=pybind11-dev "$@"
}

# build PRESET [OPTION...]: configures and builds build/PRESET quietly; shows the log if it fails.
build() {
  local preset=$1 log
  shift
  mkdir -p build
  log=build/$preset.log
  if ! { cmake --preset "$preset" "$@" && cmake --build --preset "$preset"; } >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    fail "the $preset build failed (see $log)"
  fi
}
