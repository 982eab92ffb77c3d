#!/usr/bin/env bash
# Builds the library and runs all tests.
#   scripts/test.sh [PRESET] [CTEST-OPTION...]   (preset: dev by default; asan, tsan, coverage)
. "$(dirname "$0")/common.sh"

preset=${1:-dev}
shift || true
need_compiler /usr/include/gmock/gmock.h=libgmock-dev python3=python3 pkg-config=pkg-config \
  dpkg-shlibdeps=dpkg-dev file=file doxygen=doxygen
build "$preset"
exec ctest --preset "$preset" "$@"
