#!/usr/bin/env bash
# The main job: a complete distribution on this one machine. A source sends
# three segments through one relay to two endpoints over loopback TCP; the
# second endpoint is killed mid-transfer and restarted to show the resume;
# then fanout-status, a digest check and a short fanout-depot list of an
# endpoint's depot. Takes the build directory as its argument and removes
# everything it created.
set -euo pipefail
build=$(realpath "${1:-build/release}")
tools=$build/tools
work=$(mktemp -d /tmp/fanout-demo-XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  # The depots' locks are System V semaphores keyed on their lock files
  # (ftok with project number 1).
  for lk in "$work"/*/depot.lk "$work"/*/entry.lk "$work"/*/enum.lk; do
    [[ -e $lk ]] || continue
    read -r dev ino < <(stat -c '%d %i' "$lk")
    ipcrm -S $(( (1 << 24) | ((dev & 0xff) << 16) | (ino & 0xffff) )) 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
export FANOUT_WORK_DIR=$work/work FANOUT_LOG_LEVEL=0
mkdir -p "$work/work" "$work/src"
head -c 40000000 /dev/urandom > "$work/src/image.bin"
head -c 100000 /dev/urandom > "$work/src/config.bin"
: > "$work/src/empty.bin"

# Starts a listening program in the background and waits until it listens.
start() {
  local log=$1; shift
  "$@" > "$log" 2>&1 &
  pids+=($!)
  until grep -q 'listening on' "$log"; do sleep 0.05; done
}
address() { sed -n 's/.*listening on //p' "$1"; }
echo "== endpoints and relay on loopback"
start "$work/e1.log" "$tools/fanout-receive/fanout-receive" --listen tcp:127.0.0.1:0 \
  --depot "$work/e1" --out "$work/e1-out" --mobile --keep-serving
e1=$(address "$work/e1.log")
# Endpoint 2 kills itself (SIGKILL) after 15 MB, as a crash would.
FANOUT_RECEIVE_KILL_AFTER=15000000 start "$work/e2.log" "$tools/fanout-receive/fanout-receive" \
  --listen tcp:127.0.0.1:0 --depot "$work/e2" --out "$work/e2-out" --mobile
e2=$(address "$work/e2.log")
start "$work/relay.log" "$tools/fanout-relay/fanout-relay" --listen tcp:127.0.0.1:0 \
  --depot "$work/relay" --to "$e1,$e2" --keep-serving
relay=$(address "$work/relay.log")
echo "endpoint 1: $e1   endpoint 2: $e2 (killed after 15 MB)   relay: $relay"

echo "== source -> relay -> endpoints"
"$tools/fanout-send/fanout-send" --id demo "$relay" "$work"/src/*.bin
until grep -q 'to .*'"$e2" "$work/relay.log"; do sleep 0.05; done
cat "$work/relay.log"
echo "== endpoint 2 restarted, the source sends again: the relay has everything, endpoint 1"
echo "   too, endpoint 2 resumes from its checkpoint"
start "$work/e2b.log" "$tools/fanout-receive/fanout-receive" --listen "$e2" \
  --depot "$work/e2" --out "$work/e2-out" --mobile
"$tools/fanout-send/fanout-send" --id demo "$relay" "$work"/src/*.bin
wait "${pids[-1]}" || true
until [[ $(grep -c "to .*$e2" "$work/relay.log") -ge 2 ]]; do sleep 0.05; done
tail -n 3 "$work/relay.log"
cat "$work/e2b.log"

echo "== fanout-status"
"$tools/fanout-status/fanout-status" "$work/work"
echo "== digests"
for f in "$work"/src/*.bin; do
  n=$(basename "$f")
  for e in e1 e2; do
    [[ $(sha256sum < "$f") == $(sha256sum < "$work/$e-out/$n") ]] || { echo "MISMATCH $e/$n"; exit 1; }
  done
  echo "$(sha256sum < "$f" | cut -c1-16)  $n  identical at both endpoints"
done
echo "== fanout-depot list (endpoint 1)"
(cd "$work/e1" && "$tools/fanout-depot/fanout-depot" "$work/e1" list)
