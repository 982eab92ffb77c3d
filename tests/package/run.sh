#!/usr/bin/env bash
# Uses the library as somebody else's project does: run.sh PART, where each PART is a function below.
# All but install look for the library in the prefix that install has made.
# From the environment: PROJECT, BUILD (its build folder), CXX, PYTHON, and EXAMPLES (their names).
set -euo pipefail
work=$BUILD/package/$1
prefix=$BUILD/package/prefix
rm -rf "$work" && mkdir -p "$work"
libraries="HxBase HxStream HxToolkit HxCompactFile HxTiles"
warnings="-Wall -Wextra -Wpedantic -Werror"
fail() {
  echo "$*" >&2
  exit 1
}

# configure FOLDER [OPTION...]: a build in that folder.
configure() { cmake -B "$work/$1" -G Ninja -DCMAKE_CXX_COMPILER="$CXX" "${@:2}"; }

# build_and_run OPTION...: in both standards; what does not depend on them is built once.
build_and_run() {
  local standard
  for standard in 17 20; do
    configure build -DCMAKE_CXX_FLAGS="$warnings" -DCMAKE_CXX_EXTENSIONS=OFF \
      -DCMAKE_CXX_STANDARD=$standard "$@"
    cmake --build "$work/build" -- -j1
    ctest --test-dir "$work/build" --no-tests=error --output-on-failure
  done
}

install() {
  rm -rf "$prefix"
  cmake --install "$BUILD" --prefix "$work/first"
  mv "$work/first" "$prefix"  # nothing may remember where it was put
  # The example of the format is a sound file, and no more when its last byte is missing.
  printf "$(sed -nE '/^## Example/,$ s/^ *[0-9]+  (([0-9a-f.]{2} )*[0-9a-f.]{2})(  .*)?$/ \1/p' \
    "$PROJECT/docs/format.md" | sed 's/\.\./00/g; s/ /\\x/g' | tr -d '\n')" >"$work/example.cf"
  "$prefix/bin/hxcf" verify "$work/example"
  truncate -s -1 "$work/example.cf"
  [ "$("$prefix/bin/hxcf" verify "$work/example" >/dev/null; echo $?)" = 1 ] ||
    fail "hxcf does not see that the file was cut"
}

find_package() {
  # Warnings count in the installed headers as well.
  build_and_run -S "$PROJECT/examples" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_NO_SYSTEM_FROM_IMPORTED=ON
  # In the folder that it was built in, it is found as well.
  configure in_place -S "$PROJECT/examples" -DHxCompactFile_DIR="$BUILD"
  cmake --build "$work/in_place" --target store_and_read
  "$work/in_place/store_and_read" "$work"
}

pkg_config() {
  local folder flags name
  folder=$(dirname "$(find "$prefix" -name hxcompactfile.pc)")
  flags=$(PKG_CONFIG_PATH=$folder pkg-config --cflags --libs hxtiles)
  export LD_LIBRARY_PATH=${folder%/pkgconfig}
  # The README's program is its first block of C++.
  awk '/^```cpp$/ { on = 1; next } /^```$/ { if (on) exit } on' "$PROJECT/README.md" \
    >"$work/readme.cpp"
  for name in $EXAMPLES; do
    $CXX -std=c++17 $warnings "$PROJECT/examples/$name.cpp" -o "$work/$name" $flags
    "$work/$name" "$work"
  done
  $CXX -std=c++17 $warnings "$work/readme.cpp" -o "$work/readme" $flags
  (cd "$work" && rm -f tiles.cf && ./readme | grep '^tile: hello, 11 bytes')
}

# The library as a part of another project.
add_subdirectory() {
  build_and_run -S "$PROJECT/tests/package/host" -DPROJECT="$PROJECT"
  cmake --install "$work/build" --prefix "$work/prefix"
  [ ! -e "$work/prefix" ] || fail "installed as a part of another project, whose part it is"
  # Base libraries of the host's own.
  configure own -S "$PROJECT/tests/package/host" -DPROJECT="$PROJECT" -DOWN_BASE=ON
}

