#!/usr/bin/env bash
# Walk latency of kelpagent --live while the live source rescans, against the
# same agent that does not rescan: a SAS server tree of DISKS disks (4096
# unless given) is served twice, once rescanned every 0.2 s (the tree does
# not change, so each rescan reads every file, compares and swaps the model
# in) and once every hour; snmpbulkwalk -Cr25 walks the array disk table ten
# times against each and the script prints the median and slowest walk.
#
#   bench/live_walk.sh BUILD_DIR [DISKS]
set -euo pipefail

build=${1:?usage: live_walk.sh BUILD_DIR [DISKS]}
disks=${2:-4096}
work=$(mktemp -d)
pid=
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

"$build/bin/live_tree" "$work/tree" "$disks"
export SNMPCONFPATH="$work" SNMP_PERSISTENT_DIR="$work" MIBS="" MIBDIRS=""
table=1.3.6.1.4.1.61234.20571.1.20.130.4

walks() { # interval
  local port=$((20000 + RANDOM % 20000))
  "$build/bin/kelpagent" --allow-root --live-root "$work/tree" --live-interval "$1" \
    --listen "udp:127.0.0.1:$port" --state-dir "$work/state-$1" 2>"$work/agent-$1.log" &
  pid=$!
  for _ in $(seq 100); do
    snmpget -v2c -c public -t 1 -r 0 "127.0.0.1:$port" 1.3.6.1.4.1.61234.20571.1.20.3.0 \
      >/dev/null 2>&1 && break
    sleep 0.2
  done
  local times=()
  for _ in $(seq 10); do
    local t0 t1
    t0=$(date +%s%N)
    snmpbulkwalk -v2c -c public -Cr25 -t 5 -r 0 "127.0.0.1:$port" "$table" >"$work/walk" 2>&1
    t1=$(date +%s%N)
    times+=($(((t1 - t0) / 1000000)))
  done
  local rows
  rows=$(grep -c "^iso.3.6.1.4.1.61234.20571.1.20.130.4.1.1\." "$work/walk" || true)
  mapfile -t sorted < <(printf '%s\n' "${times[@]}" | sort -n)
  printf '%-28s %6s rows  median %5s ms  slowest %5s ms\n' "rescan every $1 s" "$rows" \
    "${sorted[4]}" "${sorted[9]}"
  kill "$pid"
  wait "$pid" 2>/dev/null || true
  pid=
}

echo "kelpagent --live-root, a $disks-disk SAS server; snmpbulkwalk -Cr25 of the disk table"
walks 3600
walks 0.2
