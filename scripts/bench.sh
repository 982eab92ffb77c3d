#!/usr/bin/env bash
# Builds and runs the benchmarks, in some three minutes; tables and charts go to build/bench.
#   scripts/bench.sh [--record] [OPTION...]
#   scripts/bench.sh --scale [--record] [OPTION...]    # large files, in some ten minutes, on 12 GiB
# --record puts the tables and a chart into docs as well. The other options go to the programs:
# --quick and --only PART to engine_bench and scale_bench, those of Google Benchmark to the others.
. "$(dirname "$0")/common.sh"

record=no programs=(engine lite compact) parts=(engine lite compact calls)
chart=engine.svg picture=docs/performance.svg mark=measured
while :; do
  case ${1-} in
    --record) record=yes ;;
    --scale)
      programs=(scale) parts=(scale)
      chart=sweep.svg picture=docs/scale.svg mark='measured, scale'
      ;;
    *) break ;;
  esac
  shift
done
need_compiler /usr/include/benchmark/benchmark.h=libbenchmark-dev \
  /usr/include/lmdb.h=liblmdb-dev /usr/include/sqlite3.h=libsqlite3-dev
build release -DHX_BUILD_BENCHMARKS=ON

out=build/bench
rm -rf $out
load=$(cut -d' ' -f1 /proc/loadavg)
for program in "${programs[@]}"; do
  build/release/benchmarks/${program}_bench --out $out "$@"
done
{
  echo "Measured $(date +%F) on $(nproc) cores; average load $load before, $(cut -d' ' -f1 /proc/loadavg) after."
  for part in "${parts[@]}"; do
    [ ! -e $out/$part.md ] || printf '\n### %s\n\n%s\n' $part "$(cat $out/$part.md)"
  done
} >$out/report.md
echo $out/report.md

[ $record = yes ] || exit 0
cp $out/$chart $picture
sed -i -e "/^<!-- $mark -->\$/,/^<!-- end -->\$/{//!d}" \
  -e "/^<!-- $mark -->\$/r $out/report.md" docs/performance.md
echo docs/performance.md
