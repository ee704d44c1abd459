#!/usr/bin/env bash
# kelpagent under every limit of address space in a range: what it does when
# memory runs out at each point of its start, its walks and its reloads.
#
#   tests/stress/address_limits.sh BUILD [MODEL] [FROM TO STEP]
#
# For each limit (MiB; default 26 to 60 by 1) kelpagent starts on MODEL
# (default the sample model) under `prlimit --as`. When it answers, a
# GetBulk walk of the storage tree runs, then a SIGHUP, a second walk and
# 2 s without requests, whose CPU time is measured; then SIGTERM. Each
# limit prints a line: exit status, idle CPU ticks, the walks' varbinds (or
# the walker's error), the log's last line.
#
# A limit fails when kelpagent
#   - dies on a signal, or through std::terminate or a sanitizer's report;
#   - ends with a status other than 0 or 1 (127 from the dynamic loader,
#     which cannot map the libraries under the smallest limits, is not the
#     agent's and passes);
#   - uses more than 20 ticks (a tenth of a core) in the 2 idle seconds: a
#     loop that spins on what it has no memory for.
# A walk that fails or is short is no fault: under a limit the agent answers
# genErr, or drops requests, for what it has no memory for (docs/LOGGING.md).
# Prints PASS or FAIL; the exit status is 0 only on PASS. Needs prlimit
# (util-linux); a sanitizer build cannot run under such limits.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../../bench/lib.sh"

build=${1:?usage: address_limits.sh BUILD [MODEL] [FROM TO STEP]}
model=${2:-$here/../../data/models/sample.xml}
from=${3:-26}
to=${4:-60}
step=${5:-1}
command -v prlimit >/dev/null || { echo "address_limits.sh: needs prlimit (util-linux)" >&2; exit 2; }

bench_work
failed=0

# ticks PID: user and system time so far, all threads, in clock ticks.
ticks() {
  awk '{ print $14 + $15 }' "/proc/$1/stat" 2>/dev/null || echo 0
}

# walk PORT: the varbinds of one GetBulk walk, or the walker's error.
walk() {
  { timeout 60 "$build/bin/walker" --bulk 25 --timeout 3 "127.0.0.1:$1" $root 2>&1 || true; } |
    awk 'NR == 1 { print($1 ~ /^[0-9]+$/ ? $1 : "error") }'
}

for mib in $(seq "$from" "$step" "$to"); do
  state="$work/state.$mib"
  mkdir -p "$state"
  port=$(free_port)
  KELP_STOP_TIMEOUT=2 prlimit --as=$((mib * 1048576)) -- "$build/bin/kelpagent" --allow-root \
    --model "$model" --listen "udp:127.0.0.1:$port" --state-dir "$state" \
    >"$work/agent.$mib.log" 2>&1 &
  pid=$!
  for _ in $(seq 1 100); do
    kill -0 "$pid" 2>/dev/null || break
    grep -q "answering on" "$work/agent.$mib.log" && break
    sleep 0.2
  done
  first=- second=- idle=-
  if kill -0 "$pid" 2>/dev/null; then
    sleep 1
    first=$(walk "$port")
    kill -HUP "$pid" 2>/dev/null || true
    sleep 3
    second=$(walk "$port")
    before=$(ticks "$pid")
    sleep 2
    idle=$(($(ticks "$pid") - before))
  fi
  kill "$pid" 2>/dev/null || true
  status=0
  wait "$pid" 2>/dev/null || status=$?
  pid=
  log="$work/agent.$mib.log"
  last=$(grep -v -e "MIB path" -e "state dir" "$log" | tail -n 1 |
    sed 's/^[0-9-]* [0-9:.]* //' | cut -c 1-110)
  fault=
  if [ "$status" -gt 128 ] || grep -q -e "terminate called" -e "runtime error" \
    -e "AddressSanitizer" "$log"; then
    fault="died (status $status)"
  elif [ "$status" -eq 127 ] && grep -q "error while loading shared libraries" "$log"; then
    :
  elif [ "$status" -ne 0 ] && [ "$status" -ne 1 ]; then
    fault="exit status $status"
  elif [ "$idle" != - ] && [ "$idle" -gt 20 ]; then
    fault="$idle ticks in 2 idle seconds"
  fi
  printf '%4s MiB  status %3s  idle %3s  walks %s %s  %s\n' "$mib" "$status" "$idle" \
    "$first" "$second" "$last"
  if [ -n "$fault" ]; then
    echo "  FAULT: $fault; the log:"
    sed 's/^/    /' "$log" | tail -n 20
    failed=$((failed + 1))
  fi
done

if [ "$failed" -eq 0 ]; then
  echo PASS
else
  echo "FAIL: $failed limits"
  exit 1
fi
