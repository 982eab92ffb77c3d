#!/usr/bin/env bash
# Fuzzes with damaged files, for SECONDS in all; the targets share them.   scripts/fuzz.sh SECONDS [TARGET]
# What it has learned is kept in build/fuzz/corpus; an input that fails is left in build/fuzz/findings.
. "$(dirname "$0")/common.sh"

[[ ${1-} =~ ^[1-9][0-9]*$ ]] || fail "for how many seconds?"
need_compiler clang++=clang /usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.fuzzer-x86_64.a=libclang-rt-14-dev
build fuzz

targets=(engine_fuzz compact_fuzz recovery_fuzz reader_fuzz writer_fuzz)
[ -z "${2-}" ] || targets=("$2")
out=$PWD/build/fuzz
export TMPDIR
TMPDIR=$(mktemp -d -p "${TMPDIR:-/dev/shm}")
trap 'rm -rf "$TMPDIR"' EXIT
export ASAN_OPTIONS=allocator_may_return_null=1:${ASAN_OPTIONS-}
"$out/fuzz/make_seeds" "$out/seeds"

result=0
mkdir -p "$out/findings"
for target in "${targets[@]}"; do
  mkdir -p "$out/corpus/$target"
  folders=("$out/corpus/$target" "$out/seeds/$target")
  [ ! -d "fuzz/corpus/$target" ] || folders+=("fuzz/corpus/$target")
  log=$out/$target.log
  if "$out/fuzz/$target" -max_total_time=$(($1 / ${#targets[@]} + 1)) -timeout=20 -max_len=8192 \
    -rss_limit_mb=1024 -artifact_prefix="$out/findings/$target-" "${folders[@]}" >"$log" 2>&1; then
    echo "$target: $(grep -E '^Done' "$log")"
  else
    result=1
    echo "$target: $(grep -E 'Test unit written to' "$log" || echo "failed") (see $log)" >&2
  fi
done
exit $result
