#!/usr/bin/env bash
# Builds and runs the benchmarks, in some three minutes; tables and charts go to build/bench.
#   scripts/bench.sh [--record] [OPTION...]
# --record puts the tables and the engine's chart into docs as well. The other options go to the
# programs: --quick and --only SECTION to engine_bench, those of Google Benchmark to the others.
. "$(dirname "$0")/common.sh"

record=no
if [ "${1-}" = --record ]; then
  record=yes
  shift
fi
need_compiler /usr/include/benchmark/benchmark.h=libbenchmark-dev \
  /usr/include/lmdb.h=liblmdb-dev /usr/include/sqlite3.h=libsqlite3-dev
build release -DHX_BUILD_BENCHMARKS=ON

out=build/bench
rm -rf $out
load=$(cut -d' ' -f1 /proc/loadavg)
for program in engine lite compact; do
  build/release/benchmarks/${program}_bench --out $out "$@"
done
{
  echo "Measured $(date +%F) on $(nproc) cores; average load $load before, $(cut -d' ' -f1 /proc/loadavg) after."
  for part in engine lite compact calls; do
    [ ! -e $out/$part.md ] || printf '\n### %s\n\n%s\n' $part "$(cat $out/$part.md)"
  done
} >$out/report.md
echo $out/report.md

[ $record = yes ] || exit 0
cp $out/engine.svg docs/performance.svg
sed -i -e '/^<!-- measured -->$/,/^<!-- end -->$/{//!d}' \
  -e "/^<!-- measured -->\$/r $out/report.md" docs/performance.md
echo docs/performance.md
