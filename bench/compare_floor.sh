#!/usr/bin/env bash
# The kelpagents of two builds against the same floor, in turns: both serve
# the model of agent_floor.sh (kelpgen --disks 1024 --disks-per-controller 8)
# beside one minagent, and the walker walks the three one after the other,
# ROUNDS times (default 10) with GetBulk of max-repetitions 25, then three
# times with GetNext. Taking turns puts a change in the
# machine's load on all three, which separate runs of agent_floor.sh do not.
#
#   bench/compare_floor.sh BEFORE_BUILD AFTER_BUILD [ROUNDS]
#
# Prints per mode and agent the median over the turns of the CPU time per
# varbind (user and system, all threads) and each turn's rate, and
# minagent's CPU per varbind over each kelpagent's (1 is the floor). The walker and
# minagent are AFTER_BUILD's. Run it under nice -n 19 on a shared machine.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

before=${1:?usage: compare_floor.sh BEFORE_BUILD AFTER_BUILD [ROUNDS]}
after=${2:?usage: compare_floor.sh BEFORE_BUILD AFTER_BUILD [ROUNDS]}
rounds=${3:-10}
bench_work

walker=$after/bin/walker
table_root=1.3.6.1.4.1.61234.99
declare -A port agent

"$after/bin/kelpgen" --disks 1024 --disks-per-controller 8 --out "$work/model.xml"
for name in before after; do
  build=$before
  [ "$name" = after ] && build=$after
  port[$name]=$(free_port)
  "$build/bin/kelpagent" --allow-root --model "$work/model.xml" \
    --listen "udp:127.0.0.1:${port[$name]}" --state-dir "$work/$name" >"$work/$name.log" 2>&1 &
  agent[$name]=$!
  pids+=("$!")
done
for name in before after; do
  wait_value "127.0.0.1:${port[$name]}" "$root.130.1.1.1.1"
done

# The plug-in fills its tables in turn: count until two walks agree.
varbinds=0
for _ in $(seq 1 50); do
  count=$("$walker" --bulk 25 "127.0.0.1:${port[after]}" "$root" | awk '{ print $1 }')
  [ "$count" = "$varbinds" ] && break
  varbinds=$count
  sleep 0.2
done
port[min]=$(free_port)
"$after/bin/minagent" --listen "udp:127.0.0.1:${port[min]}" --state-dir "$work/min" \
  $(((varbinds + 9) / 10)) 10 >"$work/min.log" 2>&1 &
agent[min]=$!
pids+=("$!")
wait_value "127.0.0.1:${port[min]}" "$table_root.1.1.1.1"

# cpu_ticks PID: the process's user and system time so far, in clock ticks.
cpu_ticks() {
  awk '{ print $14 + $15 }' "/proc/$1/stat"
}

echo "kelpagent: $varbinds varbinds under $root"
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
hz=$(getconf CLK_TCK)
for mode in bulk25 getnext; do
  options=(--bulk 25)
  turns=$rounds
  if [ "$mode" = getnext ]; then
    options=()
    turns=3
  fi
  : >"$work/runs"
  for turn in $(seq 1 "$turns"); do
    order=(before after min)
    [ $((turn % 2)) = 0 ] && order=(min after before)
    for name in "${order[@]}"; do
      walk_root=$root
      [ "$name" = min ] && walk_root=$table_root
      start=$(cpu_ticks "${agent[$name]}")
      line=$("$walker" "${options[@]}" "127.0.0.1:${port[$name]}" "$walk_root")
      echo "$name $line $(($(cpu_ticks "${agent[$name]}") - start))" |
        awk '{ print $1, $2, $8, $10 }' >>"$work/runs"
    done
  done
  # Per agent: the median over the turns of the CPU per varbind (a turn
  # that met a burst of other load counts once), and each turn's rate.
  awk -v hz="$hz" -v mode="$mode" '
    { n[$1]++; cpu[$1, n[$1]] = $4 / hz / $2 * 1e6; rates[$1] = rates[$1] " " int($3) }
    function median(name,   i, j, k, t, a) {
      k = n[name]
      for (i = 1; i <= k; i++) a[i] = cpu[name, i]
      for (i = 2; i <= k; i++)
        for (j = i; j > 1 && a[j - 1] > a[j]; j--) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
      return k % 2 ? a[(k + 1) / 2] : (a[k / 2] + a[k / 2 + 1]) / 2
    }
    END {
      for (name in n) {
        m[name] = median(name)
        printf "%-8s %-7s CPU %6.2f us/varbind (median of %d turns); varbinds/s:%s\n", mode,
          name, m[name], n[name], rates[name]
      }
      printf "%-8s CPU ratio minagent/kelpagent: before %.3f, after %.3f\n", mode,
        m["min"] / m["before"], m["min"] / m["after"]
    }' "$work/runs"
done
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
