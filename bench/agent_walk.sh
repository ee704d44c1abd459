#!/usr/bin/env bash
# Walk throughput (varbinds per second) of the tree kelpagent serves, with
# net-snmp's snmpwalk (plain GetNext) and snmpbulkwalk -Cr25, beside a
# private snmpd walking its own tree in the same run, so the figures can be
# compared on the same machine at the same moment.
#
#   bench/agent_walk.sh BUILD_DIR [MODEL...]
#
# Then the same walks through a private snmpd as AgentX master, of kelpagent
# --agentx and, beside it in the same run, of bench's agentx_table: a minimal
# AgentX subagent serving one table of about as many varbinds. Last, each
# kelpagent's resident memory after its walks.
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
. "$(dirname "$0")/lib.sh"

build=${1:?usage: agent_walk.sh BUILD_DIR [MODEL...]}
shift || true
src=$(cd "$(dirname "$0")/.." && pwd)
bench_work

models=("$@")
if [ ${#models[@]} -eq 0 ]; then
  "$build/bin/kelpgen" --disks 1024 --out "$work/disks-1024.xml"
  "$build/bin/kelpgen" --disks 1024 --disks-per-controller 8 \
    --out "$work/disks-1024-controllers-128.xml"
  models=("$src/data/models/sample.xml" "$work/disks-1024.xml"
          "$work/disks-1024-controllers-128.xml")
fi

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

kelp_root=1.3.6.1.4.1.61234.20571.1.20
memory=()
for model in "${models[@]}"; do
  aport=$(free_port)
  "$build/bin/kelpagent" --allow-root --model "$model" --listen "udp:127.0.0.1:$aport" \
    --state-dir "$work/agent-$aport" >"$work/agent-$aport.log" 2>&1 &
  apid=$!
  pids+=($apid)
  wait_value "127.0.0.1:$aport" $kelp_root.130.1.1.1.1
  for tool in snmpwalk "snmpbulkwalk -Cr25"; do
    printf '%-48s %-18s %s\n' "kelpagent $(basename "$model")" "$tool" \
      "$(rate "$tool" "127.0.0.1:$aport" $kelp_root $kelp_root.3.0)"
  done
  memory+=("$(basename "$model") $(awk '/^VmRSS/ { print $2 }' /proc/$apid/status)")
done

# snmpd as AgentX master, with kelpagent --agentx and agentx_table behind it.
xport=$(free_port)
mkdir -p "$work/master-state"
cat >"$work/master.conf" <<CONF
agentaddress udp:127.0.0.1:$xport
master agentx
agentXSocket $work/agentx
agentXPerms 0600 0700
rocommunity public 127.0.0.1
CONF
SNMP_PERSISTENT_DIR="$work/master-state" snmpd -f -Lo -C -c "$work/master.conf" \
  -p "$work/master.pid" -I -smux >"$work/master.log" 2>&1 &
pids+=($!)
wait_for "127.0.0.1:$xport" 1.3.6.1.2.1.1.1.0
table_root=1.3.6.1.4.1.61234.99
table_columns=10
for model in "${models[@]}"; do
  "$build/bin/kelpagent" --allow-root --agentx "$work/agentx" --model "$model" \
    --state-dir "$work/subagent-$(basename "$model")" >"$work/subagent.log" 2>&1 &
  kpid=$!
  wait_value "127.0.0.1:$xport" $kelp_root.130.1.1.1.1
  varbinds=$(snmpbulkwalk -v2c -c public -t 5 -r 0 -Cr25 -On "127.0.0.1:$xport" $kelp_root | wc -l)
  rows=$(((varbinds + table_columns - 1) / table_columns))
  SNMP_PERSISTENT_DIR="$work/master-state" "$build/bin/agentx_table" "$work/agentx" \
    "$rows" "$table_columns" >"$work/table.log" 2>&1 &
  tpid=$!
  wait_value "127.0.0.1:$xport" $table_root.1.1.1.1
  for tool in snmpwalk "snmpbulkwalk -Cr25"; do
    printf '%-48s %-18s %s\n' "via snmpd: kelpagent --agentx $(basename "$model")" "$tool" \
      "$(rate "$tool" "127.0.0.1:$xport" $kelp_root $kelp_root.3.0)"
    printf '%-48s %-18s %s\n' "via snmpd: agentx_table ${rows}x$table_columns" "$tool" \
      "$(rate "$tool" "127.0.0.1:$xport" $table_root $table_root.1.1.$table_columns.$rows)"
  done
  kill "$kpid" "$tpid"
  wait "$kpid" "$tpid" 2>/dev/null || true
done

printf '\n%-48s %s\n' "kelpagent on" "resident memory after the walks (KiB)"
for line in "${memory[@]}"; do
  printf '%-48s %s\n' "${line% *}" "${line##* }"
done
