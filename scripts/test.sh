#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
# Extra arguments go to cmake, e.g. -DBINOCULAR_SANITIZE=thread (use another
# BUILD_DIR for that, or scripts/sanitize.sh).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
"$root/scripts/install-deps.sh" plot  # plot: the record plot and the demo's report
BUILD_DIR="$build" "$root/scripts/build.sh" "$@"
cd "$build"
ctest --output-on-failure -j2 --timeout 600
