#!/usr/bin/env bash
# check_exports.sh <library> <name>...
# Passes only when the library's dynamic symbol table defines every named
# function and nothing else: a missing entry point and a leaked symbol both fail.
set -euo pipefail
lib="$1"; shift
defined="$(nm -D --defined-only "$lib" | awk '$3 !~ /^(_edata|_end|__bss_start|_init|_fini)$/ {print $2, $3}')"
bad=0
for name in "$@"; do
  if ! grep -qx "[TWi] $name" <<<"$defined"; then
    echo "missing export: $name"
    bad=1
  fi
done
allowed=" $* "
while read -r type name; do
  [ -n "$name" ] || continue
  case "$allowed" in *" $name "*) ;; *) echo "unexpected export: $name ($type)"; bad=1 ;; esac
done <<<"$defined"
exit $bad
