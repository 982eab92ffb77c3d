#!/usr/bin/env bash
# How fast the Python module gives 65,536 web tiles and takes a quarter of them, beside lmdb and sqlite3,
# in some two minutes.
#   scripts/bench_python.sh [--record] [PASSES [FOLDER]]   (5, in build/bench_python; needs some 2 GB)
# --record puts the table into docs/python.md as well.
. "$(dirname "$0")/common.sh"

record=no
if [ "${1-}" = --record ]; then
  record=yes
  shift
fi
need_compiler /usr/lib/python3/dist-packages/lmdb=python3-lmdb
build release
folder=${2:-build/bench_python}
mkdir -p "$folder"
work=$(mktemp -d -p "$folder")
trap 'rm -rf "$work"' EXIT

load=$(cut -d' ' -f1 /proc/loadavg)
PYTHONPATH=build/release/python /usr/bin/python3 benchmarks/python_bench.py "$work" "${1:-5}" \
  >"$folder/table.md"
{
  echo "Measured $(date +%F) on $(nproc) cores; average load $load before, $(cut -d' ' -f1 /proc/loadavg) after."
  echo
  cat "$folder/table.md"
} | tee "$folder/report.md"

[ $record = yes ] || exit 0
sed -i -e '/^<!-- measured -->$/,/^<!-- end -->$/{//!d}' \
  -e "/^<!-- measured -->\$/r $folder/report.md" docs/python.md
