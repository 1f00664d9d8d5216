#!/usr/bin/env bash
# The Python tools on small files with known content:
#   plot-record.py: a PNG of the asked size from a record file and its truth;
#     malformed records and bad arguments refused with their exit status.
#   demo-report.py: reports paired with frames through the record lines (files
#     read in frame order, not name order), errors, latency and rates as
#     computed by hand below.
# Usage: python_tools_test.sh SOURCE_DIR
set -euo pipefail
source_dir="$1"
python=/usr/bin/python3
scratch="$(mktemp -d /tmp/python-tools-test.XXXXXX)"
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

png_size() { # prints "W H" of a PNG, or nothing when the file is not one
  "$python" - "$1" <<'PY'
import struct, sys
data = open(sys.argv[1], "rb").read(24)
if data[:8] == b"\x89PNG\r\n\x1a\n" and data[12:16] == b"IHDR":
    print("%d %d" % struct.unpack(">II", data[16:24]))
PY
}

plot=("$python" "$source_dir/scripts/plot-record.py")
record="$source_dir/tests/data/record_front_small.log"
truth="$source_dir/tests/data/truth_front_small.txt"

# ---------------------------------------------------------------- plot
"${plot[@]}" --truth "$truth" --size 640x480 -o small.png "$record" >plot.out || fail "plot exited $?"
[ "$(png_size small.png)" = "640 480" ] || fail "small.png is '$(png_size small.png)', expected 640 480"
grep -q '(30 frames)' plot.out || fail "plot did not count the 30 frames: $(cat plot.out)"
"${plot[@]}" -o default.png "$record" >/dev/null || fail "plot without truth exited $?"
[ "$(png_size default.png)" = "1200 800" ] || fail "default.png is '$(png_size default.png)', expected 1200 800"

head -3 "$record" >short.log
head -1 "$record" | cut -f1-5 >>short.log  # a line cut short
tail -n +2 "$record" >headless.log
head -1 "$record" >empty.log
sed '3s/^[^\t]*/abc/' "$record" >word.log
printf '1\t2\t3\n' >badtruth.txt
refused=(
  "1|:4: 5 columns|short.log"
  "1|no record header|headless.log"
  "1|no record lines|empty.log"
  "1|:3: a value is not a number|word.log"
  "1|badtruth.txt:1|--truth badtruth.txt $record"
  "1|No such file|missing.log"
  "2|WIDTHxHEIGHT|--size 640 $record"
  "2|200..8000|--size 100x100 $record"
)
for case in "${refused[@]}"; do
  IFS='|' read -r status text args <<<"$case"
  got=0
  # shellcheck disable=SC2086
  "${plot[@]}" -o refused.png $args >refused.out 2>&1 || got=$?
  [ "$got" -eq "$status" ] || fail "plot $args: exit $got, expected $status"
  grep -q -- "$text" refused.out || fail "plot $args: no '$text' in: $(cat refused.out)"
done
[ ! -e refused.png ] || fail "a refused plot wrote its PNG"

# ---------------------------------------------------------------- report
# Front: four frames, truth 10, 11, 12, 13 m; the later two in a file whose
# name sorts first. Reports 10.00, 11.20, 13.00, 13.40 m: errors 0, 0.2, 1.0,
# 0.4 m. Down: two frames at 2 m, reports 2.00 and 2.20 m. Latencies 5, 6, 7
# and 30 ms in front.
"$python" - <<'PY'
import json, os
header = ("pitch headSpeed rightSpeed verticalSpeed height armOrDisarm timeuse pitch_rate countmax dis_ori_z "
          "distance_ori distanceFiltered_poseoutlier distanceFiltered_outlier disRejectFaultDetect "
          "distanceFiltered_app meetSpeedFlag smallDistanceFlag faultDetectFlagOfTen angle_x angle_y is_passable "
          "timestampL timestampR").split()
def line(final, stamp_us):
    values = {name: "0.000000" for name in header}
    values["distanceFiltered_app"] = "%f" % final
    values["timestampL"] = values["timestampR"] = "%f" % (stamp_us * 0.001)
    return "\t".join(values[name] for name in header) + "\t\n"
def write(path, lines):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as f:
        f.write("\t".join(header) + "\t\n" + "".join(lines))
stamps = [1000000, 1033000, 1066000, 1099000]
finals = [10.0, 11.2, 13.0, 99.0]  # the last report does not equal its record
write("root/data/log/frontBino/b.log", [line(finals[i], stamps[i]) for i in (0, 1)])
write("root/data/log/frontBino/a.log", [line(finals[i], stamps[i]) for i in (2, 3)])
write("root/data/log/downBino/d.log", [line(2.0, 2000000), line(2.2, 2033000)])
with open("front.truth", "w") as f:
    f.write("".join("%d\t%.4f\n" % (s, d) for s, d in zip(stamps, [10, 11, 12, 13])))
with open("down.truth", "w") as f:
    f.write("2000000\t2.0000\n2033000\t2.0000\n")
with open("host.jsonl", "w") as f:
    f.write('{"t":0.05,"mono_us":1,"type":0,"kind":"status","front_hw":0,"front_calib":0,"down_hw":1,"down_calib":0}\n')
    f.write("not json\n")
    for i, (cm, late) in enumerate(zip([1000, 1120, 1300, 1340], [5000, 6000, 7000, 30000])):
        f.write(json.dumps({"t": 0.1 * (i + 1), "mono_us": stamps[i] + late, "type": 3, "kind": "distance",
                            "pair": "front", "front_cm": cm, "down_cm": 200}) + "\n")
    for i, cm in enumerate([200, 220]):
        f.write(json.dumps({"t": 0.1 * (i + 1), "mono_us": 2000000 + 33000 * i + 4000, "type": 3,
                            "kind": "distance", "pair": "down", "front_cm": 0, "down_cm": cm}) + "\n")
PY
report=("$python" "$source_dir/scripts/demo-report.py")
"${report[@]}" summary --root root --host host.jsonl --truth-front front.truth --truth-down down.truth \
  --warmup 0 >report.out || fail "report exited $?"
expected=(
  "  front reports 4, record lines 4, frames sent 4, paired 4"
  "error median 0.300 m (2.4 %), 95th percentile 1.000 m (8.3 %), within 5 %: 75.0 % of 4"
  "latency frame -> report median 6.5 ms, 99th percentile 30.0 ms; report equals its record: 75.0 %"
  "reports 10.0/s"
  "  down  reports 2, record lines 2, frames sent 2, paired 2"
  "error median 0.100 m (5.0 %), 95th percentile 0.200 m (10.0 %), within 5 %: 50.0 % of 2"
)
for text in "${expected[@]}"; do
  grep -qF -- "$text" report.out || fail "report: no '$text' in:
$(cat report.out)"
done
"${report[@]}" live --root root --host host.jsonl --truth-front front.truth --truth-down down.truth \
  --pid 999999999 >live.out || fail "live exited $?"
[ ! -s live.out ] || fail "live printed although its process was gone"
printf 'pitch\tx\t\n' >root/data/log/downBino/e.log
got=0
"${report[@]}" summary --root root --host host.jsonl >bad.out 2>&1 || got=$?
[ "$got" -eq 1 ] && grep -q 'no record header' bad.out || fail "a malformed record file: exit $got, $(cat bad.out)"

if [ "$failures" -gt 0 ]; then
  echo "$failures failure(s)" >&2
  exit 1
fi
echo "python tools: ok"
