#!/usr/bin/env bash
# Builds in Release and runs every benchmark program; each compares a hot
# path with a baseline in the same run, so read the ratios.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
export BUILD_DIR="$root/build-release" BUILD_TYPE=Release
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" -DBINOCULAR_BUILD_TESTS=OFF
for b in "$BUILD_DIR"/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  "$b" --benchmark_repetitions="${REPS:-3}" --benchmark_report_aggregates_only=true 2>/dev/null | grep -E '_(median|mean) '
done
