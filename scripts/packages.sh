#!/usr/bin/env bash
# Makes the Debian packages of a build and checks them:
#   scripts/packages.sh [BUILD_DIR]    (default: build/)
# The build must be configured and built (scripts/build.sh, or
# scripts/cross-test.sh for build-aarch64/). Packages land in BUILD_DIR/packages.
#   amd64: apt-get resolves the three packages' dependencies against this
#          machine's archive (simulated, nothing is installed), and every ELF
#          file, unpacked into a scratch directory, finds all its libraries.
#   arm64: the packages are unpacked into the arm64 root (AARCH64_SYSROOT of
#          the build) and the arm64 dynamic loader under emulation (--list)
#          finds every library of each ELF file there.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build}" && pwd)"
out="$build/packages"
rm -rf "$out"
mkdir -p "$out"
(cd "$build" && cpack -G DEB -B "$out" >"$out/cpack.log") || { cat "$out/cpack.log"; exit 1; }
rm -rf "$out/_CPack_Packages"
mapfile -t debs < <(ls "$out"/*.deb)
for deb in "${debs[@]}"; do
  printf '%s  %s\n' "$(du -h "$deb" | cut -f1)" "$(basename "$deb")"
  dpkg-deb -f "$deb" Package Architecture Depends Provides Conflicts Replaces | sed 's/^/    /'
done

arch="$(dpkg-deb -f "${debs[0]}" Architecture)"
failed=0
elf_files() { # <dir>: the ELF files below it
  find "$1" -type f | while read -r f; do
    if head -c 4 "$f" | grep -q $'^\x7fELF'; then echo "$f"; fi
  done
}
if [ "$arch" = "$(dpkg --print-architecture)" ]; then
  apt-get install -s -qq "${debs[@]}" >"$out/apt-simulate.log" ||
    { cat "$out/apt-simulate.log"; exit 1; }
  echo "apt-get: the dependencies of ${#debs[@]} packages resolve"
  scratch="$out/unpacked"
  for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$scratch"; done
  while read -r f; do
    if LD_LIBRARY_PATH="$scratch/usr/lib" ldd "$f" | grep "not found"; then
      echo "unresolved libraries: $f" >&2
      failed=1
    fi
  done < <(elf_files "$scratch")
else
  sysroot="$(sed -n 's/^AARCH64_SYSROOT:[A-Z]*=//p' "$build/CMakeCache.txt")"
  [ -d "$sysroot" ] || { echo "no arm64 root in $build/CMakeCache.txt" >&2; exit 1; }
  scratch="$out/unpacked"
  for deb in "${debs[@]}"; do
    dpkg-deb -x "$deb" "$scratch"
    dpkg-deb -x "$deb" "$sysroot"
  done
  while read -r f; do
    in_root="$sysroot/${f#"$scratch"/}"
    listing="$(qemu-aarch64-static -L "$sysroot" "$sysroot/lib/ld-linux-aarch64.so.1" --list "$in_root")"
    if grep -q "not found" <<<"$listing" || [ -z "$listing" ]; then
      echo "unresolved libraries: $in_root" >&2
      echo "$listing" >&2
      failed=1
    fi
  done < <(elf_files "$scratch")
fi
[ "$failed" -eq 0 ] && echo "every library of the ${arch} packages' programs and libraries resolves"
exit "$failed"
