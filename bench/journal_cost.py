#!/usr/bin/python3
"""Drains a full share with a copy program that keeps a journal and with one that does not.

Called by scripts/bench-journal.sh, in the sandbox. Each round is a drain with each of the two, as
bench/drain.py does it, the order changing from round to round; one round is not counted. What is
compared are the medians of the rounds' ratios, of the wall time and of the processor time of
everything: other programs on the machine slow both ways of a round alike. Everything is in memory,
the journals included.
"""

from __future__ import annotations

import argparse
import statistics
import sys
from pathlib import Path

import drain
from support.bed import install, make_stations
from support.detector import frame_names


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/bench-journal.sh",
        description="Measures what the journal of the copy program costs.",
        formatter_class=argparse.ArgumentDefaultsHelpFormatter,
    )
    parser.add_argument("--files", type=int, default=8000, help="files in the share")
    parser.add_argument("--size", type=int, default=20000, help="bytes of each file")
    parser.add_argument("--rounds", type=int, default=25, help="measured rounds")
    for hidden in ("--skarn", "--with-journal", "--without-journal"):
        parser.add_argument(hidden, type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def main() -> int:
    options = parse_arguments()
    names = sorted(frame_names(options.files))
    (station,) = make_stations(1)
    programs = {"with": options.with_journal, "without": options.without_journal}
    walls, processors = [], []
    print(f"{options.files} files of {options.size} bytes; with the journal and without it")
    for number in range(options.rounds + 1):
        this = {}
        for way in sorted(programs, reverse=number % 2 == 1):
            install(programs[way], [station])
            this[way] = drain.drain(
                lambda: drain.drain_by_skarn(options, station, names), station, names, options
            )
        wall = this["with"].done / this["without"].done
        processor = this["with"].processor / this["without"].processor
        print(
            f"  {number or 'warm-up':>7}   {this['with'].done:5.3f} s  {this['without'].done:5.3f} s"
            f"  ratio {wall:5.3f}    processor {this['with'].processor:5.2f} s"
            f"  {this['without'].processor:5.2f} s  ratio {processor:5.3f}",
            flush=True,
        )
        if number > 0:
            walls.append(wall)
            processors.append(processor)
    print(
        f"medians of the ratios: wall time {statistics.median(walls):.3f}, "
        f"processor time {statistics.median(processors):.3f}"
    )
    return 0


if __name__ == "__main__":
    sys.exit(main())
