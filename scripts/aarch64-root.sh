#!/usr/bin/env bash
# Makes the arm64 Debian 12 root that the cross build compiles against and
# that qemu-aarch64-static runs the tests in:
#   scripts/aarch64-root.sh [DIR]
# DIR defaults to $AARCH64_SYSROOT, else ~/.cache/binocular/aarch64-root
# (outside the work tree: the root is about 1 GiB).
#
# No arm64 program runs while the root is made: mmdebstrap's "extract" variant
# downloads the packages below with their dependencies and unpacks them with
# dpkg-deb, no maintainer script runs, and no binfmt_misc handler or foreign
# architecture is added to this machine. Absolute symbolic links inside the
# root are then made relative, so that the cross linker and the emulator
# resolve them inside the root rather than on this machine. Packages that the
# arm64 Debian packages' dependencies are read from get a small dpkg database
# (status, file lists, shlibs and symbols) under the root's /var/lib/dpkg.
#
# Idempotent: when the root exists and was made from the same package list,
# the script only says so. AARCH64_MIRROR overrides the Debian mirror.
set -euo pipefail
repo="$(cd "$(dirname "$0")/.." && pwd)"
dir="${1:-${AARCH64_SYSROOT:-${XDG_CACHE_HOME:-$HOME/.cache}/binocular/aarch64-root}}"
mirror="${AARCH64_MIRROR:-http://deb.debian.org/debian}"
security="${AARCH64_SECURITY_MIRROR:-http://deb.debian.org/debian-security}"

packages=(
  libc6-dev libstdc++-12-dev
  libopencv-dev
  libgtest-dev libgmock-dev
  libbenchmark-dev
)
stamp_text="bookworm arm64 ${packages[*]}"
stamp="$dir/.binocular-root"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$stamp_text" ]; then
  echo "arm64 root ready: $dir"
  exit 0
fi

"$repo/scripts/install-deps.sh" cross
case "$dir" in
  "$repo"/*) echo "warning: $dir is inside the work tree; keep it out of commits" >&2 ;;
esac

start=$SECONDS
mkdir -p "$(dirname "$dir")"
dir="$(realpath -m "$dir")"
tmp="$dir.tmp"
rm -rf "$tmp"
# The extract hook runs while the downloaded packages are still there: it
# records each unpacked package in the root's dpkg database.
mmdebstrap --variant=extract --architectures=arm64 --mode=auto \
  --include="$(IFS=,; echo "${packages[*]}")" \
  --extract-hook="'$repo/scripts/aarch64-root-db.sh' \"\$1\"" \
  bookworm "$tmp" \
  "deb $mirror bookworm main" \
  "deb $mirror bookworm-updates main" \
  "deb $security bookworm-security main"

# Absolute links (e.g. lib/aarch64-linux-gnu/libz.so -> /lib/...) would point
# at this machine's files once seen from outside the root.
find "$tmp" -type l -lname '/*' -print0 |
  while IFS= read -r -d '' link; do
    # The link's directory as the kernel sees it, the target as written.
    linkdir="$(realpath "$(dirname "$link")")"
    ln -sfn "$(realpath -m -s --relative-to="$linkdir" "$tmp$(readlink "$link")")" "$link"
  done

# The BLAS and LAPACK that OpenCV links are chosen by update-alternatives in
# the packages' postinst scripts, which did not run: link the one provider.
for alt in blas lapack; do
  ln -sfn "$alt/lib$alt.so.3" "$tmp/usr/lib/aarch64-linux-gnu/lib$alt.so.3"
done

echo "$stamp_text" >"$tmp/.binocular-root"
rm -rf "$dir"
mv "$tmp" "$dir"
echo "arm64 root made in $((SECONDS - start)) s: $dir ($(du -sh "$dir" | cut -f1))"
