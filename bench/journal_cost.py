#!/usr/bin/python3
"""Drains a full share with a copy program that keeps a journal and with one that does not.

Called by scripts/bench-journal.sh, in the sandbox. Each round is a drain with each of the two, as
bench/drain does it, the order changing from round to round; one round is not counted. What is
compared are the medians of the rounds' ratios, of the wall time and of the processor time of
everything: other programs on the machine slow both ways of a round alike. Everything is in memory,
the journals included.
"""

from __future__ import annotations

import argparse
import os
import statistics
import sys
from pathlib import Path

from drain.share import Workload, check, empty, fill, make_station
from drain.ways import Drain, counted, drain_by_daemon


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


def drain_with(copy_program: Path, workload: Workload) -> Drain:
    """One drain with that copy program, from filling the share to the check."""
    station = make_station(copy_program, minpause=50)
    empty(station)
    fill(station, workload)
    with counted(station, lambda: drain_by_daemon(station, workload.names())) as result:
        check(station, workload)
    return result


def main() -> int:
    options = parse_arguments()
    os.environ["SKARN_BINARY"] = str(options.skarn)
    workload = Workload(options.files, options.size)
    programs = {"with": options.with_journal, "without": options.without_journal}
    walls, processors = [], []
    print(f"{options.files} files of {options.size} bytes; with the journal and without it")
    for number in range(options.rounds + 1):
        this = {
            way: drain_with(programs[way], workload)
            for way in sorted(programs, reverse=number % 2 == 1)
        }
        wall = this["with"].wall / this["without"].wall
        spent = {way: result.clients + result.server for way, result in this.items()}
        processor = spent["with"] / spent["without"]
        print(
            f"  {number or 'warm-up':>7}   {this['with'].wall:5.3f} s  {this['without'].wall:5.3f} s"
            f"  ratio {wall:5.3f}    processor {spent['with']:5.2f} s"
            f"  {spent['without']:5.2f} s  ratio {processor:5.3f}",
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
