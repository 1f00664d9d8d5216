#!/usr/bin/env bash
# Configures and builds the tree into build/ (or $BUILD_DIR), passing any
# extra arguments to cmake, e.g. -DBINOCULAR_SANITIZE=address.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
cmake --build "$build" -j2
