#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the tools need,
# plus the packages named as arguments (e.g. clang for the fuzz build);
# "display" names a virtual X server (to watch the viewer's window on a
# machine without a screen: xvfb-run tools/viewer ...), "plot" the Python plotting library of the record plots (scripts/plot-record.py),
# "cross" the AArch64 cross compiler, the user-mode emulator and the root maker.
# Quiet and quick when everything is already there. Needs root (or sudo).
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libopencv-dev
  libgtest-dev libgmock-dev
  libbenchmark-dev
)
for extra in "$@"; do
  case "$extra" in
    display) packages+=(xvfb xauth) ;;
    plot) packages+=(python3 python3-matplotlib) ;;
    cross) packages+=(g++-aarch64-linux-gnu qemu-user-static mmdebstrap dpkg-dev file) ;;
    *) packages+=("$extra") ;;
  esac
done
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "Installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
