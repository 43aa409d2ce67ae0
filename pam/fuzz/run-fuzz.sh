#!/usr/bin/env bash
# Builds the PAM module's libFuzzer targets with clang (whatever compiler the
# rest of the build uses) and runs each for a bounded time. Exits 77 (skip)
# when clang or its fuzzer runtime is missing.
#
# Usage: run-fuzz.sh CLANGXX WORK_DIR SECONDS PAM_SOURCE_DIR SOURCE...
set -euo pipefail
clangxx=$1 work=$2 seconds=$3 pam=$4
shift 4

if [ -z "$clangxx" ] || ! command -v "$clangxx" >/dev/null; then
  echo "clang++ not found; skipping" >&2
  exit 77
fi
runtime=$("$clangxx" -print-file-name=libclang_rt.fuzzer-x86_64.a)
if [ ! -f "$runtime" ]; then
  echo "libFuzzer runtime not installed (libclang-rt-dev); skipping" >&2
  exit 77
fi

mkdir -p "$work"
for target in fuzz_agent_reply; do
  "$clangxx" -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$pam/src" "$pam/fuzz/$target.cpp" "$@" -o "$work/$target"
  corpus="$work/corpus-$target"
  mkdir -p "$corpus"
  cp "$pam/fuzz/seeds/$target/"* "$corpus/"
  "$work/$target" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=2048 -print_final_stats=1 "$corpus"
done
