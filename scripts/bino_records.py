"""Readers of the module's record files, camsim's truth files and the host
tool's JSON lines, and the pairing of distance reports with frames.

A record file holds a header line (tab-separated column names, each followed
by a tab) and one line per processed frame. Its last two columns are the
frame's camera timestamps times 0.001 (CLOCK_MONOTONIC microseconds in,
milliseconds out, six decimals: the microseconds survive exactly).

Pairing: a pair's reporter sends exactly one distance report per processed
frame, in processing order, and the worker writes exactly one record line per
processed frame in the same order. So the n-th report of a pair belongs to the
frame of the n-th record line of that pair, whose timestamp names the frame in
camsim's truth file.
"""

import glob
import json
import math
import os

CHAIN = [
    ("dis_ori_z", "raw"),
    ("distance_ori", "after blind area"),
    ("distanceFiltered_outlier", "after outlier filter"),
    ("distanceFiltered_app", "final"),
]
FLAGS = ["meetSpeedFlag", "smallDistanceFlag", "faultDetectFlagOfTen"]
NO_OBSTACLE_M = 60.0


class FormatError(ValueError):
    """A file does not have the expected layout."""


def read_record_file(path):
    """The rows of one record file as dicts of floats, in file order.

    Raises FormatError when the header is missing or a line has a column
    count other than the header's or a value that is not a number. A last
    line without its newline is a line being written and is left out."""
    rows = []
    with open(path, "r", encoding="ascii", errors="replace") as handle:
        text = handle.read()
    lines = text.split("\n")
    complete = lines[:-1]  # the part after the last newline is incomplete or empty
    if not complete:
        return rows
    header = [name for name in complete[0].rstrip("\n").split("\t") if name != ""]
    if "timestampL" not in header or "distanceFiltered_app" not in header:
        raise FormatError("%s: no record header" % path)
    for number, line in enumerate(complete[1:], start=2):
        fields = line.split("\t")
        if fields and fields[-1] == "":
            fields = fields[:-1]
        if len(fields) != len(header):
            raise FormatError("%s:%d: %d columns, header has %d" % (path, number, len(fields), len(header)))
        try:
            values = [float(field) for field in fields]
        except ValueError:
            raise FormatError("%s:%d: a value is not a number" % (path, number)) from None
        rows.append(dict(zip(header, values)))
    return rows


def read_records(paths):
    """Rows of several record files of one pair, files ordered by their first
    frame's timestamp, so files of one run read in processing order."""
    files = []
    for path in paths:
        rows = read_record_file(path)
        if rows:
            files.append((rows[0]["timestampL"], path, rows))
    files.sort(key=lambda item: (item[0], item[1]))
    return [row for _, _, rows in files for row in rows]


def record_files(root, pair):
    """The record files of `pair` ("front" or "down") below a BINOCULAR_ROOT."""
    return sorted(glob.glob(os.path.join(root, "data", "log", pair + "Bino", "*.log")))


def stamp_us(row):
    """The frame's left timestamp in camera microseconds."""
    return int(round(row["timestampL"] * 1000.0))


def read_truth(path):
    """camsim's truth file: {stamp us: distance m}. Malformed lines raise."""
    truth = {}
    if not path or not os.path.exists(path):
        return truth
    with open(path, "r", encoding="ascii", errors="replace") as handle:
        for number, line in enumerate(handle, start=1):
            if not line.endswith("\n"):
                break  # being written
            fields = line.split()
            if len(fields) != 2:
                raise FormatError("%s:%d: expected '<stamp>\\t<distance>'" % (path, number))
            try:
                truth[int(fields[0])] = float(fields[1])
            except ValueError:
                raise FormatError("%s:%d: not numbers" % (path, number)) from None
    return truth


def read_host(path):
    """The host tool's JSON lines: (messages, malformed line count)."""
    messages = []
    malformed = 0
    with open(path, "r", encoding="utf-8", errors="replace") as handle:
        for line in handle:
            if not line.endswith("\n"):
                break
            try:
                message = json.loads(line)
            except ValueError:
                malformed += 1
                continue
            if isinstance(message, dict):
                messages.append(message)
            else:
                malformed += 1
    return messages, malformed


def reports_of(messages, pair):
    """Distance reports sent by `pair`'s reporter, in arrival order."""
    return [m for m in messages if m.get("kind") == "distance" and m.get("pair") == pair]


def reported_m(report, pair):
    """The distance a report carries for its own pair, m."""
    return report["front_cm" if pair == "front" else "down_cm"] / 100.0


def pair_up(reports, rows):
    """(report, row) pairs, n-th with n-th; as many as both have."""
    return list(zip(reports, rows))


def percentile(values, share):
    """The nearest-rank percentile (share in 0..1) of a non-empty list."""
    ordered = sorted(values)
    if not ordered:
        return float("nan")
    rank = max(1, int(math.ceil(share * len(ordered))))
    return ordered[min(rank, len(ordered)) - 1]


def median(values):
    ordered = sorted(values)
    if not ordered:
        return float("nan")
    middle = len(ordered) // 2
    if len(ordered) % 2:
        return ordered[middle]
    return 0.5 * (ordered[middle - 1] + ordered[middle])
