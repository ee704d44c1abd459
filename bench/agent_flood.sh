#!/usr/bin/env bash
# A polite manager's latency while another source floods kelpagent: starts
# kelpagent on the sample model on a free loopback port, with any options
# given after "--" (--max-waiting 0, say, to compare answering in order of
# arrival), and runs bench's agent_flood against it (see
# bench/agent_flood.cc):
#
#   cmake --build BUILD_DIR --target kelpagent kelpimp64 agent_flood
#   bench/agent_flood.sh BUILD_DIR [-- KELPAGENT_OPTION...]
#
# GETS=N in the environment sets the Gets per phase (400).
# Everything runs on 127.0.0.1 and 127.0.0.2 and is stopped at the end.
set -euo pipefail

build=${1:?usage: agent_flood.sh BUILD_DIR [-- KELPAGENT_OPTION...]}
shift
[ "${1:-}" = "--" ] && shift
src=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
pid=
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

port=$(python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$build/bin/kelpagent" --allow-root --state-dir "$work/state" --listen "udp:127.0.0.1:$port" \
  --model "$src/data/models/sample.xml" --module "$build/lib/libkelpimp64.so" "$@" \
  2>"$work/agent.log" &
pid=$!
for _ in $(seq 1 100); do
  snmpget -v2c -c public -t 1 -r 0 "127.0.0.1:$port" 1.3.6.1.4.1.61234.20571.1.20.3.0 \
    2>/dev/null | grep -q STRING && break
  sleep 0.1
done
echo "kelpagent $* on 127.0.0.1:$port"
"$build/bin/agent_flood" "$port" public "${GETS:-400}"
# The datagrams the kernel dropped because the agent's socket was full.
hex=$(printf '%04X' "$port")
awk -v p=":$hex" '$2 ~ p"$" { print "kernel drops on the agent'"'"'s socket: " $NF }' /proc/net/udp
grep -i -e "dropping" "$work/agent.log" || true
