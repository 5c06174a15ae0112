#!/usr/bin/env python3
"""What a map of 10^3 to 10^7 redirected chunks costs: runs kvr_growth once per size and prints the figures as a table,
or draws them. A size of 10^7 takes some minutes and 5 GiB of memory; --sizes and --file let the sizes be measured one at
a time."""
import argparse
import json
import pathlib
import subprocess
import sys
import plot
import report

SIZES = [10 ** power for power in range(3, 8)]


def arguments():
    parser = argparse.ArgumentParser(prog="bench/growth", description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/bench"),
                        help="build folder of kvr_growth (default %(default)s)")
    parser.add_argument("--sizes", type=int, nargs="*", default=SIZES, help="chunks; none: only show what --file has")
    parser.add_argument("--file", type=pathlib.Path, help="keep the figures here, beside those of other sizes")
    parser.add_argument("--plot", type=pathlib.Path, help="draw them as an SVG file")
    return parser.parse_args()


def measure(build, size):
    lines = subprocess.run([build / "bench/kvr_growth", str(size)], check=True, capture_output=True, text=True).stdout
    return {name: float(value) for name, value in (line.split("\t") for line in lines.splitlines())}


def main():
    options = arguments()
    figures = json.loads(options.file.read_text()) if options.file and options.file.exists() else {}
    for size in options.sizes:
        print(f"{size} chunks", file=sys.stderr)
        figures[str(size)] = measure(options.build, size)
        if options.file:
            options.file.write_text(json.dumps(figures, indent=1) + "\n")
    by_size = {int(size): figures[size] for size in sorted(figures, key=int)}
    print(report.table(by_size))
    if options.plot:
        options.plot.write_text(plot.svg(by_size))
    return report.judge(by_size)


if __name__ == "__main__":
    sys.exit(main())
