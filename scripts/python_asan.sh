#!/usr/bin/env bash
# Runs the tests of the Python module with the sanitizers for addresses, leaks and undefined behaviour in
# the libraries and in the extension. Python itself is built without them, and leaves nothing that would
# have to be suppressed.
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

# Small objects of Python come from malloc, too, so that the sanitizer sees them.
export PYTHONMALLOC=malloc
# What was freed stays for a while; with less of it, a test sees that memory does not grow.
export ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=16 UBSAN_OPTIONS=print_stacktrace=1
export LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libubsan.so)"
tests/python/run.sh /usr/bin/python3 build/python-asan/python "$@"
