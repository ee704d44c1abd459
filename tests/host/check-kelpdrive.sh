#!/usr/bin/env bash
# kelpdrive loads the plug-in and prints the answers of commands 1-6.
set -euo pipefail
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
out=$(KELP_INI="$dir/kelp.ini" "$1")
echo "$out"
expect() {
  grep -qF -- "$1" <<<"$out" || { echo "missing: $1" >&2; exit 1; }
}
expect "command 1: status 0, answer 1"
expect "command 2: status 0, answer 0"
expect "command 3: status 0, answer 0"
expect "command 4 (load): status 0"
expect "command 6 (list MIB): status 0, 22 groups"
grep -qE '^ +1\.3\.6\.1\.4\.1\.61234\.20571\.1\.20\.130\.1\.1 +table +55 columns$' <<<"$out" ||
  { echo "missing: the controller table's group" >&2; exit 1; }
expect "command 5 (unload): status 0"

# A host that loads the plug-in with KELP_CONTROL set serves the socket while
# it runs, exits cleanly and leaves no socket file behind.
KELP_INI="$dir/kelp.ini" KELP_CONTROL="$dir/control.sock" "$1" >/dev/null ||
  { echo "kelpdrive with KELP_CONTROL failed" >&2; exit 1; }
[ ! -e "$dir/control.sock" ] || { echo "the control socket outlived its host" >&2; exit 1; }
