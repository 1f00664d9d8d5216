# Sourced by the demo, the soak and the latency benchmark: a module root with
# two simulated camera pairs, private namespaces for the fixed keys and ports,
# and the removal of the queues' System V objects.
#
# FRONT_RIG, DOWN_RIG: camsim's rig options. f x B is 120 px m in front (60 px
# at 2 m, within the unit's 64) and 80 px m below (40 px at 2 m, within block
# matching's 48).
FRONT_RIG=(--direction front --focal 400 --baseline 300)
DOWN_RIG=(--direction down --focal 400 --baseline 200)

# rig_root ROOT SOURCE BUILD FRONT_MATCHER DOWN_MATCHER [SAVE_IMAGE [SAVE_INTERVAL]]
# Writes ROOT's binocular.ini from SOURCE/config/binocular.ini with sensing on,
# the given matchers (0 stereo unit, 1 block matching) and image recording
# (default off, every 5th frame), the run counter, ROOT/run, and both rigs'
# calibration files.
rig_root() {
  local root="$1" source="$2" build="$3" front="$4" down="$5" save="${6:-0}" interval="${7:-5}"
  local config="$root/home/tarnwick/component/vision_cmp"
  mkdir -p "$config" "$root/home/tarnwick/scripts" "$root/run"
  awk -v front="$front" -v down="$down" -v save="$save" -v interval="$interval" '
    /^\[/ { section = $0 }
    /^visionSwitch *=/ && section == "[common]" { print "visionSwitch = 1"; next }
    /^matcher *=/ { print "matcher = " (section == "[down]" ? down : front); next }
    /^saveImage *=/ { print "saveImage = " save; next }
    /^saveInterval *=/ { print "saveInterval = " interval; next }
    { print }
  ' "$source/config/binocular.ini" >"$config/binocular.ini"
  echo 1 >"$root/home/tarnwick/scripts/zlog_count.cfg"
  BINOCULAR_ROOT="$root" "$build/tools/camsim" "${FRONT_RIG[@]}" --calib-only >/dev/null
  BINOCULAR_ROOT="$root" "$build/tools/camsim" "${DOWN_RIG[@]}" --calib-only >/dev/null
}

# rig_isolate MARKER SCRIPT [ARGS...]: runs SCRIPT again in private IPC and
# network namespaces when it can (root, unshare, ip), so the fixed queue keys
# and ports meet nobody else's; MARKER names the variable that says it already
# runs there, so it happens once. Returns when it cannot.
rig_isolate() {
  local marker="$1"
  shift
  if [ -z "${!marker:-}" ] && [ "$(id -u)" -eq 0 ] && command -v unshare >/dev/null &&
    command -v ip >/dev/null && unshare --ipc --net true 2>/dev/null; then
    export "$marker=1"
    exec unshare --ipc --net bash -c 'ip link set lo up && exec bash "$0" "$@"' "$@"
  fi
}

# rig_remove_ipc: removes the queues' System V objects (the shared-memory
# segments 9990 and 9991 and the semaphores 9990 to 9993), if any are left.
rig_remove_ipc() {
  local key
  for key in 9990 9991; do ipcrm -M "$key" 2>/dev/null || true; done
  for key in 9990 9991 9992 9993; do ipcrm -S "$key" 2>/dev/null || true; done
}
