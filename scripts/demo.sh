#!/usr/bin/env bash
# The module's demo: installs and builds what is missing, then runs the
# module as the aircraft runs it, for DEMO_SECONDS (default 20):
#   - a temporary BINOCULAR_ROOT (DEMO_ROOT to choose it) with the front pair on
#     the stereo-unit substitute and the down pair on block matching, the
#     simulator's calibration and the record counter;
#   - camsim per pair: front, a wall coming from 15 m to 2 m at 1.5 m/s and
#     going back, over and over; down, the ground at 2 m;
#   - tools/host loading libbinocular.so and flying a profile (at the wall at
#     1.5 m/s while it comes, hovering while it goes), tools/viewer attached
#     to the front stream, writing snapshots;
#   - one line a second: reported against true distances, report rates,
#     camera status; at the end a summary and where the records, raw images,
#     snapshots and plots are.
# Ctrl-C at any moment stops every process it started and removes the
# queues' System V objects. As root with unshare and ip available it runs in
# private IPC and network namespaces, so its fixed queue keys and ports meet
# nobody else's.
#   DEMO_NO_BUILD=1  use the tree already built in BUILD_DIR (tests do)
#   DEMO_SNAPSHOT_EVERY=N  a viewer snapshot every N-th front frame (default 10)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
seconds="${DEMO_SECONDS:-20}"
python=/usr/bin/python3

if [ -z "${DEMO_NO_BUILD:-}" ]; then
  "$root/scripts/install-deps.sh" plot iproute2
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" >/dev/null
  echo "building the module and its tools (a few minutes the first time)..."
  cmake --build "$build" -j2 --target binocular camsim viewer host >/dev/null
  export DEMO_NO_BUILD=1
fi

source "$root/scripts/rig.sh"
rig_isolate BINOCULAR_DEMO_NS "$0" "$@"

[ -d "$build" ] && build="$(cd "$build" && pwd)"  # it stays valid after the cd below
for program in tools/camsim tools/viewer tools/host; do
  if [ ! -x "$build/$program" ]; then
    echo "demo: $build/$program is missing; run without DEMO_NO_BUILD to build it" >&2
    exit 1
  fi
done

demo_root="${DEMO_ROOT:-$(mktemp -d /tmp/binocular-demo.XXXXXX)}"
mkdir -p "$demo_root"
demo_root="$(cd "$demo_root" && pwd)"
export BINOCULAR_ROOT="$demo_root"
out="$demo_root/demo"
mkdir -p "$out/snapshots" "$out/plots"

# Every process started here gets a process group of its own (job control),
# so the cleanup ends each whole group, and only those.
set -m
pids=()
cleanup() {
  local status=$?
  trap - EXIT INT TERM HUP
  for pid in "${pids[@]}"; do kill -TERM -- "-$pid" 2>/dev/null || true; done
  for _ in $(seq 30); do
    local alive=0
    for pid in "${pids[@]}"; do kill -0 "$pid" 2>/dev/null && alive=1; done
    [ "$alive" -eq 0 ] && break
    sleep 0.1
  done
  for pid in "${pids[@]}"; do kill -KILL -- "-$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  # The queue segments and their lock semaphore sets (key, key + 1, key + 2).
  rig_remove_ipc
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

start() { # start <log> <command...>: in the background, its pid in $pids
  local log="$1"
  shift
  "$@" >"$log" 2>&1 &
  pids+=("$!")
}

# The documented configuration with sensing on, the front pair on the
# stereo-unit substitute, the down pair on block matching, raw images once a
# second at 30 frames per second; both rigs' calibration.
rig_root "$demo_root" "$root" "$build" 0 1 1 30

cat >"$out/flight.profile" <<'PROFILE'
# The demo's flight: at the wall at 1.5 m/s while it comes (8.667 s), hovering
# while it goes back (8.667 s), over and over; a version request every 5 s.
0 sensing on
0 armed 1
0 height 2.0
0 pitch 0
every 17.333 from 0     speed 1.5 0 0
every 17.333 from 8.667 speed 0 0 0
every 5 from 1 version
PROFILE

cd "$out"  # the module writes its debug file test.yuv into the working directory
start "$out/camsim-front.log" "$build/tools/camsim" "${FRONT_RIG[@]}" --no-calib --fps 30 --distance 15 \
  --min-distance 2 --speed 1.5 --bounce --step 0.05 --truth "$out/truth-front.txt"
start "$out/camsim-down.log" "$build/tools/camsim" "${DOWN_RIG[@]}" --no-calib --fps 30 --distance 0 \
  --background 2 --truth "$out/truth-down.txt"
"$build/tools/host" --json --seconds "$seconds" --profile "$out/flight.profile" \
  >"$out/host.jsonl" 2>"$out/module.log" &
host_pid=$!
pids+=("$host_pid")
start "$out/viewer.log" "$build/tools/viewer" --port 8883 --no-window --snapshot "$out/snapshots" \
  --every "${DEMO_SNAPSHOT_EVERY:-10}"
report() {
  "$python" "$root/scripts/demo-report.py" "$1" --root "$demo_root" --host "$out/host.jsonl" \
    --truth-front "$out/truth-front.txt" --truth-down "$out/truth-down.txt" "${@:2}"
}
echo "demo: $seconds s, root $demo_root (Ctrl-C stops it cleanly)"
report live --pid "$host_pid" &
live_pid=$!
pids+=("$live_pid")
host_status=0
wait "$host_pid" || host_status=$?
wait "$live_pid" 2>/dev/null || true
# The cameras and the viewer stop before the files are read.
for pid in "${pids[@]}"; do kill -TERM -- "-$pid" 2>/dev/null || true; done
wait 2>/dev/null || true
if [ "$host_status" -ne 0 ]; then
  echo "demo: the host tool failed ($host_status); see $out/module.log" >&2
  exit 1
fi
report summary
for pair in front down; do
  mapfile -t records < <(ls "$demo_root/data/log/${pair}Bino/"*.log 2>/dev/null)
  if [ "${#records[@]}" -gt 0 ]; then
    "$python" "$root/scripts/plot-record.py" --truth "$out/truth-$pair.txt" --title "$pair pair, demo" \
      -o "$out/plots/$pair.png" "${records[@]}" >/dev/null
  fi
done
echo "files:"
echo "  records:    $demo_root/data/log/frontBino/ $demo_root/data/log/downBino/ (*.log)"
echo "  raw images: $demo_root/data/log/*Bino/*/gray_*_left.yuv, _right.yuv"
echo "  snapshots:  $out/snapshots/"
echo "  plots:      $out/plots/front.png $out/plots/down.png"
echo "  host, module and camera logs, truth: $out/"
