# Shell functions the bench scripts share; source it after `set -euo pipefail`.
#
#   bench_work               makes $work (a temporary directory) and arranges
#                            that $work goes, and the agent in $pid and those in
#                            the array $pids are stopped, when the script exits
#   free_port                prints a UDP port free on 127.0.0.1
#   start_agent BUILD MODEL STATE_DIR PORT
#                            starts BUILD's kelpagent on MODEL in the background
#                            ($pid; its log is $work/agent.log) and waits, up to
#                            30 s, until its first controller row answers
#   wait_value ADDRESS OID   waits, up to 30 s, until OID answers a value (an
#                            agent answers noSuchInstance until its plug-in has
#                            built the tables, a master noSuchObject until its
#                            subagent is connected)
#   median                   the median of the numbers on stdin

root=1.3.6.1.4.1.61234.20571.1.20

bench_work() {
  work=$(mktemp -d)
  pid=
  pids=()
  trap bench_cleanup EXIT
}

bench_cleanup() {
  local p
  for p in $pid "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}

free_port() {
  python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

start_agent() { # build model state-dir port
  "$1/bin/kelpagent" --allow-root --model "$2" --listen "udp:127.0.0.1:$4" \
    --state-dir "$3" >"$work/agent.log" 2>&1 &
  pid=$!
  for _ in $(seq 1 300); do
    snmpget -v2c -c public -t 1 -r 0 "127.0.0.1:$4" $root.130.1.1.1.1 2>/dev/null |
      grep -q INTEGER && return 0
    sleep 0.1
  done
  echo "kelpagent on 127.0.0.1:$4 answers no controller row; its log:" >&2
  cat "$work/agent.log" >&2
  return 1
}

wait_value() { # address oid
  for _ in $(seq 1 300); do
    snmpget -v2c -c public -t 1 -r 0 "$1" "$2" 2>/dev/null | grep -q -e INTEGER -e STRING && return 0
    sleep 0.1
  done
  echo "no value from $1 for $2" >&2
  return 1
}

median() { # numbers on stdin
  sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
