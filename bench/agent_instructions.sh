#!/usr/bin/env bash
# Instructions kelpagent spends per varbind answered, counted by valgrind's
# callgrind: repeatable for the same binaries and inputs whatever else the
# machine does, where walk rates (agent_walk.sh) move by tens of percent
# with the load of a shared machine. With a second build dir the same walks
# are counted for it too, and the difference is printed.
#
#   bench/agent_instructions.sh BUILD_DIR [BASELINE_BUILD_DIR] [MODEL]
#
# For each build: one agent run with no walk (start-up and table building),
# then runs with snmpwalk and snmpbulkwalk -Cr25 walking the tree; the
# instructions beyond the run without walks, divided by the varbinds
# answered, are the cost of a varbind. MODEL defaults to the sample model.
# Needs valgrind (Debian's package valgrind); everything runs on 127.0.0.1
# and is stopped at the end.
set -euo pipefail

build=${1:?usage: agent_instructions.sh BUILD_DIR [BASELINE_BUILD_DIR] [MODEL]}
baseline=${2:-}
src=$(cd "$(dirname "$0")/.." && pwd)
model=${3:-$src/data/models/sample.xml}
root=1.3.6.1.4.1.61234.20571.1.20
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

free_port() {
  python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# count BUILD TOOL WALKS: "INSTRUCTIONS VARBINDS" of one agent run.
count() {
  local port dir pid answered=0
  port=$(free_port)
  dir=$(mktemp -d -p "$work")
  valgrind --tool=callgrind --callgrind-out-file="$dir/out" "$1/bin/kelpagent" --allow-root \
    --model "$model" --listen "udp:127.0.0.1:$port" --state-dir "$dir/state" \
    >"$dir/log" 2>&1 &
  pid=$!
  for _ in $(seq 1 600); do
    snmpget -v2c -c public -t 2 -r 0 "127.0.0.1:$port" "$root.3.0" 2>/dev/null |
      grep -q STRING && break
    sleep 0.5
  done
  for _ in $(seq 1 "$3"); do
    answered=$((answered + $($2 -v2c -c public -t 30 -r 2 -On "127.0.0.1:$port" "$root" | wc -l)))
  done
  kill -TERM "$pid"
  wait "$pid" 2>/dev/null || true
  echo "$(awk '/^(summary|totals):/ { print $2; exit }' "$dir/out") $answered"
}

# perVarbind BUILD TOOL WALKS: instructions per varbind.
perVarbind() {
  local idle walked
  idle=$(count "$1" snmpwalk 0)
  walked=$(count "$1" "$2" "$3")
  awk -v i="${idle% *}" -v w="${walked% *}" -v n="${walked#* }" \
    'BEGIN { printf "%.0f", (w - i) / n }'
}

printf '%-40s %-20s %s\n' "build" "tool" "instructions/varbind"
for tool in "snmpwalk:2" "snmpbulkwalk -Cr25:6"; do
  name=${tool%:*}
  walks=${tool##*:}
  mine=$(perVarbind "$build" "$name" "$walks")
  printf '%-40s %-20s %s\n' "$build" "$name" "$mine"
  if [ -n "$baseline" ]; then
    theirs=$(perVarbind "$baseline" "$name" "$walks")
    printf '%-40s %-20s %s\n' "$baseline" "$name" "$theirs"
    printf '%-40s %-20s %+.1f%%\n' "difference (first against second)" "$name" \
      "$(awk -v a="$mine" -v b="$theirs" 'BEGIN { print (a / b - 1) * 100 }')"
  fi
done
