#!/usr/bin/env bash
# Builds libFuzzer targets with clang (whatever compiler the rest of the build
# uses) against the project's own libraries, and runs each for a bounded time.
# The sources under test are compiled once into objects that every target
# links, so that coverage guides the fuzzer through them. Exits 77 (skip)
# when clang or its fuzzer runtime is missing.
#
# Usage: run-fuzz.sh CLANGXX WORK_DIR SECONDS FUZZ_DIR "TARGET..." ARG...
#   FUZZ_DIR holds TARGET.cpp and seeds/TARGET/; each ARG is an include or
#   define (-I, -D), a source under test (*.cpp), or anything for the linker.
# SECONDS 0 only builds; the targets are then WORK_DIR/TARGET.
set -euo pipefail
clangxx=$1 work=$2 seconds=$3 fuzz=$4 targets=$5
shift 5

if [ -z "$clangxx" ] || ! command -v "$clangxx" >/dev/null; then
  echo "clang++ not found; skipping" >&2
  exit 77
fi
if [ ! -f "$("$clangxx" -print-file-name=libclang_rt.fuzzer-x86_64.a)" ]; then
  echo "libFuzzer runtime not installed (libclang-rt-dev); skipping" >&2
  exit 77
fi

flags=(-std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined -I"$fuzz")
objects=() link=()
for arg in "$@"; do
  case $arg in
    -I*|-D*) flags+=("$arg") ;;
    *.cpp) objects+=("$arg") ;;
    *) link+=("$arg") ;;
  esac
done

mkdir -p "$work"
built=()
for source in "${objects[@]}"; do
  object="$work/$(basename "$source" .cpp).o"
  "$clangxx" "${flags[@]}" -c "$source" -o "$object"
  built+=("$object")
done

for target in $targets; do
  "$clangxx" "${flags[@]}" "$fuzz/$target.cpp" "${built[@]}" "${link[@]}" -o "$work/$target"
  [ "$seconds" -gt 0 ] || continue
  corpus="$work/corpus-$target"
  mkdir -p "$corpus"
  "$work/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    "$corpus" "$fuzz/seeds/$target"
done
