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

need_compiler() { need cmake=cmake ninja=ninja-build g++=g++ "$@"; }

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
