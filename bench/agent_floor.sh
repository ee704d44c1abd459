#!/usr/bin/env bash
# kelpagent's walk rate against its floor: bench's minagent, a master agent
# set up on net-snmp exactly as kelpagent is but serving a computed table of
# about as many varbinds as kelpagent's tree, in place of kelp's request
# path, runtime and plug-in. Both are walked by bench's walker (one session,
# nothing printed, so neither tool start-up nor printing hides the agent's
# cost), alternately, with GetNext and with GetBulk of max-repetitions 25.
#
#   bench/agent_floor.sh BUILD_DIR
#
# The model: kelpgen --disks 1024 --disks-per-controller 8 (1,024 disks on
# 128 controllers). Prints each agent's median varbinds/s over RUNS runs
# (default 7) of each mode (a GetBulk run is five walks), and kelpagent's
# rate as a fraction of minagent's. With PERF_DATA=FILE, also records each agent with perf during
# further GetBulk walks (about 5 s each; FILE and FILE.minagent) and prints
# the 15 symbols with the most self time.
# MODES=getnext or MODES=bulk25 measures one mode alone.
# Everything runs on 127.0.0.1 and is stopped at the end. Run it under
# nice -n 19 on a shared machine, and note the load average it prints.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

build=${1:?usage: agent_floor.sh BUILD_DIR}
runs=${RUNS:-7}
bench_work

walker=$build/bin/walker
kelp_root=1.3.6.1.4.1.61234.20571.1.20
table_root=1.3.6.1.4.1.61234.99
columns=10

# walk ADDRESS ROOT [WALKER OPTION...]: the walker's line for one run.
walk() {
  local address=$1 root=$2
  shift 2
  "$walker" "$@" "$address" "$root"
}

"$build/bin/kelpgen" --disks 1024 --disks-per-controller 8 --out "$work/model.xml"
kport=$(free_port)
"$build/bin/kelpagent" --allow-root --model "$work/model.xml" --listen "udp:127.0.0.1:$kport" \
  --state-dir "$work/kelp" >"$work/kelp.log" 2>&1 &
kpid=$!
pids+=("$kpid")
kelp=127.0.0.1:$kport
wait_value "$kelp" $kelp_root.130.1.1.1.1

# The plug-in fills its tables in turn: count until two walks agree.
varbinds=0
for _ in $(seq 1 50); do
  count=$(walk "$kelp" $kelp_root --bulk 25 | awk '{ print $1 }')
  [ "$count" = "$varbinds" ] && break
  varbinds=$count
  sleep 0.2
done
rows=$(((varbinds + columns - 1) / columns))

mport=$(free_port)
"$build/bin/minagent" --listen "udp:127.0.0.1:$mport" --state-dir "$work/min" \
  "$rows" "$columns" >"$work/min.log" 2>&1 &
mpid=$!
pids+=("$mpid")
minagent=127.0.0.1:$mport
wait_value "$minagent" $table_root.1.1.1.1

# cpu_ticks PID: the process's user and system time so far, all threads,
# in clock ticks.
cpu_ticks() {
  awk '{ print $14 + $15 }' "/proc/$1/stat"
}

# measure PID ADDRESS ROOT FILE [WALKER OPTION...]: one run; appends to FILE
# its rate, its varbinds and the agent's CPU ticks during it.
measure() {
  local pid=$1 address=$2 root=$3 file=$4 before line
  shift 4
  before=$(cpu_ticks "$pid")
  line=$(walk "$address" "$root" "$@")
  echo "$line $(($(cpu_ticks "$pid") - before))" | awk '{ print $7, $1, $9 }' >>"$file"
}

echo "kelpagent: $varbinds varbinds under $kelp_root; minagent: ${rows}x$columns table"
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
# The rates are wall time, which other load on the machine slows; the
# agents' CPU time per varbind (all threads, over all runs) is less
# affected, and its ratio is minagent's over kelpagent's, so that both
# ratios read alike: 1 is minagent's floor.
printf '%-8s %12s %12s %6s   %s\n' mode "kelpagent/s" "minagent/s" ratio \
  "CPU us/varbind: kelpagent minagent ratio"
hz=$(getconf CLK_TCK)
for mode in ${MODES:-getnext bulk25}; do
  options=()
  # A GetBulk walk takes about a second: five of them make one run.
  [ "$mode" = bulk25 ] && options=(--bulk 25 --repeat 5)
  : >"$work/kelp.runs"
  : >"$work/min.runs"
  for run in $(seq 1 "$runs"); do
    # Alternate which agent goes first, so that neither always walks
    # right after the other.
    if [ $((run % 2)) = 1 ]; then order=(kelp min); else order=(min kelp); fi
    for agent in "${order[@]}"; do
      if [ "$agent" = kelp ]; then
        measure "$kpid" "$kelp" $kelp_root "$work/kelp.runs" "${options[@]}"
      else
        measure "$mpid" "$minagent" $table_root "$work/min.runs" "${options[@]}"
      fi
    done
  done
  k=$(awk '{ print $1 }' "$work/kelp.runs" | median)
  m=$(awk '{ print $1 }' "$work/min.runs" | median)
  kc=$(awk -v hz="$hz" '{ v += $2; t += $3 } END { print t / hz / v * 1e6 }' "$work/kelp.runs")
  mc=$(awk -v hz="$hz" '{ v += $2; t += $3 } END { print t / hz / v * 1e6 }' "$work/min.runs")
  printf '%-8s %12.0f %12.0f %6.2f   %24.1f %8.1f %5.2f\n' "$mode" "$k" "$m" \
    "$(awk -v k="$k" -v m="$m" 'BEGIN { print k / m }')" "$kc" "$mc" \
    "$(awk -v k="$kc" -v m="$mc" 'BEGIN { print m / k }')"
done
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"

# profile PID ADDRESS ROOT FILE: perf record of PID during 5 s of GetBulk
# walks, and its 15 symbols with the most self time.
profile() {
  local pid=$1 address=$2 root=$3 file=$4 perf_pid end
  perf record -q -g -p "$pid" -o "$file" -- sleep 5 >/dev/null 2>&1 &
  perf_pid=$!
  sleep 0.3
  end=$((SECONDS + 5))
  while [ $SECONDS -lt $end ]; do
    walk "$address" "$root" --bulk 25 >/dev/null
  done
  wait "$perf_pid" || true
  perf report -i "$file" --no-children --sort symbol --stdio 2>/dev/null |
    awk '/^ +[0-9.]+%/ && n < 15 { n++; sub(/[ -]+$/, ""); print }'
}

if [ -n "${PERF_DATA:-}" ]; then
  echo "kelpagent during GetBulk walks, by self time ($PERF_DATA):"
  profile "$kpid" "$kelp" $kelp_root "$PERF_DATA"
  echo "minagent during GetBulk walks, by self time ($PERF_DATA.minagent):"
  profile "$mpid" "$minagent" $table_root "$PERF_DATA.minagent"
fi
