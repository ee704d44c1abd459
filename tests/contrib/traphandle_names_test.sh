#!/bin/sh
# contrib/snmptrapd/kelp-traphandle names alerts, bindings and table entries
# without the MIB: every name it knows has its OID in KELP-STORAGE-MIB, and
# every notification of the MIB is among them.
# Usage: traphandle_names_test.sh SOURCE_DIR
set -u
src=${1:?usage: traphandle_names_test.sh SOURCE_DIR}
tmp=$(mktemp -d /tmp/kelp-traphandle-XXXXXX)
trap 'rm -rf "$tmp"' EXIT
export MIBDIRS="$src/mibs:$src/tests/mibs" MIBS=KELP-STORAGE-MIB SNMPCONFPATH="$tmp"
: >"$tmp/snmp.conf"
if ! "$src/contrib/snmptrapd/kelp-traphandle" --names | sort >"$tmp/handler"; then
    echo "FAIL: kelp-traphandle --names"
    exit 1
fi
# snmptranslate -Tz: "name" "oid" for every node of the loaded MIBs.
snmptranslate -Tz 2>"$tmp/err" | tr -d '"' | awk '{print $2, $1}' | sort >"$tmp/mib"
if [ ! -s "$tmp/mib" ]; then
    cat "$tmp/err"
    echo "FAIL: snmptranslate lists nothing of KELP-STORAGE-MIB"
    exit 1
fi
failed=0
missing=$(comm -23 "$tmp/handler" "$tmp/mib")
if [ -n "$missing" ]; then
    echo "FAIL: names of kelp-traphandle that the MIB does not give these OIDs:"
    echo "$missing"
    failed=1
fi
grep ' .*Alert\(Ext\)\?$' "$tmp/mib" | grep '\.200\.0\.[0-9]* ' >"$tmp/alerts"
unknown=$(comm -13 "$tmp/handler" "$tmp/alerts")
if [ -n "$unknown" ]; then
    echo "FAIL: notifications of the MIB that kelp-traphandle does not know:"
    echo "$unknown"
    failed=1
fi
if [ "$(wc -l <"$tmp/alerts")" -lt 100 ]; then
    echo "FAIL: only $(wc -l <"$tmp/alerts") notifications found in the MIB"
    failed=1
fi
[ "$failed" -eq 0 ] && echo "ok: $(wc -l <"$tmp/handler") names of kelp-traphandle are the MIB's"
exit "$failed"
