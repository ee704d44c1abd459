#!/bin/sh
# contrib/prometheus/snmp.yml is what Debian's SNMP exporter generator makes
# of generator.yml beside it and the storage MIB (with the base modules of
# tests/mibs): regenerate it in a temp dir and compare. Exit 77 (skipped)
# when the generator is not installed.
# Usage: generate_test.sh SOURCE_DIR
set -eu
src=${1:?usage: generate_test.sh SOURCE_DIR}
generator=${KELP_SNMP_GENERATOR:-/usr/bin/prometheus-snmp-generator}
if [ ! -x "$generator" ]; then
    echo "skipped: $generator is not installed (Debian: prometheus-snmp-exporter)"
    exit 77
fi
tmp=$(mktemp -d /tmp/kelp-generate-XXXXXX)
trap 'rm -rf "$tmp"' EXIT
cp "$src/contrib/prometheus/generator.yml" "$tmp/generator.yml"
# The generator reads generator.yml from its working directory.
if ! (cd "$tmp" && MIBDIRS="$src/mibs:$src/tests/mibs" "$generator" --fail-on-parse-errors \
        generate -o "$tmp/snmp.yml") >"$tmp/log" 2>&1; then
    cat "$tmp/log"
    echo "FAIL: the generator does not take generator.yml with the MIB"
    exit 1
fi
if ! diff -u "$src/contrib/prometheus/snmp.yml" "$tmp/snmp.yml"; then
    echo "FAIL: contrib/prometheus/snmp.yml is not what the generator makes of generator.yml;"
    echo "      regenerate it (contrib/README.md says how)"
    exit 1
fi
echo "ok: snmp.yml is generated from generator.yml and KELP-STORAGE-MIB"
