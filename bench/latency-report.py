#!/usr/bin/python3
"""End-to-end latency of one benchmark run: from the moment camsim puts a
frame into the queue (the frame's timestamp, CLOCK_MONOTONIC) to the host
callback carrying that frame's distance (receipt time, same clock).

  latency-report.py --root R --host H --stages DIR --camsim-log PAIR=FILE... [--warmup S] [--label TEXT]

Which frame a report carries: a reporter wakes once per processed frame
but reads the pipeline's distance when it wakes, which is the distance of the
latest frame whose distance chain had finished. So a report carries the frame
that is the latest one chained (stage trace, BINOCULAR_STAGE_TRACE) before the
report arrived and whose record line holds the report's distance (in cm);
the search goes back at most 8 frames, and a report without such a frame
counts as unmatched. Latency is the report's arrival minus that frame's
timestamp; frames whose distance no report carried count as not reported.
The count pairing (n-th report, n-th record line) is printed too: its lag is
the reporter's backlog of frame signals. Frames of the first --warmup
seconds (default 2) are left out.
"""

import bisect

import argparse
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "scripts"))
import bino_records  # noqa: E402

STAGES = ["polled", "queued", "got", "rectified", "matched", "chained", "posted", "recorded", "streamed"]
# (name, from, to): "stamp" is the frame's timestamp, "report" the callback.
BREAKDOWN = [
    ("in the queue until polled (5 ms poll)", "stamp", "polled"),
    ("poller: copy (or rotate, clip)", "polled", "queued"),
    ("waiting for the worker", "queued", "got"),
    ("rectify what the matcher reads", "got", "rectified"),
    ("disparity", "rectified", "matched"),
    ("distance chain", "matched", "chained"),
    ("chained -> host callback", "chained", "report"),
    ("end to end", "stamp", "report"),
    ("after the report: record, images", "posted", "recorded"),
    ("after the report: stream", "recorded", "streamed"),
]


def read_stages(path):
    stages = {}
    if not os.path.exists(path):
        return stages
    with open(path) as handle:
        for line in handle:
            fields = line.split()
            if len(fields) != 1 + len(STAGES) or not line.endswith("\n"):
                continue
            values = [int(field) for field in fields]
            stages[values[0]] = dict(zip(STAGES, values[1:]))
    return stages


def camsim_counts(path):
    """(sent, dropped at the queue) from camsim's last line."""
    with open(path) as handle:
        text = handle.read()
    match = re.findall(r"stopped after (\d+) frames sent \(dropped (\d+)\)", text)
    if not match:
        return None
    return int(match[-1][0]), int(match[-1][1])


def summarise(pair, args, messages, camsim_log):
    rows = bino_records.read_records(bino_records.record_files(args.root, pair))
    reports = bino_records.reports_of(messages, pair)
    stages = read_stages(os.path.join(args.stages, pair + ".stages"))
    paired = bino_records.pair_up(reports, rows)
    out = {"pair": pair, "records": len(rows), "reports": len(reports)}
    counts = camsim_counts(camsim_log) if camsim_log else None
    if counts:
        out["offered"] = counts[0] + counts[1]
        out["queue_full"] = counts[1]
        out["dropped"] = out["offered"] - len(rows)
    if not paired:
        return out
    start = bino_records.stamp_us(rows[0]) + args.warmup * 1e6
    cm_field = "front_cm" if pair == "front" else "down_cm"
    frames = [(bino_records.stamp_us(row), stages.get(bino_records.stamp_us(row), {}),
               int(row["distanceFiltered_app"] * 100.0) % 65536) for row in rows]
    frames = [f for f in frames if f[1].get("chained")]
    chained = [f[1]["chained"] for f in frames]
    spans = {name: [] for name, _, _ in BREAKDOWN}
    carried = set()
    unmatched = 0
    considered = 0
    for report in reports:
        arrival = report["mono_us"]
        latest = bisect.bisect_right(chained, arrival) - 1
        if latest < 0 or frames[latest][0] < start:
            continue
        considered += 1
        match = next((k for k in range(latest, max(-1, latest - 8), -1) if frames[k][2] == report[cm_field]), None)
        if match is None:
            unmatched += 1
            continue
        stamp, times, _ = frames[match]
        carried.add(stamp)
        times = dict(times, stamp=stamp, report=arrival)
        for name, first, second in BREAKDOWN:
            if times.get(first) and times.get(second):
                spans[name].append((times[second] - times[first]) / 1000.0)
    out["considered"] = considered
    out["unmatched"] = unmatched
    out["not_reported"] = sum(1 for f in frames if f[0] >= start) - len(carried)
    backlog = [(r["mono_us"] - bino_records.stamp_us(row)) / 1000.0 for r, row in paired
               if bino_records.stamp_us(row) >= start]
    out["count_pairing_median"] = bino_records.median(backlog)
    out["spans"] = spans
    measured = [bino_records.stamp_us(row) for _, row in paired if bino_records.stamp_us(row) >= start]
    if len(measured) > 1:
        out["fps"] = (len(measured) - 1) / ((measured[-1] - measured[0]) * 1e-6)
    return out


def main(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--host", required=True)
    parser.add_argument("--stages", required=True)
    parser.add_argument("--camsim-log", action="append", default=[])
    parser.add_argument("--warmup", type=float, default=2.0)
    parser.add_argument("--label", default="")
    args = parser.parse_args(argv)
    logs = dict(item.split("=", 1) for item in args.camsim_log)
    messages, _ = bino_records.read_host(args.host)
    print("== %s" % args.label)
    ok = True
    for pair in ("front", "down"):
        s = summarise(pair, args, messages, logs.get(pair))
        line = "%-5s %.1f frames/s processed" % (pair, s.get("fps", 0.0))
        if "offered" in s:
            line += ", %d offered, %d processed, %d dropped (%d at a full queue)" % (
                s["offered"], s["records"], s["dropped"], s["queue_full"])
        line += ", %d reports" % s["reports"]
        print(line)
        if "spans" not in s or not s["spans"]["end to end"]:
            print("      no paired reports")
            ok = False
            continue
        print("      reports after warm-up %d, carrying a frame %d (unmatched %d); frames no report carried %d; "
              "count pairing (n-th report, n-th frame): median %.1f ms" % (
                  s["considered"], s["considered"] - s["unmatched"], s["unmatched"], s["not_reported"],
                  s["count_pairing_median"]))
        print("      %-36s %8s %8s %8s %6s" % ("stage (ms)", "median", "p99", "max", "n"))
        for name, _, _ in BREAKDOWN:
            values = s["spans"][name]
            if values:
                print("      %-36s %8.2f %8.2f %8.2f %6d" % (name, bino_records.median(values),
                                                        bino_records.percentile(values, 0.99), max(values),
                                                        len(values)))
    return 0 if ok else 3


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
