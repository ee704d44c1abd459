#!/usr/bin/env bash
# The plug-in must export exactly its dispatch function.
set -euo pipefail
exports=$(nm -D --defined-only "$1" | awk '$2 ~ /^[TDBRVWiu]$/ { print $3 }' | sort)
if [ "$exports" != "KELPIMP64_SMMIBImplementerDispatch" ]; then
  echo "unexpected exports of $1:" >&2
  echo "$exports" >&2
  exit 1
fi
echo "exports: $exports"
