#!/usr/bin/env bash
# Builds and runs the benchmarks.   scripts/bench.sh [GOOGLE-BENCHMARK-OPTION...]
. "$(dirname "$0")/common.sh"

need_compiler /usr/include/benchmark/benchmark.h=libbenchmark-dev
build release -DHX_BUILD_BENCHMARKS=ON
for program in build/release/benchmarks/*_bench; do
  "$program" "$@"
done
