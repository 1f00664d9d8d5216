#!/usr/bin/env bash
# The Python tools on small files with known content: plot-record.py draws a
# PNG of the asked size and refuses malformed records and arguments by exit
# status; demo-report.py pairs reports with frames through the record lines
# (files in frame order, not name order) into errors, latency and rates
# computed by hand below.
# Usage: python_tools_test.sh SOURCE_DIR
set -euo pipefail
source_dir="$1"
python=/usr/bin/python3
scratch="$(mktemp -d /tmp/python-tools-test.XXXXXX)"
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
png_size() { # prints "W H" of a PNG, or nothing when the file is not one
  "$python" -c 'import struct, sys; d = open(sys.argv[1], "rb").read(24)
if d[:8] == b"\x89PNG\r\n\x1a\n" and d[12:16] == b"IHDR": print("%d %d" % struct.unpack(">II", d[16:24]))' "$1"
}

plot=("$python" "$source_dir/scripts/plot-record.py")
record="$source_dir/tests/data/record_front_small.log"

"${plot[@]}" --truth "$source_dir/tests/data/truth_front_small.txt" --size 640x480 -o small.png "$record" >plot.out || fail "plot exited $?"
[ "$(png_size small.png)" = "640 480" ] || fail "small.png is '$(png_size small.png)', expected 640 480"
grep -q '(30 frames)' plot.out || fail "plot did not count the 30 frames: $(cat plot.out)"

head -3 "$record" >short.log
head -1 "$record" | cut -f1-5 >>short.log  # a line cut short
tail -n +2 "$record" >headless.log
sed '3s/^[^\t]*/abc/' "$record" >word.log
refused=(
  "1|:4: 5 columns|short.log"
  "1|no record header|headless.log"
  "1|:3: a value is not a number|word.log"
  "2|WIDTHxHEIGHT|--size 640 $record"
)
for case in "${refused[@]}"; do
  IFS='|' read -r status text args <<<"$case"
  # shellcheck disable=SC2086
  got=0 && "${plot[@]}" -o refused.png $args >refused.out 2>&1 || got=$?
  [ "$got" -eq "$status" ] || fail "plot $args: exit $got, expected $status"
  grep -q -- "$text" refused.out || fail "plot $args: no '$text' in: $(cat refused.out)"
done
[ ! -e refused.png ] || fail "a refused plot wrote its PNG"

# Front: four frames, truth 10, 11, 12, 13 m, the later two in a file whose
# name sorts first; reports 10.00, 11.20, 13.00, 13.40 m (errors 0, 0.2, 1.0,
# 0.4 m) after 5, 6, 7 and 30 ms; down: one frame. Header as in the sample record.
"$python" - "$record" <<'PY'
import json, os, sys
header = open(sys.argv[1]).readline().split()
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
write("root/data/log/downBino/d.log", [line(2.0, 2000000)])  # a pair without reports fails the summary
open("front.truth", "w").write("".join("%d\t%.4f\n" % (s, d) for s, d in zip(stamps, [10, 11, 12, 13])))
with open("host.jsonl", "w") as f:  # a status and a line that is no JSON are passed over
    f.write('{"t":0.05,"mono_us":1,"type":0,"kind":"status","front_hw":0,"down_hw":1}\nnot json\n')
    for i, (cm, late) in enumerate(zip([1000, 1120, 1300, 1340], [5000, 6000, 7000, 30000])):
        f.write(json.dumps({"t": 0.1 * (i + 1), "mono_us": stamps[i] + late, "type": 3, "kind": "distance",
                            "pair": "front", "front_cm": cm, "down_cm": 200}) + "\n")
    f.write('{"t":0.1,"mono_us":2004000,"type":3,"kind":"distance","pair":"down","front_cm":0,"down_cm":200}\n')
PY
report=("$python" "$source_dir/scripts/demo-report.py")
"${report[@]}" summary --root root --host host.jsonl --truth-front front.truth --warmup 0 >report.out || fail "report exited $?"
expected=(
  "  front reports 4, record lines 4, frames sent 4, paired 4"
  "error median 0.300 m (2.4 %), 95th percentile 1.000 m (8.3 %), within 5 %: 75.0 % of 4"
  "latency frame -> report median 6.5 ms, 99th percentile 30.0 ms; report equals its record: 75.0 %"
  "reports 10.0/s"
)
for text in "${expected[@]}"; do
  grep -qF -- "$text" report.out || fail "report: no '$text' in: $(cat report.out)"
done
printf 'pitch\tx\t\n' >root/data/log/frontBino/e.log
got=0 && "${report[@]}" summary --root root --host host.jsonl >bad.out 2>&1 || got=$?
[ "$got" -eq 1 ] && grep -q 'no record header' bad.out || fail "a malformed record file: exit $got, $(cat bad.out)"
[ "$failures" -eq 0 ] || { echo "$failures failure(s)" >&2; exit 1; }
echo "python tools: ok"
