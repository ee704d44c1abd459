#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing kelp need,
# and only those that are missing. Runs apt-get as root, or through sudo.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libsnmp-dev snmp snmpd snmptrapd
  libudev-dev
  libgtest-dev libgmock-dev googletest
  libbenchmark-dev
  clang-format git
  python3
  # The MIB is checked with smilint; install and service with systemd-analyze,
  # dpkg and man; the monitoring recipes with the exporter and check_snmp.
  smitools
  libsystemd-dev systemd
  dpkg-dev file man-db groff-base
  prometheus-snmp-exporter monitoring-plugins-standard
  # contrib's dashboard check reads the exporter's snmp.yml.
  python3-yaml
  # make fuzz: clang, and libFuzzer with clang's sanitizer runtimes.
  clang libclang-rt-14-dev
  # bench/agent_floor.sh's profile of kelpagent (PERF_DATA=FILE).
  linux-perf
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "kelp: installing missing Debian packages: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "kelp: need root or sudo to install: ${missing[*]}" >&2
  exit 1
fi

# snmpd's package would start a system daemon on port 161; kelp starts its own
# agents, so keep package scripts from starting services.
policy=/usr/sbin/policy-rc.d
made_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | "${sudo[@]}" tee "$policy" >/dev/null
  "${sudo[@]}" chmod 755 "$policy"
  made_policy=1
fi
cleanup() { if [ "$made_policy" = 1 ]; then "${sudo[@]}" rm -f "$policy"; fi; }
trap cleanup EXIT

"${sudo[@]}" apt-get update -q
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -q --no-install-recommends "${missing[@]}"
