#!/usr/bin/env bash
# The main job: a short session with fanout-depot on a scratch depot. Adds a
# sample segment, lists it in the long form, describes the depot, deletes the
# segment, and removes the scratch depot with its lock semaphores.
set -euo pipefail
tool=$(realpath "$1")
work=$(mktemp -d)
depot=$work/depot
cleanup() {
  # The depot's locks are System V semaphores keyed on its lock files
  # (ftok with project number 1); remove them with the scratch directory.
  for lk in depot.lk entry.lk enum.lk; do
    [[ -e $depot/$lk ]] || continue
    read -r dev ino < <(stat -c '%d %i' "$depot/$lk")
    ipcrm -S $(( (1 << 24) | ((dev & 0xff) << 16) | (ino & 0xffff) )) 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT

head -c 300000 /dev/urandom > "$work/sample.bin"
run() { echo "\$ fanout-depot $*"; "$tool" "$@"; echo; }
run "$depot" --size 102400 add sample^1.0 "$work/sample.bin"
run "$depot" list
run "$depot" list sample^1.0 -l
run "$depot" --size 102400 describe
run "$depot" delete sample^1.0
run "$depot" list
