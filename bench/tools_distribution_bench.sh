#!/usr/bin/env bash
# Benchmarks of the distribution programs, each against a baseline measured
# in the same run:
#   1. SIZE bytes source -> endpoint over TCP loopback into the endpoint's
#      depot (checkpoints included), against a raw socket copy of the same
#      bytes into a file (python3, 1 MiB buffers);
#   2. source -> relay -> 3 endpoints, against the direct transfer of 1 (the
#      relay forwards while it receives; the time the source needs to hand
#      everything to the relay is printed too);
#   3. the peak resident memory of each program (GNU time).
# Each timed part starts with the page cache written back (sync), so that none
# pays for the dirty pages of another.
# Usage: bench/tools_distribution_bench.sh BUILD_DIR [SIZE_MIB, default 1024]
set -euo pipefail
build=$(realpath "$1")
mib=${2:-1024}
tools=$build/tools
work=$(mktemp -d /tmp/fanout-bench-XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  for lk in "$work"/*/depot.lk "$work"/*/entry.lk; do
    [[ -e $lk ]] || continue
    read -r dev ino < <(stat -c '%d %i' "$lk")
    ipcrm -S $(( (1 << 24) | ((dev & 0xff) << 16) | (ino & 0xffff) )) 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
export FANOUT_WORK_DIR=$work FANOUT_LOG_LEVEL=0
head -c $((mib << 20)) /dev/urandom > "$work/data.bin"
now() { date +%s.%N; }
rss() { sed -n 's/.*Maximum resident set size (kbytes): //p' "$1"; }
cpu() {  # user + system seconds of a GNU time report
  echo "$(sed -n 's/.*User time (seconds): //p' "$1") + \
        $(sed -n 's/.*System time (seconds): //p' "$1")" | bc
}
start() {  # LOG NAME CMD...: a listening program under GNU time
  local log=$1 name=$2; shift 2
  /usr/bin/time -v -o "$work/$name.time" "$@" > "$log" 2>/dev/null &
  pids+=($!)
  until grep -q 'listening on' "$log"; do sleep 0.02; done
}
address() { sed -n 's/.*listening on //p' "$1"; }

# 1. Raw socket copy.
port=$(python3 -c 'import socket;s=socket.socket();s.bind(("127.0.0.1",0));print(s.getsockname()[1])')
python3 - "$port" "$work/raw.out" <<'PY' &
import socket, sys
s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("127.0.0.1", int(sys.argv[1]))); s.listen(1)
c, _ = s.accept()
with open(sys.argv[2], "wb") as f:
    while True:
        b = c.recv(1 << 20)
        if not b: break
        f.write(b)
    f.flush(); import os; os.fsync(f.fileno())
PY
raw_pid=$!
sleep 0.3
sync
t0=$(now)
python3 - "$port" "$work/data.bin" <<'PY'
import socket, sys
c = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
with open(sys.argv[2], "rb") as f:
    while True:
        b = f.read(1 << 20)
        if not b: break
        c.sendall(b)
c.close()
PY
wait $raw_pid
t_raw=$(echo "$(now) - $t0" | bc)
rm -f "$work/raw.out"

# 1'. Source -> endpoint into the depot.
start "$work/e0.log" e0 "$tools/fanout-receive/fanout-receive" --listen tcp:127.0.0.1:0 --depot "$work/e0"
sync
t0=$(now)
/usr/bin/time -v -o "$work/send.time" "$tools/fanout-send/fanout-send" --quiet "$(address "$work/e0.log")" "$work/data.bin"
wait "${pids[-1]}"
t_direct=$(echo "$(now) - $t0" | bc)

# 2. Source -> relay -> 3 endpoints.
targets=()
for i in 1 2 3; do
  start "$work/e$i.log" "e$i" "$tools/fanout-receive/fanout-receive" --listen tcp:127.0.0.1:0 --depot "$work/e$i"
  targets+=("$(address "$work/e$i.log")")
done
start "$work/relay.log" relay "$tools/fanout-relay/fanout-relay" --listen tcp:127.0.0.1:0 \
  --depot "$work/relay" --to "$(IFS=,; echo "${targets[*]}")"
sync
t0=$(now)
"$tools/fanout-send/fanout-send" --quiet "$(address "$work/relay.log")" "$work/data.bin"
t_upstream=$(echo "$(now) - $t0" | bc)
wait "${pids[@]:1}"
t_relay=$(echo "$(now) - $t0" | bc)
pids=()

printf 'size                          %d MiB\n' "$mib"
printf 'raw socket copy to a file     %.2f s  (%.0f MiB/s)\n' "$t_raw" "$(echo "$mib / $t_raw" | bc -l)"
printf 'source -> endpoint (depot)    %.2f s  (%.0f MiB/s)  %.2fx the raw copy'"'"'s rate\n' \
  "$t_direct" "$(echo "$mib / $t_direct" | bc -l)" "$(echo "$t_raw / $t_direct" | bc -l)"
printf 'source -> relay -> 3          %.2f s  %.2fx the direct transfer'"'"'s time' \
  "$t_relay" "$(echo "$t_relay / $t_direct" | bc -l)"
printf ' (the source done after %.2f s)\n' "$t_upstream"
printf 'CPU s (user+sys): fanout-send %s, fanout-receive %s, fanout-relay with its children %s\n' \
  "$(cpu "$work/send.time")" "$(cpu "$work/e0.time")" "$(cpu "$work/relay.time")"
printf 'peak RSS KiB: fanout-send %s, fanout-receive %s, fanout-relay %s\n' \
  "$(rss "$work/send.time")" "$(rss "$work/e0.time")" "$(rss "$work/relay.time")"
