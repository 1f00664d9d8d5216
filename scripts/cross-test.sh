#!/usr/bin/env bash
# Cross-builds the tree for AArch64 and runs the test suite under emulation:
#   scripts/cross-test.sh [extra cmake arguments]
# Makes the arm64 root first when it is missing (scripts/aarch64-root.sh; the
# root is $AARCH64_SYSROOT, else ~/.cache/binocular/aarch64-root), builds into
# build-aarch64/ (or $BUILD_DIR) with cmake/toolchain-aarch64.cmake, and runs
# ctest: every test program runs under qemu-aarch64-static, programs that the
# tests start as well. Tests labelled "timing" are left out (README.md).
# The tests that use the fixed queue keys and ports run in private IPC and
# network namespaces when this runs as root, so that other builds on the same
# machine neither disturb them nor are disturbed.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build-aarch64}"
export AARCH64_SYSROOT="${AARCH64_SYSROOT:-${XDG_CACHE_HOME:-$HOME/.cache}/binocular/aarch64-root}"

"$root/scripts/aarch64-root.sh" "$AARCH64_SYSROOT"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-aarch64.cmake" \
  -DAARCH64_SYSROOT="$AARCH64_SYSROOT" "$@" >/dev/null
cmake --build "$build" -j2

cd "$build"
start=$SECONDS
run=(ctest --output-on-failure -j2 --timeout 900 -LE timing)
if [ "$(id -u)" -eq 0 ] && command -v unshare >/dev/null; then
  unshare --ipc --net sh -c 'ip link set lo up && exec "$@"' sh "${run[@]}"
else
  "${run[@]}"
fi
echo "emulated suite: $((SECONDS - start)) s (left out: label timing)"
