#!/usr/bin/env bash
# Compiles the libraries with clang, which checks that what a lock guards is used with that lock held.
. "$(dirname "$0")/common.sh"

need cmake=cmake ninja=ninja-build clang++=clang
build locks
