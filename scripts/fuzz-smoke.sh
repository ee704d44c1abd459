#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a fixed number of inputs,
# starting from its seed corpus (fuzz/corpus/TARGET) and dictionary
# (fuzz/TARGET.dict). New inputs go to a scratch directory, never into the
# committed corpus; a crash is kept as BUILD/fuzz-artifacts/TARGET-crash-...
# and fails the run.
#   scripts/fuzz-smoke.sh [BUILD [RUNS [TARGET...]]]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
runs=${2:-2000}
shift $(( $# < 2 ? $# : 2 ))
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(dispatch agent xmlsup model ini catalogue control monitor trap ses health stream)
fi

scratch=$(mktemp -d "${TMPDIR:-/tmp}/kelp-fuzz-smoke-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
artifacts="$build/fuzz-artifacts"
mkdir -p "$artifacts"

failed=()
for t in "${targets[@]}"; do
  exe="$build/bin/fuzz_$t"
  [ -x "$exe" ] || { echo "fuzz-smoke: $exe is not built (make fuzz)" >&2; exit 1; }
  dict=()
  [ -f "fuzz/$t.dict" ] && dict=(-dict="fuzz/$t.dict")
  mkdir -p "$scratch/$t"
  start=$SECONDS
  if "$exe" -runs="$runs" -seed=20571 -timeout=10 -rss_limit_mb=2048 "${dict[@]}" \
       -artifact_prefix="$artifacts/$t-" "$scratch/$t" "fuzz/corpus/$t" \
       >"$scratch/$t.log" 2>&1; then
    echo "fuzz-smoke: $t: $runs runs, $((SECONDS - start)) s, $(grep -o 'cov: [0-9]*' "$scratch/$t.log" | tail -1)"
  else
    echo "fuzz-smoke: $t FAILED; its output:" >&2
    tail -40 "$scratch/$t.log" >&2
    failed+=("$t")
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz-smoke: failed: ${failed[*]} (inputs in $artifacts)" >&2
  exit 1
fi
