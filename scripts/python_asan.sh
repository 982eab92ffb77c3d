#!/usr/bin/env bash
# Runs the tests of the Python module with the sanitizers for addresses, leaks and undefined behaviour in
# the libraries and in the extension. Python itself has none; what it keeps until it ends is no leak.
#   scripts/python_asan.sh [PYTEST-OPTION...]
. "$(dirname "$0")/common.sh"

need_compiler /usr/lib/python3/dist-packages/pytest=python3-pytest
mkdir -p build
log=build/python-asan.log
if ! { cmake --preset asan -B build/python-asan -DHX_BUILD_PYTHON=ON -DHX_BUILD_TESTS=OFF \
  -DHX_BUILD_TOOLS=OFF && cmake --build build/python-asan --target HxPython; } >"$log" 2>&1; then
  tail -n 60 "$log" >&2
  fail "the build failed (see $log)"
fi

suppressions=$PWD/build/python-asan/leaks
cat >"$suppressions" <<'END'
# What Python makes once and never gives back.
leak:/usr/bin/python3
END
# Small objects of Python come from malloc, too, so that the sanitizer sees them.
export PYTHONMALLOC=malloc
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
export LSAN_OPTIONS=suppressions=$suppressions:print_suppressions=0
export LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libubsan.so)"
tests/python/run.sh /usr/bin/python3 build/python-asan/python "$@"
