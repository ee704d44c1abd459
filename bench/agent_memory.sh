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
. "$(dirname "$0")/lib.sh"
bench_work

printf '%8s %10s %10s %12s %12s\n' disks objects varbinds "VmRSS KiB" "VmHWM KiB"
for disks in "${sizes[@]}"; do
  "$build/bin/kelpgen" --disks "$disks" --disks-per-controller 128 --out "$work/model.xml"
  objects=$(grep -c '<object ' "$work/model.xml" || true)
  port=$(free_port)
  start_agent "$build" "$work/model.xml" "$work/state-$disks" "$port"
  varbinds=$(snmpbulkwalk -v2c -c public -t 10 -r 0 -Cr25 -On "127.0.0.1:$port" $root | wc -l)
  printf '%8d %10d %10d %12d %12d\n' "$disks" "$objects" "$varbinds" \
    "$(awk '/^VmRSS/ { print $2 }' /proc/$pid/status)" \
    "$(awk '/^VmHWM/ { print $2 }' /proc/$pid/status)"
  kill "$pid"
  wait "$pid" 2>/dev/null || true
  pid=
done
