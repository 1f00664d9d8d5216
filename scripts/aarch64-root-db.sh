#!/usr/bin/env bash
# mmdebstrap customize hook of scripts/aarch64-root.sh: records every package
# unpacked into the root ($1) in the root's dpkg database (status, file lists,
# shlibs and symbols files), as dpkg would have after installing it. Nothing
# runs inside the root. dpkg-shlibdeps reads this database to compute the
# arm64 packages' dependencies.
set -euo pipefail
root="$1"
info="$root/var/lib/dpkg/info"
mkdir -p "$info"
# Layout 1: the files of a Multi-Arch: same package are named pkg:arch.*.
echo 1 >"$info/format"
status="$root/var/lib/dpkg/status"
: >"$status"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
for deb in "$root"/var/cache/apt/archives/*.deb; do
  pkg="$(dpkg-deb -f "$deb" Package)"
  name="$pkg"
  if [ "$(dpkg-deb -f "$deb" Multi-Arch)" = same ]; then
    name="$pkg:$(dpkg-deb -f "$deb" Architecture)"
  fi
  {
    dpkg-deb -f "$deb" | sed '/^Status:/d' | awk 'NR == 1 { print; print "Status: install ok installed"; next } { print }'
    echo
  } >>"$status"
  dpkg-deb --fsys-tarfile "$deb" | tar -t | sed -e 's|^\./|/|' -e 's|/$||' -e 's|^$|/.|' >"$info/$name.list"
  rm -rf "$work/ctl"
  dpkg-deb -e "$deb" "$work/ctl"
  for f in shlibs symbols; do
    if [ -f "$work/ctl/$f" ]; then cp "$work/ctl/$f" "$info/$name.$f"; fi
  done
done
