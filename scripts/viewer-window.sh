#!/usr/bin/env bash
# Runs the viewer's window test under a virtual X display (Xvfb, installed when
# missing) and keeps its last screenshot as viewer-window.png in the build
# directory. Not part of the default suite: it needs the extra package.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
"$root/scripts/install-deps.sh" display
cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" --target test_viewer -j2
BINOCULAR_WINDOW_TEST="$build/viewer-window.png" \
  xvfb-run -a -s "-screen 0 1280x720x24" "$build/tests/test_viewer" --gtest_filter='ViewerWindow.*'
echo "screenshot: $build/viewer-window.png"
