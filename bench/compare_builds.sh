#!/usr/bin/env bash
# Two builds of kelp side by side, in one run on the same machine: resident
# memory per model object (bench/agent_memory.sh, slope from SMALL to LARGE
# disks), the start and reload peaks and the load times (bench/agent_reload.sh
# at LARGE disks), each figure for BEFORE and AFTER and their ratio. The two
# builds take turns (BEFORE, AFTER, BEFORE, AFTER ...) ROUNDS times, so that
# a change in the machine's load falls on both; each figure is the median of
# its rounds.
#
#   bench/compare_builds.sh BEFORE_BUILD AFTER_BUILD [SMALL LARGE [ROUNDS]]
#                                                   (default: 1024 16384 3)
#
# Both builds need kelpagent, kelpctl, kelpgen and the plug-in (Release
# builds, e.g. `make bench` of each tree). Everything runs on 127.0.0.1.
set -euo pipefail

before=${1:?usage: compare_builds.sh BEFORE_BUILD AFTER_BUILD [SMALL LARGE [ROUNDS]]}
after=${2:?usage: compare_builds.sh BEFORE_BUILD AFTER_BUILD [SMALL LARGE [ROUNDS]]}
small=${3:-1024}
large=${4:-16384}
rounds=${5:-3}
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib.sh"
bench_work

# One round of one build: "name value" lines into $work/NAME.ROUND.
measure() { # build name round
  local out="$work/$2.$3"
  bash "$here/agent_memory.sh" "$1" 0 "$small" "$large" >"$out.memory"
  bash "$here/agent_reload.sh" "$1" "$large" >"$out.reload"
  awk -v small="$small" -v large="$large" '
    $1 == small { smallObjects = $2; smallRss = $4 }
    $1 == large { largeObjects = $2; largeRss = $4; largeHwm = $5 }
    $1 == 0 { emptyRss = $4 }
    END {
      printf "empty_rss_kib %d\n", emptyRss
      printf "kib_per_object %.3f\n", (largeRss - smallRss) / (largeObjects - smallObjects)
      printf "large_rss_kib %d\n", largeRss
    }' "$out.memory" >"$out"
  sed -n 's/.*start VmHWM .*(\([0-9.]*\)x).*/start_peak_x \1/p' "$out.reload" >>"$out"
  sed -n 's/^kelpctl load: \([0-9.]*\) s, .*(\([0-9.]*\)x settled).*/load_s \1\nload_peak_x \2/p' \
    "$out.reload" >>"$out"
  sed -n 's/^SIGHUP: \([0-9.]*\) s .*(\([0-9.]*\)x settled).*/sighup_s \1\nsighup_peak_x \2/p' \
    "$out.reload" >>"$out"
}

for round in $(seq 1 "$rounds"); do
  measure "$before" before "$round"
  measure "$after" after "$round"
done

# The median of figure NAME over SIDE's rounds, "nan" when none has it.
figure() { # name side
  local values
  values=$(cat "$work/$2".[0-9]* | awk -v k="$1" '$1 == k { print $2 }')
  if [ -z "$values" ]; then echo nan; else echo "$values" | median; fi
}

echo "before: $before"
echo "after:  $after"
echo "models: kelpgen --disks N --disks-per-controller 128; $rounds rounds, medians; load average $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-16s %12s %12s %8s\n' figure before after after/before
for name in empty_rss_kib kib_per_object large_rss_kib start_peak_x load_s load_peak_x \
  sighup_s sighup_peak_x; do
  b=$(figure "$name" before)
  a=$(figure "$name" after)
  printf '%-16s %12s %12s %8.2f\n' "$name" "$b" "$a" "$(echo "$a / $b" | bc -l)"
done
