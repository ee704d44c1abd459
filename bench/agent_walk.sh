#!/usr/bin/env bash
# Walk throughput (varbinds per second) of the tree kelpagent serves, with
# net-snmp's snmpwalk (plain GetNext) and snmpbulkwalk -Cr25, beside a
# private snmpd walking its own tree in the same run, so the figures can be
# compared on the same machine at the same moment.
#
#   bench/agent_walk.sh BUILD_DIR [MODEL...]
#
# The default models: the sample model, a generated 1,024-disk model (two
# controllers), and the same 1,024 disks spread over 128 controllers, whose
# controller table gives a tree of about the size of snmpd's own.
#
# Two figures per line: "walk" counts the whole run of the tool, start-up
# included; "net" takes off the time the same tool needs for a one-varbind
# walk of the same agent (start-up and two round trips: the successor, which
# lies outside, and the object itself), measured alongside, so that a small
# tree is not judged by the tool's start-up.
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
  "$build/bin/kelpgen" --disks 1024 --disks-per-controller 8 \
    --out "$work/disks-1024-controllers-128.xml"
  models=("$src/data/models/sample.xml" "$work/disks-1024.xml"
          "$work/disks-1024-controllers-128.xml")
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

# seconds TOOL ADDRESS ROOT: the run time of one walk; the varbinds it
# returned go to $work/count.
seconds() {
  local start end
  start=$(date +%s%N)
  $1 -v2c -c public -t 5 -r 0 -On "$2" "$3" >"$work/out"
  end=$(date +%s%N)
  wc -l <"$work/out" >"$work/count"
  awk -v s="$start" -v e="$end" 'BEGIN { printf "%.6f", (e - s) / 1e9 }'
}

# rate TOOL ADDRESS ROOT FIRST: varbinds per second over walks repeated for
# about 3 s, each followed by a walk of the single object FIRST (a name with
# no successor below it) that gives the tool's own cost.
rate() {
  local tool=$1 address=$2 root=$3 first=$4 count=0 walks=0 total=0 overhead=0 t
  while awk -v t="$total" 'BEGIN { exit !(t < 3) }'; do
    t=$(seconds "$tool" "$address" "$root")
    count=$((count + $(cat "$work/count")))
    total=$(awk -v a="$total" -v b="$t" 'BEGIN { print a + b }')
    t=$(seconds "$tool" "$address" "$first")
    overhead=$(awk -v a="$overhead" -v b="$t" 'BEGIN { print a + b }')
    walks=$((walks + 1))
  done
  awk -v c="$count" -v w="$walks" -v t="$total" -v o="$overhead" \
    'BEGIN { printf "%8d varbinds/walk %10.0f walk %10.0f net", c / w, c / t, c / (t - o) }'
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

# snmpd's tree is everything it serves (walked from .1): mib-2 with the host
# resources tables, its own enterprise subtrees and the SNMP engine's objects.
printf '%-48s %-18s %s\n' "tree" "tool" "throughput (varbinds/s)"
for tool in snmpwalk "snmpbulkwalk -Cr25"; do
  printf '%-48s %-18s %s\n' "snmpd (its whole tree)" "$tool" \
    "$(rate "$tool" "127.0.0.1:$port" .1 1.3.6.1.2.1.1.1.0)"
done

for model in "${models[@]}"; do
  aport=$(free_port)
  "$build/bin/kelpagent" --model "$model" --listen "udp:127.0.0.1:$aport" \
    --state-dir "$work/agent-$aport" >"$work/agent-$aport.log" 2>&1 &
  pids+=($!)
  wait_for "127.0.0.1:$aport" 1.3.6.1.4.1.61234.20571.1.20.3.0
  for tool in snmpwalk "snmpbulkwalk -Cr25"; do
    printf '%-48s %-18s %s\n' "kelpagent $(basename "$model")" "$tool" \
      "$(rate "$tool" "127.0.0.1:$aport" 1.3.6.1.4.1.61234.20571.1.20 \
        1.3.6.1.4.1.61234.20571.1.20.3.0)"
  done
done
