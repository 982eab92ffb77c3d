#!/usr/bin/env bash
# Builds and runs the benchmarks.   scripts/bench.sh [GOOGLE-BENCHMARK-OPTION...]
. "$(dirname "$0")/common.sh"

need_compiler /usr/include/benchmark/benchmark.h=libbenchmark-dev \
  /usr/include/lmdb.h=liblmdb-dev /usr/include/sqlite3.h=libsqlite3-dev
build release -DHX_BUILD_BENCHMARKS=ON
for program in build/release/benchmarks/*_bench; do
  "$program" "$@"
done
