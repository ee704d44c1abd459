#!/usr/bin/env bash
# kelpagent against its floor in instructions (agent_instructions.sh counts
# kelpagent alone, over snmpwalk and snmpbulkwalk): per varbind of a GetBulk
# walk (max-repetitions 25) of bench's walker, counted
# by valgrind's callgrind in user space: kelpagent on agent_floor.sh's model
# (kelpgen --disks 1024 --disks-per-controller 8) and minagent on a table of
# as many varbinds, or the kelpagents of two builds. Unlike times, the
# counts do not move with the machine's load, so a change of a few per cent
# in kelp's own code shows; the kernel's share (most of minagent's time)
# is not counted.
#
#   bench/floor_instructions.sh BUILD [OTHER_BUILD]
#
# Each agent runs under callgrind with instrumentation off; after one walk
# that fills the plug-in's tables, instrumentation is switched on for one
# walk alone. Prints each agent's instructions per varbind. Takes a minute
# or two per agent; run it under nice -n 19 on a shared machine.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

first=${1:?usage: floor_instructions.sh BUILD [OTHER_BUILD]}
second=${2:-}
bench_work

walker=$first/bin/walker
table_root=1.3.6.1.4.1.61234.99
"$first/bin/kelpgen" --disks 1024 --disks-per-controller 8 --out "$work/model.xml"

# count KEY NAME ROOT PROBE COMMAND...: starts COMMAND under callgrind
# (its files named after KEY), waits for PROBE to answer, walks ROOT once
# unmeasured and once measured, and prints NAME's instructions per varbind
# of the measured walk.
count() {
  local key=$1 name=$2 walk_root=$3 probe=$4 port agent line varbinds
  shift 4
  port=$(free_port)
  valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$work/$key.out" \
    "$@" --listen "udp:127.0.0.1:$port" --state-dir "$work/$key" >"$work/$key.log" 2>&1 &
  agent=$!
  pids+=("$agent")
  for _ in $(seq 1 600); do
    snmpget -v2c -c public -t 2 -r 0 "127.0.0.1:$port" "$probe" 2>/dev/null |
      grep -q -e INTEGER -e STRING && break
    sleep 0.5
  done
  "$walker" --bulk 25 --timeout 20 "127.0.0.1:$port" "$walk_root" >/dev/null
  callgrind_control -i on "$agent" >/dev/null
  line=$("$walker" --bulk 25 --timeout 20 "127.0.0.1:$port" "$walk_root")
  callgrind_control -i off "$agent" >/dev/null
  kill "$agent"
  wait "$agent" 2>/dev/null || true
  varbinds=$(echo "$line" | awk '{ print $1 }')
  awk -v name="$name" -v varbinds="$varbinds" '/Collected :/ {
      gsub(",", "", $NF); printf "%-22s %8.0f instructions/varbind (%d varbinds)\n", name,
        $NF / varbinds, varbinds }' "$work/$key.log"
}

count first "kelpagent ($first)" "$root" "$root.130.1.1.1.1" \
  "$first/bin/kelpagent" --allow-root --model "$work/model.xml"
if [ -n "$second" ]; then
  count second "kelpagent ($second)" "$root" "$root.130.1.1.1.1" \
    "$second/bin/kelpagent" --allow-root --model "$work/model.xml"
fi
# The table of agent_floor.sh for this model.
count min minagent "$table_root" "$table_root.1.1.1.1" "$first/bin/minagent" 9700 10
