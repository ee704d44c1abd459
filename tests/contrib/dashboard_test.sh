#!/bin/sh
# contrib/grafana/kelp-storage.json asks only for series that the module kelp
# of contrib/prometheus/snmp.yml produces, with their labels and status names;
# and the checker refuses dashboards that break any of that, or do not read.
# Exit 77 (skipped) without PyYAML.
# Usage: dashboard_test.sh SOURCE_DIR
set -u
src=${1:?usage: dashboard_test.sh SOURCE_DIR}
here=$(dirname "$0")
python=/usr/bin/python3
[ -x "$python" ] || python=python3
check() { "$python" "$here/check_dashboard.py" "$@"; }
dashboard=$src/contrib/grafana/kelp-storage.json
snmp=$src/contrib/prometheus/snmp.yml
if ! "$python" -c 'import yaml' 2>/dev/null; then
    echo "skipped: $python has no PyYAML (Debian: python3-yaml)"
    exit 77
fi
tmp=$(mktemp -d /tmp/kelp-dashboard-XXXXXX)
trap 'rm -rf "$tmp"' EXIT
failed=0

check "$dashboard" "$snmp" kelp || { echo "FAIL: the dashboard does not check"; failed=1; }

# Each broken copy: a sed expression on the dashboard, and why it must fail.
refuse() {
    sed "$1" "$dashboard" >"$tmp/broken.json"
    if cmp -s "$dashboard" "$tmp/broken.json"; then
        echo "FAIL: the edit '$1' changed nothing"
        failed=1
    elif check "$tmp/broken.json" "$snmp" kelp >"$tmp/out" 2>&1; then
        echo "FAIL: a dashboard with $2 passes"
        failed=1
    else
        echo "ok: refused $2: $(head -n 1 "$tmp/out")"
    fi
}
refuse '0,/arrayDiskStatus{/s//arrayDiskStatuz{/' "a series the module does not make"
refuse '0,/fanStatus{instance/s//fanStatus{fanColour=\\"red\\", instance/' "a label the series lacks"
refuse '0,/sum by (arrayDiskState)/s//sum by (virtualDiskState)/' "a grouping label no series has"
refuse '0,/"text": "critical"/s//"text": "broken"/' "a status shown by another name"
refuse '0,/label_values(globalStatus, instance)/s//label_values(globalStatus, controllerName)/' \
    "a variable on a label the series lacks"
refuse '0,/virtualDiskLayout_info/s//virtualDiskLayout/' "an info series without its _info"

# Inputs that do not read.
printf '' >"$tmp/empty.json"
printf '{"panels": [' >"$tmp/truncated.json"
printf 'kelp: [\n' >"$tmp/bad.yml"
for args in "$tmp/empty.json $snmp kelp" "$tmp/truncated.json $snmp kelp" \
            "$dashboard $tmp/bad.yml kelp" "$dashboard $snmp nosuchmodule" "$dashboard"; do
    # shellcheck disable=SC2086
    check $args >"$tmp/out" 2>&1
    status=$?
    if [ "$status" -ne 2 ]; then
        echo "FAIL: check_dashboard.py $args exits $status, not 2"
        failed=1
    fi
done
[ "$failed" -eq 0 ] && echo "ok: the dashboard names only exported series"
exit "$failed"
