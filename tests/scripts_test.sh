#!/usr/bin/env bash
# What the scripts run, with programs in the place of apt and CMake's that only tell their arguments.
set -euo pipefail
project=$(cd "$(dirname "$0")/.." && pwd)
copy=$(mktemp -d)
trap 'rm -r "$copy"' EXIT
mkdir "$copy"/{bin,folder}
cp -r "$project/scripts" "$copy"
for program in apt-get cmake ctest; do
  printf '#!/bin/sh\necho "%s $*" >>"%s/calls"\n' $program "$copy" >"$copy/bin/$program"
done
printf '#!/bin/sh\necho 0\n' >"$copy/bin/id"
chmod +x "$copy"/bin/*
export PATH=$copy/bin:$PATH

# expect CALL COMMAND...: COMMAND makes CALL.
expect() {
  local call=$1
  shift
  : >"$copy/calls"
  "$@" && grep -qxe "$call" "$copy/calls" && return
  echo "not called: $call" >&2
  exit 1
}
need() { (. "$copy/scripts/common.sh" && need "$1"); }
expect 'apt-get install .* a-package' need folder=a-package
expect 'apt-get install .* a-package' need "$copy/no-file=a-package"
expect 'ctest --preset dev' "$copy/scripts/test.sh"
expect 'ctest --preset dev -j1 -R x' "$copy/scripts/test.sh" -j1 -R x
expect 'ctest --preset asan -j1' "$copy/scripts/test.sh" asan -j1
