#!/usr/bin/env bash
# Formats every C++ source of ours with the root .clang-format.
#   scripts/format.sh          rewrite the files in place
#   scripts/format.sh --check  change nothing; fail on the first difference
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
"$root/scripts/install-deps.sh" clang-format
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--check" ]; then
  clang-format --dry-run -Werror "${files[@]}"
  echo "format: ${#files[@]} files clean"
else
  clang-format -i "${files[@]}"
fi
