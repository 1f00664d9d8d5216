#!/usr/bin/env bash
# Builds the libFuzzer targets with clang + ASan/UBSan and runs each one for
# FUZZ_SECONDS (default 60), two at a time (one per core). A crash fails the
# run and leaves its input in build-fuzz/; each target's output is in
# build-fuzz/fuzz-logs/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-fuzz"
"$root/scripts/install-deps.sh" clang libclang-rt-14-dev
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DBINOCULAR_BUILD_FUZZ=ON -DBINOCULAR_SANITIZE=address \
  -DBINOCULAR_BUILD_TESTS=OFF -DBINOCULAR_BUILD_BENCH=OFF -DBINOCULAR_BUILD_TOOLS=ON >/dev/null
cmake --build "$build" -j2
cd "$build"
mkdir -p fuzz-logs
run() {
  local name
  name="$(basename "$1")"
  if "./$1" -max_total_time="${FUZZ_SECONDS:-60}" -print_final_stats=1 >"fuzz-logs/$name.log" 2>&1; then
    echo "== $name: $(grep -E 'stat::number_of_executed_units' "fuzz-logs/$name.log" | awk '{print $2}') runs, no finding"
  else
    echo "== $name: FAILED"
    tail -n 40 "fuzz-logs/$name.log"
    return 1
  fi
}
failed=0
running=0
for f in fuzz/fuzz_*; do
  [ -f "$f" ] && [ -x "$f" ] || continue
  run "$f" &
  running=$((running + 1))
  if [ "$running" -ge 2 ]; then
    wait -n || failed=1
    running=$((running - 1))
  fi
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done
exit "$failed"
