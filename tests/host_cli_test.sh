#!/usr/bin/env bash
# The host tool's command line, without starting the module: help, refused
# options and profiles with their exit status and reason, a library that
# cannot be loaded. Usage: host_cli_test.sh [EMULATOR ARGS...] HOST
set -euo pipefail
host=("$@")
scratch="$(mktemp -d /tmp/host-cli-test.XXXXXX)"
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failures=0
printf '0 sensing on\n1 speed 1 2 3 4\n' >bad.profile
printf 'every 1 version\n' >good.profile
cases=(
  "0|Profile: one command per line|--help"
  "0|0    sensing on|--print-profile --ignored"
  "2|unknown option --bogus|--bogus"
  "2|--seconds needs a value|--seconds"
  "2|--seconds takes a number > 0|--seconds 0"
  "2|--state-hz takes a number 0.1..200|--state-hz 500"
  "2|cannot read profile missing.profile|--profile missing.profile"
  "2|bad.profile: line 2: 'speed' takes 1 to 3|--profile bad.profile"
  "1|cannot load /nonexistent/libbinocular.so|--library /nonexistent/libbinocular.so --profile good.profile"
)
for case in "${cases[@]}"; do
  IFS='|' read -r status text args <<<"$case"
  got=0
  # shellcheck disable=SC2086
  "${host[@]}" $args >out.txt 2>&1 || got=$?
  if [ "$got" -ne "$status" ] || ! grep -qF -- "$text" out.txt; then
    echo "FAIL: host $args: exit $got (expected $status), output: $(cat out.txt)" >&2
    failures=$((failures + 1))
  fi
done
[ "$failures" -eq 0 ] || exit 1
echo "host command line: ok"
