#!/usr/bin/env bash
# Builds the README's program as a project of its own, in C++17, against the build folder, and runs
# it.   run.sh PROJECT BUILD-FOLDER COMPILER
set -euo pipefail
project=$1 build=$2 compiler=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The program is the README's first block of C++.
awk '/^```cpp$/ { on = 1; next } /^```$/ { if (on) exit } on' "$project/README.md" >"$work/main.cpp"
cat >"$work/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(Consumer LANGUAGES CXX)
find_package(HxCompactFile 1.0 REQUIRED)
add_executable(consumer main.cpp)
set_target_properties(consumer PROPERTIES CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
target_compile_options(consumer PRIVATE -Wall -Wextra -Wpedantic -Werror)
target_link_libraries(consumer PRIVATE HxCompactFile::HxCompactFile)
CMAKE
cmake -S "$work" -B "$work/build" -DHxCompactFile_DIR="$build" -DCMAKE_CXX_COMPILER="$compiler"
cmake --build "$work/build"
cd "$work"
build/consumer | tee output
grep -q '^tile: hello, 11 bytes' output
