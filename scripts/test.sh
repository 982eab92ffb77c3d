#!/usr/bin/env bash
# Builds the library and runs all tests.
#   scripts/test.sh [PRESET] [CTEST-OPTION...]   (preset: dev by default; asan, tsan, coverage, s390x)
# The first word is a preset unless it begins with "-".
. "$(dirname "$0")/common.sh"

preset=dev
if [[ ${1--} != -* ]]; then
  preset=$1
  shift
fi
need_compiler /usr/include/gmock/gmock.h=libgmock-dev \
  /usr/lib/python3/dist-packages/pytest=python3-pytest stubtest=mypy dpkg-shlibdeps=dpkg-dev \
  file=file doxygen=doxygen abidiff=abigail-tools curl=curl
need_nginx
if [ "$preset" = s390x ]; then
  need s390x-linux-gnu-g++=g++-s390x-linux-gnu qemu-s390x-static=qemu-user-static \
    /usr/src/googletest/CMakeLists.txt=googletest
  need_charsets s390x
  build dev
fi
build "$preset"
exec ctest --preset "$preset" "$@"
