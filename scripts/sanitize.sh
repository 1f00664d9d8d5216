#!/usr/bin/env bash
# Builds and runs the whole suite under a sanitizer set:
#   scripts/sanitize.sh address   # AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/sanitize.sh thread    # ThreadSanitizer
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
kind="${1:-address}"
case "$kind" in address|thread) ;; *) echo "usage: $0 address|thread" >&2; exit 2 ;; esac
export BUILD_DIR="$root/build-$kind"
# Debug keeps assertions on; -O2 keeps the pipeline near its real frame rate
# (vector intrinsics at -O0 are function calls), so end-to-end tests see the
# same ordering of events as in production.
export BUILD_TYPE=Debug
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
# OpenCV, TBB and Qt are not instrumented: the hand-offs between TBB's
# threads are invisible, so a libc call such a library makes (memcpy, malloc,
# free) on a pool thread can look like a race with the thread that handed the
# work over. ignore_noninstrumented_modules drops only those calls; every
# access made by our own code is still checked.
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1}"
exec "$root/scripts/test.sh" -DBINOCULAR_SANITIZE="$kind" -DBINOCULAR_BUILD_BENCH=OFF \
  "-DCMAKE_CXX_FLAGS_DEBUG=-g -O2" "-DCMAKE_C_FLAGS_DEBUG=-g -O2"
