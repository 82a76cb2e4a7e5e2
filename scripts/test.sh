#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole suite: the dev
# preset, the same suite under AddressSanitizer and UndefinedBehaviorSanitizer,
# the same suite built for 32-bit x86 (gcc -m32), and every libFuzzer target
# for a short run, after checking that every source is formatted. Fails when
# any step fails or when the suite leaves a System V semaphore set behind.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
fuzz_seconds=${FANOUT_FUZZ_SECONDS:-30}

echo "=== formatting"
bash scripts/format.sh --check

sems_before=$(ipcs -s | awk '$1 ~ /^0x/ {print $2}' | sort)
scratch() { ls -d /tmp/fanout* /tmp/depot_test_* 2>/dev/null | sort || true; }
scratch_before=$(scratch)

for preset in dev asan i386; do
  echo "=== $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" -j2
done

echo "=== fuzz (${fuzz_seconds}s per target)"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
bash scripts/fuzz.sh "$fuzz_seconds"

sems_after=$(ipcs -s | awk '$1 ~ /^0x/ {print $2}' | sort)
left=$(comm -13 <(echo "$sems_before") <(echo "$sems_after") | grep -c . || true)
if [[ $left -ne 0 ]]; then
  echo "the suite left $left semaphore set(s) behind"
  ipcs -s
  exit 1
fi
left=$(comm -13 <(echo "$scratch_before") <(scratch) | grep -v '^$' || true)
if [[ -n $left ]]; then
  echo "the suite left scratch files behind:"
  echo "$left"
  exit 1
fi
echo "all tests passed"
