#!/usr/bin/env bash
# Runs every benchmark program in $1 (named bench_*), one after the other; extra arguments go
# to each program (for example --benchmark_filter=...). Stops at the first program that fails.
set -euo pipefail
bin_dir=${1:?usage: run-benchmarks.sh BIN_DIR [ARGS...]}
shift
found=0
for bench in "$bin_dir"/bench_*; do
  [ -x "$bench" ] || continue
  found=1
  echo "== $(basename "$bench")"
  "$bench" "$@"
  echo
done
if [ "$found" = 0 ]; then
  echo "no benchmark programs in $bin_dir" >&2
  exit 1
fi
