#!/usr/bin/env bash
# Formats every C and C++ source of the tree with the root .clang-format
# (clang-format 14, Debian's). With --check it changes nothing and fails,
# naming the files, when any is not formatted.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files -- '*.c' '*.cpp' '*.h')
if [[ ${1:-} == --check ]]; then
  bad=()
  for f in "${files[@]}"; do
    clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || bad+=("$f")
  done
  if ((${#bad[@]})); then
    echo "not formatted (run bash scripts/format.sh):"
    printf '  %s\n' "${bad[@]}"
    exit 1
  fi
  echo "formatting: ${#files[@]} files checked"
else
  clang-format -i "${files[@]}"
fi
