#!/usr/bin/python3
"""The soak's figures and verdict (see scripts/soak.sh).

  soak-report.py --dir D --rss-warm KB --rss-end KB --crashes N

D holds host.jsonl, root/ (records) and stages/ (the pipelines' stage trace:
one line per processed frame). Exit 0 when every check holds, 1 otherwise.
"""

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bino_records  # noqa: E402

IN_FLIGHT_REPORTS = 2  # frames processed whose report had not arrived when the host stopped
IN_FLIGHT_RECORDS = 1  # a record written whose trace line was not yet


def count_lines(path):
    if not os.path.exists(path):
        return 0
    with open(path) as handle:
        return sum(1 for line in handle if line.endswith("\n"))


def main(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--rss-warm", type=int, required=True)
    parser.add_argument("--rss-end", type=int, required=True)
    parser.add_argument("--crashes", type=int, required=True)
    args = parser.parse_args(argv)
    messages, malformed = bino_records.read_host(os.path.join(args.dir, "host.jsonl"))
    failures = []

    growth = (args.rss_end - args.rss_warm) / args.rss_warm if args.rss_warm > 0 else float("inf")
    print("resident memory: %d kB after the warm-up, %d kB at the end (%+.2f %%)" % (
        args.rss_warm, args.rss_end, 100 * growth))
    if not growth < 0.05:
        failures.append("resident memory grew %.2f %%" % (100 * growth))

    for pair in ("front", "down"):
        processed = count_lines(os.path.join(args.dir, "stages", pair + ".stages"))
        reports = len(bino_records.reports_of(messages, pair))
        records = len(bino_records.read_records(bino_records.record_files(os.path.join(args.dir, "root"), pair)))
        print("%-5s frames processed %d, reports received %d, record lines %d" % (pair, processed, reports, records))
        if processed == 0:
            failures.append("%s: no frame processed" % pair)
        if not 0 <= processed - reports <= IN_FLIGHT_REPORTS:
            failures.append("%s: %d reports for %d frames" % (pair, reports, processed))
        if not 0 <= records - processed <= IN_FLIGHT_RECORDS:
            failures.append("%s: %d record lines for %d frames" % (pair, records, processed))

    kinds = {}
    for message in messages:
        kinds[message.get("kind")] = kinds.get(message.get("kind"), 0) + 1
    print("messages: %s; malformed lines %d" % (", ".join("%s %d" % item for item in sorted(kinds.items())),
                                                  malformed))
    if malformed:
        failures.append("%d malformed host lines" % malformed)
    if kinds.get("unknown", 0):
        failures.append("%d messages of an unknown type" % kinds["unknown"])
    print("crashes: %d" % args.crashes)
    if args.crashes:
        failures.append("%d crash(es)" % args.crashes)

    if failures:
        print("soak: FAILED: " + "; ".join(failures))
        return 1
    print("soak: passed")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
