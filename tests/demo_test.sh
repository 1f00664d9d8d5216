#!/usr/bin/env bash
# The demo on the tree already built, in its short mode (no install, no build).
#   demo_test.sh SOURCE_DIR BUILD_DIR short      ends with its summary, both pairs
#       reported and recorded, every file it names present, nothing left behind
#   demo_test.sh SOURCE_DIR BUILD_DIR interrupt  SIGINT while it runs: exits
#       promptly, leaves no process and no System V object behind
# Runs in a scratch directory that is removed afterwards.
set -euo pipefail
source_dir="$1"
build_dir="$2"
mode="$3"
scratch="$(mktemp -d /tmp/demo-test.XXXXXX)"
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
# The demo stays in the caller's namespaces (the suite's lock guards the fixed keys and
# ports), so the checks below see its System V objects if any survived.
export DEMO_NO_BUILD=1 BUILD_DIR="$build_dir" DEMO_ROOT="$scratch/root" BINOCULAR_DEMO_NS=1

fail() {
  echo "FAIL: $*" >&2
  [ -f out.txt ] && cat out.txt >&2
  # A sanitizer's report lands in the log of the program it stopped.
  grep -h -A60 -E '^(WARNING: ThreadSanitizer|==[0-9]+==ERROR|.*runtime error:)' root/demo/*.log 2>/dev/null | head -200 >&2 || true
  exit 1
}

# Nothing of the demo may survive it: its processes all carry a path below
# the scratch root, and the queues' keys are 9990 (0x2706) and 9991 (0x2707).
nothing_left() {
  local survivors
  survivors="$(pgrep -af -- "$scratch/root" || true)"
  [ -z "$survivors" ] || fail "processes left: $survivors"
  if ipcs -m -s | grep -qiE '0x0000270[6-9]'; then
    fail "System V objects of the queues left: $(ipcs -m -s | grep -iE '0x0000270[6-9]')"
  fi
}

case "$mode" in
  short)
    DEMO_SECONDS="${DEMO_TEST_SECONDS:-4}" DEMO_SNAPSHOT_EVERY=2 timeout 180 bash "$source_dir/scripts/demo.sh" >out.txt 2>&1 || fail "demo exited $?"
    grep -q '^summary' out.txt || fail "no summary"
    for pair in front down; do
      grep -qE "^  $pair +reports [1-9][0-9]*, record lines [1-9][0-9]*, frames sent [1-9][0-9]*, paired [1-9]" out.txt ||
        fail "$pair: no reports, records or paired frames in the summary"
      grep -A1 -E "^  $pair +reports" out.txt | grep -q 'error median' || fail "$pair: no error figures"
    done
    live_lines="$(grep -cE '^ *[0-9.]+ s \| front ' out.txt || true)"
    [ "$live_lines" -ge 2 ] || fail "expected a live line a second, got $live_lines"
    grep -q '^files:' out.txt || fail "no list of files"
    compgen -G "root/data/log/frontBino/*.log" >/dev/null || fail "no front record file"
    compgen -G "root/data/log/downBino/*.log" >/dev/null || fail "no down record file"
    compgen -G "root/data/log/*Bino/*/gray_*_left.yuv" >/dev/null || fail "no raw images"
    compgen -G "root/demo/snapshots/*.png" >/dev/null || fail "no viewer snapshot"
    for plot in root/demo/plots/front.png root/demo/plots/down.png; do
      [ -s "$plot" ] || fail "no plot $plot"
      grep -qF "$scratch/$plot" out.txt || fail "$plot is not named"
    done
    nothing_left
    ;;
  interrupt)
    # With job control the demo does not start with SIGINT ignored, as a
    # background job of a script otherwise would: it gets the signal as a
    # terminal's Ctrl-C delivers it.
    set -m
    DEMO_SECONDS=60 bash "$source_dir/scripts/demo.sh" >out.txt 2>&1 &
    demo=$!
    # Interrupt once the module is running (its first live line), at most 60 s on.
    for _ in $(seq 600); do
      grep -qE '^ *[0-9.]+ s \| front ' out.txt && break
      kill -0 "$demo" 2>/dev/null || fail "demo ended before it was interrupted"
      sleep 0.1
    done
    kill -INT "$demo"
    status=0
    for _ in $(seq 100); do
      kill -0 "$demo" 2>/dev/null || break
      sleep 0.1
    done
    if kill -0 "$demo" 2>/dev/null; then
      kill -KILL "$demo"
      fail "demo still running 10 s after SIGINT"
    fi
    wait "$demo" || status=$?
    [ "$status" -eq 130 ] || fail "demo exited $status after SIGINT, expected 130"
    nothing_left
    ;;
  *)
    echo "usage: $0 SOURCE_DIR BUILD_DIR short|interrupt" >&2
    exit 2
    ;;
esac
echo "demo $mode: ok"
