#!/usr/bin/env bash
# Writes tests/package/abi/LIBRARY.abi anew: what the test package_abi allows no change of. Run it
# when the libraries are meant to change for programs that are linked with them.
. "$(dirname "$0")/common.sh"

need_compiler abidw=abigail-tools
build dev
grep -q '^CMAKE_CXX_COMPILER:.*clang' build/dev/CMakeCache.txt && fail "build/dev is clang's, not g++'s"
export PROJECT=$PWD BUILD=$PWD/build/dev CXX=g++
for part in install write_abi; do
  tests/package/run.sh $part >build/abi.log 2>&1 || fail "see build/abi.log"
done
git status --short tests/package/abi
