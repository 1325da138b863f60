#!/usr/bin/env bash
# Runs every fuzz target in BUILD_DIR for SECONDS each, with the
# starting inputs in fuzz/corpus/<target> when there are some. Fails on the first crash.
set -euo pipefail
build=${1:-build/fuzz}
seconds=${2:-30}
root=$(cd "$(dirname "$0")/.." && pwd)
status=0
for target in "$build"/fuzz/*_fuzz; do
  [[ -x "$target" ]] || continue
  name=$(basename "$target")
  work=$(mktemp -d)
  seeds=()
  [[ -d "$root/fuzz/corpus/$name" ]] && seeds+=("$root/fuzz/corpus/$name")
  echo "== $name (${seconds}s)"
  if ! "$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$work/" "$work" "${seeds[@]}" \
       >"$work/log" 2>&1; then
    tail -50 "$work/log"; status=1
  else
    grep -E 'stat::number_of_executed_units|Done' "$work/log" | tail -2
  fi
  rm -rf "$work"
done
exit $status
