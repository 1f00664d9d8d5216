#!/usr/bin/env bash
# Fails when a shared library exports a defined dynamic symbol other than the
# names given: check_exports.sh <library> <allowed name>...
set -euo pipefail
lib="$1"; shift
allowed=" $* "
bad=0
while read -r name; do
  case "$allowed" in *" $name "*) ;; *) echo "unexpected export: $name"; bad=1 ;; esac
done < <(nm -D --defined-only "$lib" | awk '$2 ~ /^[TWVDBRiu]$/ && $3 !~ /^(_edata|_end|__bss_start)$/ {print $3}')
exit $bad
