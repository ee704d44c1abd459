#!/usr/bin/env bash
# Walk throughput (varbinds per second) of the tree kelpagent serves, with
# net-snmp's snmpwalk (plain GetNext) and snmpbulkwalk -Cr25, beside a
# private snmpd walking its own tree in the same run, so the figures can be
# compared on the same machine at the same moment.
#
#   bench/agent_walk.sh BUILD_DIR [MODEL...]   (default: the sample model and
#                                              a generated 1,024-disk model)
# Everything runs on 127.0.0.1 and is stopped at the end.
set -euo pipefail

build=${1:?usage: agent_walk.sh BUILD_DIR [MODEL...]}
shift || true
src=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

models=("$@")
if [ ${#models[@]} -eq 0 ]; then
  "$build/bin/kelpgen" --disks 1024 --out "$work/disks-1024.xml"
  models=("$src/data/models/sample.xml" "$work/disks-1024.xml")
fi

free_port() {
  python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

wait_for() { # address oid
  for _ in $(seq 1 100); do
    snmpget -v2c -c public -t 1 -r 0 "$1" "$2" >/dev/null 2>&1 && return 0
    sleep 0.1
  done
  echo "no answer from $1" >&2
  return 1
}

# rate TOOL ADDRESS ROOT: varbinds per second over repeated walks of ~3 s.
rate() {
  local tool=$1 address=$2 root=$3 count=0 runs=0 start end
  start=$(date +%s.%N)
  while :; do
    count=$((count + $($tool -v2c -c public -t 5 -r 0 -On "$address" "$root" | wc -l)))
    runs=$((runs + 1))
    end=$(date +%s.%N)
    if awk -v s="$start" -v e="$end" 'BEGIN { exit !(e - s >= 3) }'; then break; fi
  done
  awk -v c="$count" -v r="$runs" -v s="$start" -v e="$end" \
    'BEGIN { printf "%8d varbinds/walk %10.0f varbinds/s", c / r, c / (e - s) }'
}

# A private snmpd serving its own tree.
port=$(free_port)
cat >"$work/snmpd.conf" <<CONF
agentaddress udp:127.0.0.1:$port
rocommunity public 127.0.0.1
CONF
mkdir -p "$work/snmpd-state"
SNMP_PERSISTENT_DIR="$work/snmpd-state" snmpd -f -Lo -C -c "$work/snmpd.conf" \
  -p "$work/snmpd.pid" >"$work/snmpd.log" 2>&1 &
pids+=($!)
wait_for "127.0.0.1:$port" 1.3.6.1.2.1.1.1.0

printf '%-44s %-16s %s\n' "tree" "tool" "throughput"
for tool in snmpwalk "snmpbulkwalk -Cr25"; do
  printf '%-44s %-16s %s\n' "snmpd 1.3.6.1.2.1" "$tool" "$(rate "$tool" "127.0.0.1:$port" 1.3.6.1.2.1)"
done

for model in "${models[@]}"; do
  aport=$(free_port)
  "$build/bin/kelpagent" --model "$model" --listen "udp:127.0.0.1:$aport" \
    --state-dir "$work/agent-$aport" >"$work/agent-$aport.log" 2>&1 &
  pids+=($!)
  wait_for "127.0.0.1:$aport" 1.3.6.1.4.1.61234.20571.1.20.3.0
  for tool in snmpwalk "snmpbulkwalk -Cr25"; do
    printf '%-44s %-16s %s\n' "kelpagent $(basename "$model")" "$tool" \
      "$(rate "$tool" "127.0.0.1:$aport" 1.3.6.1.4.1.61234.20571.1.20)"
  done
done
