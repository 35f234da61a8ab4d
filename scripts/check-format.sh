#!/usr/bin/env bash
# Every C++ file in git follows .clang-format. With --fix, reformats them instead.
# Usage: scripts/check-format.sh [--fix]
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.cc' '*.hpp')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
if ! clang-format --dry-run --Werror "${files[@]}"; then
  echo "check-format: the files above differ from .clang-format; run scripts/check-format.sh --fix" >&2
  exit 1
fi
echo "check-format: ${#files[@]} files follow .clang-format"
