#!/usr/bin/env bash
# Plants small faults one at a time and says which ones the tests notice.
#
#   scripts/mutate.sh [list] [filter]
#
# list defaults to scripts/mutations.txt; filter, when given, keeps only the
# lines containing it. Each line of the list is
#
#   file ;; ctest regex ;; text ;; replacement
#
# text must occur exactly once in file (relative to the source root) and is
# replaced by replacement (which may be empty), a one-line change. Blank
# lines and lines starting with '#' are skipped.
#
# The source tree (without build/ and .git) is copied once into a scratch
# directory /tmp/fanout-mutate-*, configured once with the dev preset (or
# $FANOUT_MUTATE_PRESET, e.g. asan) and built once; then each fault is planted
# in the copy, only the test programs the regex names are rebuilt, those
# tests run (a test running past FANOUT_MUTATE_TIMEOUT seconds fails), and
# the file is restored. Per fault it prints "caught", "SURVIVED" or "n/a"
# (text not found exactly once, or the fault does not build: not counted),
# and at the end "caught N / planted M". The real tree is never written; the
# copy is removed at exit, and the tests of each fault run with a private
# /tmp, semaphores and processes where the system allows it, so that a crash
# or a hang leaves nothing behind. Exits 1 when a fault survived.
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
list=${1:-$root/scripts/mutations.txt}
filter=${2:-}
[[ -f $list ]] || { echo "no mutation list $list" >&2; exit 2; }
list=$(cd "$(dirname "$list")" && pwd)/$(basename "$list")
per_test_timeout=${FANOUT_MUTATE_TIMEOUT:-60}  # a planted hang counts as caught
preset=${FANOUT_MUTATE_PRESET:-dev}  # asan also sees faults that only overrun memory

work=$(mktemp -d /tmp/fanout-mutate-XXXXXX)
trap 'rm -rf "$work"' EXIT
src=$work/src
build=$work/build
log=$work/log
mkdir -p "$src"

echo "copying $root to $src"
tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$src" -xf - || exit 2

echo "configuring and building (once)"
cmake --preset "$preset" -S "$src" -B "$build" >"$log" 2>&1 || { cat "$log"; exit 2; }
# Keep going past targets that do not build: only the tests a fault names matter.
cmake --build "$build" -j2 -- -k 0 >"$log" 2>&1 </dev/null || echo "(some targets did not build)"

# The test programs whose tests match a regex, as ninja targets.
targets_for() {
  ctest --test-dir "$build" -N -R "$1" --show-only=json-v1 2>/dev/null </dev/null |
    python3 -c '
import json, os, sys
names = set()
for t in json.load(sys.stdin).get("tests", []):
    cmd = t.get("command") or []
    if cmd and cmd[0].startswith(sys.argv[1] + "/"):  # programs built here
        names.add(os.path.basename(cmd[0]))
print(" ".join(sorted(names)))' "$build"
}

# Runs a command with a /tmp, System V semaphores and processes of its own
# when the system allows it (root, Linux namespaces): a test that a planted
# fault crashes or hangs leaves its scratch directory, semaphore sets and
# child processes there, and they all go when the command ends. The copy is
# bound back in at its own path.
isolate=0
if unshare -m -i -p -f --propagation private true 2>/dev/null; then isolate=1; fi
isolated() {
  if ((isolate)); then
    unshare -m -i -p -f --propagation private sh -c '
      mount --bind "$1" /mnt && mount -t tmpfs tmpfs /tmp && mkdir -p "$1" &&
        mount --bind /mnt "$1" && shift && exec "$@"' sh "$work" "$@"
  else
    "$@"
  fi
}

# Replaces the single occurrence of $2 in file $1 by $3; fails when $2 does
# not occur exactly once.
plant() {
  python3 - "$1" "$2" "$3" <<'EOF'
import sys
path, old, new = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
if text.count(old) != 1:
    sys.exit(1)
open(path, "w", encoding="utf-8").write(text.replace(old, new, 1))
EOF
}

trim() { local s=$1; s=${s#"${s%%[![:space:]]*}"}; echo "${s%"${s##*[![:space:]]}"}"; }

caught=0
planted=0
survivors=()
n=0
while IFS= read -r line || [[ -n $line ]]; do
  [[ -z ${line//[[:space:]]/} || $line =~ ^[[:space:]]*# ]] && continue
  [[ -n $filter && $line != *"$filter"* ]] && continue
  n=$((n + 1))
  [[ $line == *" ;;" ]] && line+=" "  # an empty replacement at the end of the line
  rest=$line
  file=$(trim "${rest%% ;; *}"); rest=${rest#* ;; }
  regex=$(trim "${rest%% ;; *}"); rest=${rest#* ;; }
  old=${rest%% ;; *}
  new=${rest#* ;; }
  [[ $rest == *" ;; "* ]] || new=""
  label="$n $file: $old -> ${new:-(nothing)}"
  if [[ ! -f $src/$file ]] || ! cp -p "$src/$file" "$work/original"; then
    echo "n/a       $label (no such file)"
    continue
  fi
  if ! plant "$src/$file" "$old" "$new"; then
    echo "n/a       $label (text not found exactly once)"
    continue
  fi
  targets=$(targets_for "$regex")
  result=""
  if [[ -z $targets ]]; then
    result="n/a       $label (no tests match $regex)"
  elif ! ninja -C "$build" $targets >"$log" 2>&1 </dev/null; then
    result="n/a       $label (does not build)"
  else
    planted=$((planted + 1))
    if isolated ctest --test-dir "$build" -R "$regex" --timeout "$per_test_timeout" \
        --stop-on-failure >"$log" 2>&1 </dev/null; then
      result="SURVIVED  $label"
      survivors+=("$label")
    else
      caught=$((caught + 1))
      result="caught    $label"
    fi
  fi
  echo "$result"
  cp "$work/original" "$src/$file"
  touch "$src/$file"  # newer than the planted fault's object, whatever the clock did
done <"$list"

echo
if ((${#survivors[@]})); then
  echo "survivors:"
  printf '  %s\n' "${survivors[@]}"
fi
echo "caught $caught / planted $planted"
((caught == planted))
