#!/usr/bin/env bash
# Lines of test code against the other C/C++ lines of the repository, as docs/testing.md
# reports them: lines that are neither blank nor only a // comment, in tests/ and in every
# other folder (effect, hostsim, cli, common, sdk, bench, fuzz).
#
#   scripts/test-share.sh [COMMIT]      default: the working tree
set -euo pipefail
cd "$(dirname "$0")/.."
commit=${1:-}
count() {
  local files
  local which=$1 files
  if [ -n "$commit" ]; then
    files=$(git ls-tree -r --name-only "$commit")
  else
    files=$(git ls-files)
  fi
  files=$(grep -E '\.(cpp|h)$' <<<"$files" | grep -E "$which" || true)
  for f in $files; do
    if [ -n "$commit" ]; then git show "$commit:$f"; else cat "$f"; fi
  done | grep -Evc '^[[:space:]]*(//.*)?$'
}
tests=$(count '^tests/')
code=$(count '^[^t]|^t[^e]')
awk -v t="$tests" -v c="$code" 'BEGIN { printf "%d test lines / %d code lines (%.2f)\n", t, c, t / c }'
