#!/usr/bin/env bash
# kelpagent's memory and time around the loads of a generated model: the
# settled size after a walk, the peak of the start (VmHWM then), the time a
# `kelpctl load` of the same model takes to answer (read, parse, validate,
# swap; the events it queues go out later), and the peak of that reload
# (VmHWM reset through /proc/PID/clear_refs first, so it counts the reload
# alone, both models live during the swap). The same for a SIGHUP, which
# re-reads the --model file.
#
#   bench/agent_reload.sh BUILD_DIR [DISKS]     (default: 16384)
#
# Everything runs on 127.0.0.1 and is stopped at the end.
set -euo pipefail

build=${1:?usage: agent_reload.sh BUILD_DIR [DISKS]}
disks=${2:-16384}
. "$(dirname "$0")/lib.sh"
bench_work

kib() { awk -v k="$1" '$1 == k":" { print $2 }' "/proc/$pid/status"; }
now() { date +%s.%N; }

"$build/bin/kelpgen" --disks "$disks" --disks-per-controller 128 --out "$work/model.xml"
port=$(free_port)
start_agent "$build" "$work/model.xml" "$work/state" "$port"
snmpbulkwalk -v2c -c public -t 10 -r 0 -Cr25 -On "127.0.0.1:$port" $root >/dev/null
settled=$(kib VmRSS)
printf 'disks %d: settled VmRSS %d KiB, start VmHWM %d KiB (%.2fx)\n' "$disks" "$settled" \
  "$(kib VmHWM)" "$(echo "$(kib VmHWM) / $settled" | bc -l)"

echo 5 >"/proc/$pid/clear_refs"
start=$(now)
"$build/bin/kelpctl" --control "$work/state/control.sock" --no-events load "$work/model.xml" \
  >/dev/null
end=$(now)
printf 'kelpctl load: %.3f s, VmHWM %d KiB (%.2fx settled), VmRSS after %d KiB\n' \
  "$(echo "$end - $start" | bc -l)" "$(kib VmHWM)" "$(echo "$(kib VmHWM) / $settled" | bc -l)" \
  "$(kib VmRSS)"

echo 5 >"/proc/$pid/clear_refs"
lines=$(grep -c 'SIGHUP: re-read the model' "$work/agent.log" || true)
start=$(now)
kill -HUP "$pid"
for _ in $(seq 1 3000); do
  [ "$(grep -c 'SIGHUP: re-read the model' "$work/agent.log" || true)" -gt "$lines" ] && break
  sleep 0.01
done
end=$(now)
printf 'SIGHUP: %.3f s (to its log line), VmHWM %d KiB (%.2fx settled), VmRSS after %d KiB\n' \
  "$(echo "$end - $start" | bc -l)" "$(kib VmHWM)" "$(echo "$(kib VmHWM) / $settled" | bc -l)" \
  "$(kib VmRSS)"
