#!/usr/bin/env bash
# Fuzzes with damaged files; the targets share the seconds, or one gets them all.
#   scripts/fuzz.sh SECONDS [TARGET]
# What it has learned is kept in build/fuzz/corpus; an input that fails is left in
# build/fuzz/findings, and the others are run all the same.
. "$(dirname "$0")/common.sh"

targets=(engine_fuzz compact_fuzz recovery_fuzz reader_fuzz writer_fuzz pmtiles_fuzz)
[[ ${1-} =~ ^[1-9][0-9]*$ ]] || fail "for how many seconds?"
[ -z "${2-}" ] || targets=("$2")
need_compiler clang++=clang
need "$(clang++ -print-file-name="libclang_rt.fuzzer-$(uname -m).a")=libclang-rt-dev"
build fuzz

out=$PWD/build/fuzz
TMPDIR=$(mktemp -d -p "${TMPDIR:-/dev/shm}")
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT
"$out/fuzz/make_seeds" "$out/seeds"
mkdir -p "$out/findings"
result=0
for target in "${targets[@]}"; do
  folders=("$out/corpus/$target" "$out/seeds/$target")
  [ ! -d "fuzz/corpus/$target" ] || folders+=("fuzz/corpus/$target")
  mkdir -p "${folders[0]}"
  log=$out/$target.log
  if "$out/fuzz/$target" -max_total_time=$((($1 - 1) / ${#targets[@]} + 1)) -max_len=16384 \
    -timeout=20 -rss_limit_mb=1024 -artifact_prefix="$out/findings/$target-" "${folders[@]}" \
    >"$log" 2>&1; then
    echo "$target: $(grep '^Done' "$log")"
  else
    result=1
    echo "$target: $(grep -o 'Test unit written to .*' "$log" || echo failed) (see $log)" >&2
  fi
done
exit $result
