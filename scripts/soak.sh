#!/usr/bin/env bash
# Soak test of the module (not in the default suite): both pairs run for
# SOAK_SECONDS (default 300) under tools/host while
#   - each camera simulator is stopped and started again (every 45 s, the
#     down one offset by 20 s),
#   - a viewer connects for a while and leaves, front and down in turn (every 20 s),
#   - the host switches sensing off for 5 s every 60 s (from 30 s on).
# Then it prints and checks:
#   - resident memory of the host process (module included) after the
#     warm-up (SOAK_WARMUP, default 60 s) and at the end: under 5 % growth;
#   - reports received against frames processed, per pair (processed frames
#     from the pipeline's stage trace): none lost (at most 2 in flight when
#     the host stops);
#   - record lines against frames processed: none lost (at most 1 in flight);
#   - crashes: the host alive to the end and exiting 0, no camera simulator
#     or viewer dying of a signal.
# Exits 1 when a check fails. Uses the tree in BUILD_DIR as built; runs in
# private IPC and network namespaces when it can (root, unshare, ip). Keeps
# its files in SOAK_DIR (default: a new /tmp/binocular-soak.* directory).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
[ -d "$build" ] && build="$(cd "$build" && pwd)"  # it stays valid after the cd below
seconds="${SOAK_SECONDS:-300}"
warmup="${SOAK_WARMUP:-60}"
python=/usr/bin/python3

source "$root/scripts/rig.sh"
rig_isolate BINOCULAR_SOAK_NS "$0" "$@"
if [ "$warmup" -ge "$seconds" ]; then
  echo "soak: SOAK_WARMUP ($warmup) must be shorter than SOAK_SECONDS ($seconds)" >&2
  exit 2
fi

soak="${SOAK_DIR:-$(mktemp -d /tmp/binocular-soak.XXXXXX)}"
mkdir -p "$soak"
soak="$(cd "$soak" && pwd)"
export BINOCULAR_ROOT="$soak/root" BINOCULAR_STAGE_TRACE="$soak/stages"
mkdir -p "$soak/stages" "$soak/logs"

set -m
pids=()
cleanup() {
  local status=$?
  trap - EXIT INT TERM HUP
  for pid in "${pids[@]}"; do kill -TERM -- "-$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rig_remove_ipc
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

rig_root "$BINOCULAR_ROOT" "$root" "$build" 0 1
cat >"$soak/flight.profile" <<'PROFILE'
0 sensing on
0 armed 1
0 height 2
0 speed 1.5 0 0
every 60 from 30 sensing off
every 60 from 35 sensing on
every 10 version
PROFILE

crashes=0
note_exit() { # note_exit <what> <status>: a death by signal (> 128, not our TERM) is a crash
  if [ "$2" -gt 128 ] && [ "$2" -ne 143 ]; then
    echo "soak: $1 died with status $2" >&2
    crashes=$((crashes + 1))
  fi
}
declare -A camera_pid viewer_pid
start_camera() {
  local pair="$1" rig
  if [ "$pair" = front ]; then rig=("${FRONT_RIG[@]}" --distance 15 --min-distance 2 --speed 1.5 --bounce --step 0.05)
  else rig=("${DOWN_RIG[@]}" --distance 0 --background 2); fi
  "$build/tools/camsim" "${rig[@]}" --no-calib --fps 30 >>"$soak/logs/camsim-$pair.log" 2>&1 &
  camera_pid[$pair]=$!
  pids+=("$!")
}
stop_camera() {
  local pair="$1" status=0
  kill -TERM "${camera_pid[$pair]}" 2>/dev/null || true
  wait "${camera_pid[$pair]}" || status=$?
  note_exit "camsim $pair" "$status"
}
rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status" 2>/dev/null || echo 0; }

cd "$soak"  # the module writes its debug file test.yuv into the working directory
start_camera front
start_camera down
# The host runs on past the end; it is stopped once its memory is measured.
"$build/tools/host" --json --seconds "$((seconds + 60))" --profile "$soak/flight.profile" \
  >"$soak/host.jsonl" 2>"$soak/logs/module.log" &
host_pid=$!
pids+=("$host_pid")
echo "soak: $seconds s in $soak (warm-up $warmup s)"

rss_warm=0
elapsed=0
viewer_turn=0
while [ "$elapsed" -lt "$seconds" ]; do
  sleep 1
  elapsed=$((elapsed + 1))
  kill -0 "$host_pid" 2>/dev/null || break
  [ "$elapsed" -eq "$warmup" ] && rss_warm="$(rss_kb "$host_pid")"
  if [ $((elapsed % 45)) -eq 0 ]; then
    stop_camera front
    start_camera front
  fi
  if [ $(((elapsed + 20) % 45)) -eq 0 ]; then
    stop_camera down
    start_camera down
  fi
  if [ $((elapsed % 20)) -eq 0 ]; then
    # A viewer for about 8 s, front and down in turn; it leaves when stopped.
    port=$((viewer_turn % 2 == 0 ? 8883 : 8884))
    viewer_turn=$((viewer_turn + 1))
    "$build/tools/viewer" --port "$port" --no-window >>"$soak/logs/viewer-$port.log" 2>&1 &
    viewer_pid[$port]=$!
    pids+=("$!")
  fi
  for port in "${!viewer_pid[@]}"; do
    if [ $((elapsed % 20)) -eq 8 ]; then
      status=0
      kill -TERM "${viewer_pid[$port]}" 2>/dev/null || true
      wait "${viewer_pid[$port]}" || status=$?
      note_exit "viewer $port" "$status"
      unset "viewer_pid[$port]"
    fi
  done
  if [ $((elapsed % 30)) -eq 0 ]; then
    echo "  $elapsed s: host resident $(rss_kb "$host_pid") kB"
  fi
done
rss_end="$(rss_kb "$host_pid")"
host_status=0
kill -TERM "$host_pid" 2>/dev/null || true
wait "$host_pid" || host_status=$?
if [ "$elapsed" -lt "$seconds" ] || [ "$host_status" -ne 0 ]; then
  echo "soak: the host ended early or failed (status $host_status after $elapsed s)" >&2
  crashes=$((crashes + 1))
fi
stop_camera front
stop_camera down
for port in "${!viewer_pid[@]}"; do kill -TERM "${viewer_pid[$port]}" 2>/dev/null || true; done
wait 2>/dev/null || true

status=0
"$python" "$root/scripts/soak-report.py" --dir "$soak" --rss-warm "$rss_warm" \
  --rss-end "$rss_end" --crashes "$crashes" || status=$?
exit "$status"
