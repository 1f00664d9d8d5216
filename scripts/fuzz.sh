#!/usr/bin/env bash
# Builds the libFuzzer targets with clang + ASan/UBSan and runs each one for
# FUZZ_SECONDS (default 60). A crash leaves its input in build-fuzz/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-fuzz"
"$root/scripts/install-deps.sh" clang libclang-rt-14-dev
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DBINOCULAR_BUILD_FUZZ=ON -DBINOCULAR_SANITIZE=address \
  -DBINOCULAR_BUILD_TESTS=OFF -DBINOCULAR_BUILD_BENCH=OFF -DBINOCULAR_BUILD_TOOLS=ON >/dev/null
cmake --build "$build" -j2
cd "$build"
for f in fuzz/fuzz_*; do
  [ -x "$f" ] || continue
  echo "== $f"
  "./$f" -max_total_time="${FUZZ_SECONDS:-60}" -print_final_stats=1 2>&1 | tail -n 4
done