debian() {
  local root=$work/root package
  (cd "$BUILD" && cpack -G DEB -B "$work")
  for package in "$work"/*.deb; do
    dpkg-deb -x "$package" "$root"
  done
  # Together, the packages hold what an installation holds.
  diff <(cd "$prefix" && find . ! -type d | sort) <(cd "$root/usr" && find . ! -type d | sort)
  [ -z "$(dpkg-deb -c "$work"/libhxcompactfile1_*.deb | grep -v '/$' |
    grep -v -e '\.so\.' -e /share/doc/ -e /share/lintian/)" ] ||
    fail "the runtime package holds more than libraries"
  dpkg-deb -f "$work"/libhxcompactfile1_*.deb Depends | grep 'libc6 (>= .*libstdc++6 (>= '
  dpkg-deb -f "$work"/libhxcompactfile-dev_*.deb Depends | grep '^libhxcompactfile1 (= '
}

# The module for Python, from its package; it finds the libraries of the other one.
python() {
  local root=$BUILD/package/debian/root packages=$BUILD/package/debian
  dpkg-deb -f "$packages"/python3-hxcf_*.deb Depends | grep 'libhxcompactfile1 (= .*python3 (<< '
  dpkg-deb -e "$packages"/python3-hxcf_*.deb "$work/control"
  [ -x "$work/control/postinst" ] && [ -x "$work/control/prerm" ]
  ldd "$root"/usr/lib/python3/dist-packages/hxcf/_hxcf.*.so | grep "libHxTiles.*$root/"
  PATH=$root/usr/bin:$PATH "$PROJECT/tests/python/run.sh" "$PYTHON" "$root/usr/lib/python3/dist-packages"
}

installed() { find "$prefix" "$work" -name "lib$1.so"; }

# The libraries show what public headers mark, and nothing else.
exports() {
  local library name
  for library in $libraries; do
    nm -D --defined-only -C "$(installed "$library")"
  done |
    sed -E -e 's/^[0-9a-f]+ . //' -e 's/^(vtable|typeinfo|typeinfo name) for (.*)/\2::/' \
      -e 's/(\[abi:|\().*//' -e '/^Zarn::[^:]*$/!s/::[^:]*$//' -e 's/^(Zarn|hx):://' | sort -u |
    while read -r name; do
      grep -qE "HX_[A-Z]+_API .*\b$name\b" "$PROJECT"/{,platform/*/}include/*.h "$PROJECT"/tiles/include/hx/*.h ||
        fail "exported: $name"
    done
}

abi=$PROJECT/tests/package/abi
abi_headers=$prefix/include/HxCompactFile
abi_options=(--suppressions "$abi/types.ini" --no-corpus-path --exported-interfaces-only)

build_abi_types() {
  "$CXX" -std=c++17 -g -shared -fPIC -fvisibility=hidden -fvisibility-inlines-hidden \
    -I"$abi_headers" "$abi/types.cpp" -o "$work/libHxTypes.so"
}

# No test: scripts/abi.sh runs it.
write_abi() {
  local library
  build_abi_types
  for library in $libraries HxTypes; do
    abidw "${abi_options[@]}" --headers-dir "$abi_headers" --drop-private-types --no-architecture \
      --no-comp-dir-path --no-show-locs --no-parameter-names --no-elf-needed \
      --drop-undefined-syms --type-id-style hash "$(installed "$library")" |
      sed "s| path='[^']*/| path='|" >"$abi/$library.abi"
  done
}

# What programs depend on that were linked before: the symbols, and the types of installed headers.
abi() {
  local library changed="" other=()
  readelf -S "$(installed HxCompactFile)" | grep -F .debug_info >/dev/null || {
    echo "skipped: built without debug information"
    exit 77
  }
  [[ $("$CXX" --version) != *clang* ]] || other=(--suppressions "$abi/clang.ini")
  build_abi_types
  for library in $libraries HxTypes; do
    [ $library != HxTypes ] || other=()
    abidiff "${abi_options[@]}" "${other[@]}" --no-architecture --no-show-locs \
      --leaf-changes-only --no-added-syms "$abi/$library.abi" "$(installed "$library")" ||
      changed+=" $library"
  done
  [ -z "$changed" ] || fail "not as in tests/package/abi:$changed. Programs that were linked before" \
    "may break. If that is intended, run scripts/abi.sh and commit what it writes; after a" \
    "release, raise SOVERSION as well."
}

$1
