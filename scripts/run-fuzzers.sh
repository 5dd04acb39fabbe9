#!/usr/bin/env bash
# Runs every libFuzzer program in $1 (named fuzz_*) for FUZZ_SECONDS seconds on its seed
# corpus (fuzz/corpus/<name without fuzz_>), in a scratch copy so the repository stays clean.
set -euo pipefail
bin_dir=$1
seconds=${FUZZ_SECONDS:-20}
root=$(cd "$(dirname "$0")/.." && pwd)
status=0
for fuzzer in "$bin_dir"/fuzz_*; do
  [ -x "$fuzzer" ] || continue
  name=$(basename "$fuzzer")
  seeds="$root/fuzz/corpus/${name#fuzz_}"
  work=$(mktemp -d)
  [ -d "$seeds" ] && cp -r "$seeds"/. "$work"/
  echo "== $name for ${seconds}s"
  if ! "$fuzzer" -max_total_time="$seconds" -print_final_stats=1 "$work" >"$work.log" 2>&1; then
    tail -n 60 "$work.log"
    status=1
  else
    grep -E 'stat::number_of_executed_units|Done' "$work.log" | tail -n 2
  fi
  rm -rf "$work" "$work.log"
done
exit $status
