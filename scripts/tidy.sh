#!/usr/bin/env bash
# clang-tidy (.clang-tidy) over the library and the tool: every translation unit of src/ and
# tools/ in the build's compile_commands.json, two at a time. Any finding fails.
# Usage: scripts/tidy.sh [build-dir]   (default build/default; configure it first)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/default}
if [ ! -f "$build/compile_commands.json" ]; then
  echo "tidy: $build/compile_commands.json not found; configure the build first" >&2
  exit 2
fi
jobs=${QLT_TIDY_JOBS:-2}
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
run-clang-tidy -quiet -p "$build" -j "$jobs" "$PWD/(src|tools)/" >"$log" 2>&1 || status=$?
grep -v -E '^[0-9]+ warnings? generated|^Suppressed [0-9]+ warnings|^Use -header-filter|^$' "$log" || true
if [ $status -ne 0 ]; then
  echo "tidy: findings above" >&2
  exit 1
fi
echo "tidy: clean"
