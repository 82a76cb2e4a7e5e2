#!/usr/bin/env bash
# Runs every libFuzzer target of the fuzz preset for SECONDS (default 30),
# starting from its seed corpus in fuzz/corpus/<name>. A crash, leak or
# timeout fails the run and keeps the reproducer in fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shopt -s nullglob
mkdir -p fuzz/artifacts
for target in build/fuzz/fuzz/*_fuzz; do
  name=$(basename "$target" _fuzz)
  name=${name#*_}
  work=$(mktemp -d)
  [[ -d fuzz/corpus/$name ]] && cp -r "fuzz/corpus/$name"/. "$work"/
  echo "--- $(basename "$target") (${seconds}s)"
  if ! "$target" -max_total_time="$seconds" -print_final_stats=1 \
       -artifact_prefix="$PWD/fuzz/artifacts/" "$work" > "$work.log" 2>&1; then
    tail -n 40 "$work.log"
    echo "fuzz target $(basename "$target") failed; reproducer in fuzz/artifacts/"
    rm -rf "$work" "$work.log"
    exit 1
  fi
  grep -E 'stat::number_of_executed_units' "$work.log" || true
  rm -rf "$work" "$work.log"
done
rmdir fuzz/artifacts 2>/dev/null || true
