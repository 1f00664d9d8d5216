#!/usr/bin/env bash
# End-to-end latency of the module: both pairs fed by camsim at 30 frames per
# second, the module loaded by tools/host, for each matcher (block matching,
# then the stereo-unit substitute): latency from a frame entering the queue
# to the callback carrying its distance (front: the demo's wall coming and
# going, so each report's distance names its frame; down: ground at 2 m) (median, 99th percentile, maximum),
# frames per second per pair, dropped frames, and a per-stage breakdown from
# the module's stage trace (BINOCULAR_STAGE_TRACE). See bench/latency-report.py
# for how reports pair with frames.
#   LATENCY_SECONDS   seconds per matcher (default 20)
#   LATENCY_MATCHERS  "bm unit" (default) or one of them
#   LATENCY_FPS       camera rate per pair (default 30)
#   LATENCY_RT=1      run cameras and module at real-time priority (chrt -f 10,
#                     root): the module as the machine's main work, as on the
#                     aircraft, so builds running beside it stay out of the figures
# Uses the tree in BUILD_DIR (default build/) as built; uses the fixed keys
# and ports, so it runs itself in private IPC and network namespaces when it
# can (as root with unshare and ip).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
[ -d "$build" ] && build="$(cd "$build" && pwd)"  # it stays valid after the cd below
seconds="${LATENCY_SECONDS:-20}"
fps="${LATENCY_FPS:-30}"
python=/usr/bin/python3

if [ -n "${LATENCY_RT:-}" ] && [ -z "${BINOCULAR_BENCH_RT:-}" ]; then
  export BINOCULAR_BENCH_RT=1
  exec chrt -f 10 bash "$0" "$@"
fi

source "$root/scripts/rig.sh"
rig_isolate BINOCULAR_BENCH_NS "$0" "$@"

work="$(mktemp -d /tmp/binocular-latency.XXXXXX)"
set -m
pids=()
cleanup() {
  local status=$?
  trap - EXIT INT TERM
  for pid in "${pids[@]}"; do kill -TERM -- "-$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rig_remove_ipc
  [ -n "${LATENCY_KEEP:-}" ] || rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

status=0
for matcher in ${LATENCY_MATCHERS:-bm unit}; do
  case "$matcher" in
    bm) value=1 ;;
    unit) value=0 ;;
    *) echo "latency: unknown matcher $matcher (bm or unit)" >&2; exit 2 ;;
  esac
  run="$work/$matcher"
  export BINOCULAR_ROOT="$run" BINOCULAR_STAGE_TRACE="$run/stages"
  mkdir -p "$run/stages"
  rig_root "$run" "$root" "$build" "$value" "$value"
  cd "$run"  # the module writes its debug file test.yuv into the working directory
  pids=()
  "$build/tools/camsim" "${FRONT_RIG[@]}" --no-calib --fps "$fps" --distance 15 --min-distance 2 --speed 1.5 \
    --bounce --step 0.05 >"$run/camsim-front.log" 2>&1 &
  pids+=("$!")
  # The down camera runs 0.2 % slow: the two cameras' relative phase then
  # sweeps a whole frame period every 17 s at 30 frames/s, so the figures
  # cover every way the pairs' frames can fall together, not one chance phase.
  "$build/tools/camsim" "${DOWN_RIG[@]}" --no-calib --fps "$(awk -v f="$fps" 'BEGIN { print f * 0.998 }')" \
    --distance 0 --background 2 >"$run/camsim-down.log" 2>&1 &
  pids+=("$!")
  "$build/tools/host" --json --no-distances --seconds 1 >/dev/null 2>&1 </dev/null || true  # warms the page cache
  "$build/tools/host" --json --seconds "$seconds" >"$run/host.jsonl" 2>"$run/module.log"
  # The cameras stop after the host, so their counts cover every frame the module saw.
  for pid in "${pids[@]}"; do kill -TERM -- "-$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  pids=()
  rig_remove_ipc
  label="$matcher: both pairs at $fps frames/s for $seconds s, $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
  [ -z "${BINOCULAR_BENCH_RT:-}" ] || label+=", real-time priority"
  "$python" "$root/bench/latency-report.py" --root "$run" --host "$run/host.jsonl" --stages "$run/stages" \
    --camsim-log "front=$run/camsim-front.log" --camsim-log "down=$run/camsim-down.log" --label "$label" ||
    status=1
done
exit "$status"
