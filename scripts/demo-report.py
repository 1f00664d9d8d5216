#!/usr/bin/python3
"""Compares what the module reported with what camsim showed it.

  demo-report.py live    --root R --host H [--truth-front F] [--truth-down D] [--pid P]
      one line a second (distances reported against the truth, report rates,
      camera status) until process P ends (or forever without --pid)
  demo-report.py summary --root R --host H [--truth-front F] [--truth-down D] [--warmup S]
      per pair: reports, record lines, frames sent, error of the reported
      distance against the truth (median, 95th percentile, share within 5 %),
      report and camera frame rates, and end-to-end latency

H is the host tool's --json output, R the BINOCULAR_ROOT with the record
files, F and D camsim's --truth files. Reports pair with frames as
bino_records.py describes: the n-th report of a pair with the n-th record
line of that pair, whose timestamp names the frame. Latency is the report's
receipt time minus the frame's timestamp, both CLOCK_MONOTONIC.
Exit status: 0; 1 when a file is malformed; summary: 3 when a pair has no
paired report.
"""

import argparse
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bino_records  # noqa: E402

PAIRS = ("front", "down")
HARDWARE = {0: "frames arriving", 1: "no frames", 2: "low light"}
CALIBRATION = {0: "calibrated", 1: "calibration missing"}


def load(args):
    messages, malformed = bino_records.read_host(args.host) if os.path.exists(args.host) else ([], 0)
    data = {"messages": messages, "malformed": malformed, "pairs": {}}
    for pair in PAIRS:
        truth_path = getattr(args, "truth_" + pair)
        rows = bino_records.read_records(bino_records.record_files(args.root, pair))
        reports = bino_records.reports_of(messages, pair)
        data["pairs"][pair] = {
            "rows": rows,
            "reports": reports,
            "truth": bino_records.read_truth(truth_path),
            "paired": bino_records.pair_up(reports, rows),
        }
    return data


def truth_of(pair_data, row):
    return pair_data["truth"].get(bino_records.stamp_us(row))


def status_text(messages):
    for message in reversed(messages):
        if message.get("kind") == "status":
            return "cameras: front %s, %s; down %s, %s" % (
                HARDWARE.get(message["front_hw"], "?"), CALIBRATION.get(message["front_calib"], "?"),
                HARDWARE.get(message["down_hw"], "?"), CALIBRATION.get(message["down_calib"], "?"))
    return "cameras: no status yet"


def live_line(data):
    messages = data["messages"]
    now = max((m.get("t", 0.0) for m in messages), default=0.0)
    parts = ["%5.1f s" % now]
    for pair in PAIRS:
        pair_data = data["pairs"][pair]
        recent = [r for r in pair_data["reports"] if r["t"] > now - 1.0]
        text = "%-5s" % pair
        if pair_data["paired"]:
            report, row = pair_data["paired"][-1]
            reported = bino_records.reported_m(report, pair)
            true = truth_of(pair_data, row)
            if true is not None and true > 0:
                text += " %6.2f m (true %6.2f m, %+6.1f %%)" % (reported, true, 100.0 * (reported - true) / true)
            else:
                text += " %6.2f m (true    ?  )" % reported
        else:
            text += "      - (no report yet)"
        text += " %5.1f fps" % len(recent)
        parts.append(text)
    parts.append(status_text(messages))
    return " | ".join(parts)


def pair_summary(pair, pair_data, warmup_s):
    paired = pair_data["paired"]
    result = {"pair": pair, "reports": len(pair_data["reports"]), "records": len(pair_data["rows"]),
              "frames_sent": len(pair_data["truth"]), "paired": len(paired)}
    if not paired:
        return result
    first_t = paired[0][0]["t"]
    errors = []
    relative = []
    latencies = []
    for report, row in paired:
        latencies.append((report["mono_us"] - bino_records.stamp_us(row)) / 1000.0)
        true = truth_of(pair_data, row)
        if report["t"] - first_t < warmup_s or true is None or true <= 0:
            continue
        error = bino_records.reported_m(report, pair) - true
        errors.append(abs(error))
        relative.append(abs(error) / true)
    result["compared"] = len(errors)
    if errors:
        result["error_median_m"] = bino_records.median(errors)
        result["error_p95_m"] = bino_records.percentile(errors, 0.95)
        result["rel_median"] = bino_records.median(relative)
        result["rel_p95"] = bino_records.percentile(relative, 0.95)
        result["within_5pct"] = sum(1 for r in relative if r <= 0.05) / len(relative)
    span = paired[-1][0]["t"] - paired[0][0]["t"]
    result["report_fps"] = (len(paired) - 1) / span if span > 0 else 0.0
    stamps = sorted(pair_data["truth"])
    if len(stamps) > 1:
        result["camera_fps"] = (len(stamps) - 1) / ((stamps[-1] - stamps[0]) * 1e-6)
    result["latency_median_ms"] = bino_records.median(latencies)
    result["latency_p99_ms"] = bino_records.percentile(latencies, 0.99)
    # A report whose value is not its paired record's final distance was read
    # after the worker had moved on; counted, not hidden.
    result["value_matches_record"] = sum(
        1 for report, row in paired
        if report["front_cm" if pair == "front" else "down_cm"] == int(row["distanceFiltered_app"] * 100.0) % 65536
    ) / len(paired)
    return result


def print_summary(results):
    print("summary (error: |reported - true| over reports after the warm-up; reports pair with frames by record line)")
    for r in results:
        print("  %-5s reports %d, record lines %d, frames sent %d, paired %d" % (
            r["pair"], r["reports"], r["records"], r["frames_sent"], r["paired"]))
        if "error_median_m" in r:
            print("        error median %.3f m (%.1f %%), 95th percentile %.3f m (%.1f %%), within 5 %%: %.1f %% of %d" % (
                r["error_median_m"], 100 * r["rel_median"], r["error_p95_m"], 100 * r["rel_p95"],
                100 * r["within_5pct"], r["compared"]))
        if "report_fps" in r:
            print("        frame rates: reports %.1f/s, camera into the queue %.1f/s; latency frame -> report median %.1f ms, "
                  "99th percentile %.1f ms; report equals its record: %.1f %%" % (
                      r["report_fps"], r.get("camera_fps", 0.0), r["latency_median_ms"], r["latency_p99_ms"],
                      100 * r["value_matches_record"]))


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("mode", choices=["live", "summary"])
    parser.add_argument("--root", required=True)
    parser.add_argument("--host", required=True)
    parser.add_argument("--truth-front")
    parser.add_argument("--truth-down")
    parser.add_argument("--pid", type=int)
    parser.add_argument("--warmup", type=float, default=1.0, help="seconds of reports left out of the errors [1]")
    args = parser.parse_args(argv)
    try:
        if args.mode == "live":
            while args.pid is None or os.path.exists("/proc/%d" % args.pid):
                time.sleep(1.0)
                print(live_line(load(args)), flush=True)
            return 0
        data = load(args)
        results = [pair_summary(pair, data["pairs"][pair], args.warmup) for pair in PAIRS]
        print_summary(results)
        return 0 if all(r["paired"] > 0 for r in results) else 3
    except bino_records.FormatError as error:
        print("demo-report: %s" % error, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
