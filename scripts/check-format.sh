#!/usr/bin/env bash
# Fails, naming the files, when a tracked C++ source (*.cc, *.h) is not what
# clang-format writes under .clang-format; `make format` fixes them. CI runs
# it before any build. Debian 12's clang-format (14) is the reference: other
# versions may format a few constructs differently.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v clang-format >/dev/null 2>&1; then
  echo "kelp: clang-format is missing; scripts/install-deps.sh installs it" >&2
  exit 1
fi
listing=$(git ls-files '*.cc' '*.h')
mapfile -t files <<<"$listing"
if [ -z "$listing" ]; then
  echo "kelp: git lists no *.cc or *.h files to check" >&2
  exit 1
fi
# One run over every file; each complaint starts with the file's name.
if report=$(clang-format --dry-run --Werror "${files[@]}" 2>&1); then
  exit 0
fi
mapfile -t unformatted < <(sed -n 's/^\(.*\):[0-9]*:[0-9]*: error: code should be clang-formatted.*/\1/p' \
  <<<"$report" | sort -u)
if [ ${#unformatted[@]} -eq 0 ]; then
  # Not a formatting verdict (an unreadable .clang-format, say): show it all.
  printf '%s\n' "$report" >&2
  exit 1
fi
echo "kelp: ${#unformatted[@]} file(s) not formatted; run 'make format' and commit:" >&2
printf '  %s\n' "${unformatted[@]}" >&2
exit 1
