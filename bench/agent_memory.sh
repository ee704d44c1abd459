#!/usr/bin/env bash
# kelpagent's resident memory on generated models of growing size: for each
# disk count, a model from kelpgen (128 disks a controller), a kelpagent on
# it, one bulk walk of the whole tree, then VmRSS and VmHWM from /proc. The
# growth between two sizes, divided by the objects added, is the cost of an
# object in the model, the data store and the plug-in's lists together
# (kelp_bench's ListMemory gives the lists' share alone).
#
#   bench/agent_memory.sh BUILD_DIR [DISKS...]     (default: 0 1024 16384)
#
# Everything runs on 127.0.0.1 and is stopped at the end.
set -euo pipefail

build=${1:?usage: agent_memory.sh BUILD_DIR [DISKS...]}
shift || true
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(0 1024 16384)
work=$(mktemp -d)
pid=
cleanup() {
  [ -z "$pid" ] || kill "$pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

free_port() {
  python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

root=1.3.6.1.4.1.61234.20571.1.20
printf '%8s %10s %10s %12s %12s\n' disks objects varbinds "VmRSS KiB" "VmHWM KiB"
for disks in "${sizes[@]}"; do
  "$build/bin/kelpgen" --disks "$disks" --disks-per-controller 128 --out "$work/model.xml"
  objects=$(grep -c '<object ' "$work/model.xml" || true)
  port=$(free_port)
  "$build/bin/kelpagent" --allow-root --model "$work/model.xml" --listen "udp:127.0.0.1:$port" \
    --state-dir "$work/state-$disks" >"$work/agent.log" 2>&1 &
  pid=$!
  for _ in $(seq 1 300); do
    snmpget -v2c -c public -t 1 -r 0 "127.0.0.1:$port" $root.130.1.1.1.1 2>/dev/null |
      grep -q INTEGER && break
    sleep 0.1
  done
  varbinds=$(snmpbulkwalk -v2c -c public -t 10 -r 0 -Cr25 -On "127.0.0.1:$port" $root | wc -l)
  printf '%8d %10d %10d %12d %12d\n' "$disks" "$objects" "$varbinds" \
    "$(awk '/^VmRSS/ { print $2 }' /proc/$pid/status)" \
    "$(awk '/^VmHWM/ { print $2 }' /proc/$pid/status)"
  kill "$pid"
  wait "$pid" 2>/dev/null || true
  pid=
done
