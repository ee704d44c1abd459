#!/bin/sh
# Renders every man page in DIR (*.1 to *.8) as man(1) does at 80 columns,
# with groff's warnings on; fails naming each page that warns or does not
# render.
# usage: check-render.sh DIR
set -u
dir=$1
status=0
count=0
for page in "$dir"/*.[1-8]; do
    [ -f "$page" ] || continue
    count=$((count + 1))
    if ! warnings=$(MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null); then
        echo "$page: man failed: $warnings"
        status=1
    elif [ -n "$warnings" ]; then
        echo "$page: warnings:"
        echo "$warnings"
        status=1
    fi
done
if [ "$count" -eq 0 ]; then
    echo "$dir: no man pages"
    exit 1
fi
[ "$status" -eq 0 ] && echo "$count pages render without a warning"
exit "$status"
