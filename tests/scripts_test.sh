#!/usr/bin/env bash
# What the scripts run, with programs in the place of apt and CMake's that only tell their arguments.
set -euo pipefail
copy=$(mktemp -d)
trap 'rm -r "$copy"' EXIT
cp -r "$(dirname "$0")/../scripts" "$copy"
mkdir "$copy"/{bin,folder}
for program in apt-get cmake ctest; do
  printf '#!/bin/sh\necho "%s $*" >>"%s/calls"\n' $program "$copy" >"$copy/bin/$program"
done
printf '#!/bin/sh\necho 0\n' >"$copy/bin/id"
chmod +x "$copy"/bin/*
export PATH=$copy/bin:$PATH

for thing in folder=package-1 "$copy/no-file=package-2"; do
  (. "$copy/scripts/common.sh" && need "$thing")
done
"$copy/scripts/test.sh"
"$copy/scripts/test.sh" -j1 -R x
"$copy/scripts/test.sh" asan -j1
diff <(grep -oE 'install .*package-.*|ctest .*' "$copy/calls") - <<'END'
install -y --no-install-recommends package-1
install -y --no-install-recommends package-2
ctest --preset dev
ctest --preset dev -j1 -R x
ctest --preset asan -j1
END
