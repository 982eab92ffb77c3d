#!/usr/bin/env bash
# Builds the library and packs the files of a folder into two compact files, one by cells and one
# by names, compacts them, reads them back and compares.   scripts/demo.sh [FOLDER]   (default: /usr/include)
. "$(dirname "$0")/common.sh"

folder=$(cd "${OLDPWD:-.}" && realpath -- "${1:-/usr/include}")
[ -d "$folder" ] || fail "$folder is not a folder"
need_compiler
build release
mkdir -p out
exec build/release/tools/hxcf_demo "$folder" "$PWD/out/grid.cf" "$PWD/out/names.cf"
