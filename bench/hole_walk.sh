#!/usr/bin/env bash
# A bulk walk of the fan table (130.7) before and after its row 1 goes. The
# plug-in's walk passes over a table whose first row is a hole, so kelpagent
# reads that table itself, by Get: this measures what that costs a walk on a
# generated model. For each run: a kelpagent on a model from kelpgen,
# `snmpbulkwalk -Cr25` of the fan table, `kelpctl remove --no-events` of the
# first fan, a wait until the table's second row answers again, and the same
# walk.
#
#   bench/hole_walk.sh BUILD_DIR [DISKS] [RUNS]     (default: 16384 3)
#
# Prints each run's varbinds and seconds, then the medians. Everything runs
# on 127.0.0.1 and is stopped at the end.
set -euo pipefail

build=${1:?usage: hole_walk.sh BUILD_DIR [DISKS] [RUNS]}
disks=${2:-16384}
runs=${3:-3}
. "$(dirname "$0")/lib.sh"
bench_work

"$build/bin/kelpgen" --disks "$disks" --out "$work/model.xml"
fan=$(grep -m1 -o '<object id="[0-9]*" type="fans"' "$work/model.xml" | grep -o '[0-9]\+')
walk() { # port: prints "varbinds seconds"
  local start end n
  start=$(date +%s.%N)
  n=$(snmpbulkwalk -v2c -c public -t 120 -r 0 -Cr25 -On "127.0.0.1:$1" $root.130.7 | wc -l)
  end=$(date +%s.%N)
  echo "$n $(echo "$end - $start" | bc)"
}

printf '%4s %10s %10s %10s %10s\n' run varbinds "whole s" varbinds "hole s"
: >"$work/whole"
: >"$work/hole"
for run in $(seq 1 "$runs"); do
  port=$(free_port)
  start_agent "$build" "$work/model.xml" "$work/state-$run" "$port"
  read -r whole_n whole_s < <(walk "$port")
  "$build/bin/kelpctl" --control "$work/state-$run/control.sock" remove "$fan" --no-events >/dev/null
  # Without the rescan events: the swap's own rescan holds the tables, and
  # then row 1 is a hole and row 2 answers; no other rescan follows.
  wait_value "127.0.0.1:$port" $root.130.7.1.1.2
  read -r hole_n hole_s < <(walk "$port")
  printf '%4d %10d %10.3f %10d %10.3f\n' "$run" "$whole_n" "$whole_s" "$hole_n" "$hole_s"
  echo "$whole_s" >>"$work/whole"
  echo "$hole_s" >>"$work/hole"
  kill "$pid"
  wait "$pid" 2>/dev/null || true
  pid=
done
echo "median: whole table $(median <"$work/whole") s, row 1 gone $(median <"$work/hole") s"
