#!/usr/bin/python3
"""Draws a pair's record files into a PNG: the distance chain (raw, after the
blind area, after the outlier filter, final) against time, with camsim's truth
when given, and the flags below it.

  plot-record.py [--truth FILE] [--size WxH] [--title TEXT] -o OUT.png RECORD...

RECORD files are one pair's, read in the order of their first frame. Time is
seconds since the first frame, from the frames' camera timestamps; the truth
file (camsim --truth) uses the same clock. Distances of 60 m mean "nothing
within 60 m". Exit status: 0, 1 when a file cannot be read or has the wrong
layout, 2 on bad arguments.
"""

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bino_records  # noqa: E402


def size_argument(text):
    try:
        width, height = (int(part) for part in text.lower().split("x"))
    except ValueError:
        raise argparse.ArgumentTypeError("expects WIDTHxHEIGHT, e.g. 1200x800") from None
    if not (200 <= width <= 8000 and 200 <= height <= 8000):
        raise argparse.ArgumentTypeError("each side 200..8000 pixels")
    return width, height


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("records", nargs="+", help="record files of one pair")
    parser.add_argument("-o", "--output", required=True, help="PNG to write")
    parser.add_argument("--truth", help="camsim --truth file of the same pair")
    parser.add_argument("--size", type=size_argument, default=(1200, 800), help="image size [1200x800]")
    parser.add_argument("--title", help="title [the record files' names]")
    args = parser.parse_args(argv)

    try:
        rows = bino_records.read_records(args.records)
        truth = bino_records.read_truth(args.truth)
    except (OSError, bino_records.FormatError) as error:
        print("plot-record: %s" % error, file=sys.stderr)
        return 1
    if not rows:
        print("plot-record: no record lines in %s" % " ".join(args.records), file=sys.stderr)
        return 1

    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    origin = bino_records.stamp_us(rows[0])
    times = [(bino_records.stamp_us(row) - origin) * 1e-6 for row in rows]
    dpi = 100
    figure, (chain, flags) = plt.subplots(2, 1, sharex=True, figsize=(args.size[0] / dpi, args.size[1] / dpi),
                                          dpi=dpi, gridspec_kw={"height_ratios": [3, 1]})
    styles = {"raw": dict(lw=0.8, alpha=0.6), "final": dict(lw=1.8)}
    for column, label in bino_records.CHAIN:
        chain.plot(times, [row[column] for row in rows], label=label, **styles.get(label, dict(lw=1.0)))
    if truth:
        last = bino_records.stamp_us(rows[-1])
        stamps = sorted(s for s in truth if origin <= s <= last)
        chain.plot([(s - origin) * 1e-6 for s in stamps], [truth[s] for s in stamps], "k--", lw=1.2,
                   label="truth (camsim)")
    chain.set_ylabel("distance, m (60: none)")
    chain.set_ylim(0, 62)
    chain.grid(True, alpha=0.3)
    chain.legend(loc="upper right", fontsize="small")
    chain.set_title(args.title or ", ".join(os.path.basename(path) for path in args.records), fontsize="medium")

    for index, name in enumerate(bino_records.FLAGS):
        # A flag's band is filled while it is high and empty while it is low.
        base = index * 1.5
        flags.fill_between(times, base, [base + 0.9 * row[name] for row in rows], step="post", alpha=0.6)
        flags.axhline(base, color="grey", lw=0.5)
    flags.set_ylim(-0.3, 1.5 * len(bino_records.FLAGS))
    flags.set_yticks([index * 1.5 + 0.45 for index in range(len(bino_records.FLAGS))])
    flags.set_yticklabels(bino_records.FLAGS, fontsize="small")
    flags.set_ylabel("flags (filled: high)", fontsize="small")
    flags.set_xlabel("time since the first frame, s")
    flags.grid(True, alpha=0.3)

    figure.tight_layout()
    figure.savefig(args.output, dpi=dpi)
    plt.close(figure)
    print("plot: %s (%d frames)" % (args.output, len(rows)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
