"""Compares two builds of the copy program: drains in memory by the daemon with each, in turns.

    compare.py PROGRAM BEFORE [ROUNDS]      in the sandbox; called by scripts/bench-compare.sh
"""

from __future__ import annotations

import sys
from dataclasses import asdict
from pathlib import Path
from statistics import median

import run
from drain.measure import drain_once
from drain.share import Workload, make_station
from results import Data

WORKLOADS = {"8,000 x 20 kB": Workload(8_000, 20_000), "200 x 6 MB": Workload(200, 6_000_000)}
MINPAUSE = 100


def compare(programs: list[Path], workload: Workload, rounds: int) -> list[list[Data]]:
    """What each of both took, in so many rounds after one that is not counted."""
    taken = []
    for number in range(rounds + 1):
        drains: dict[Path, Data] = {}
        for program in programs if number % 2 == 0 else programs[::-1]:
            station = make_station(program, MINPAUSE)
            drains[program] = asdict(drain_once(station, "skarn", workload))
        taken.append([drains[program] for program in programs])
    return taken[1:]


def main() -> int:
    programs = [Path(name) for name in sys.argv[1:3]]
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 15
    run.have_packets_of_an_ethernet()
    for name, workload in WORKLOADS.items():
        taken = compare(programs, workload, rounds)
        for figure in ("wall", "clients", "server", "daemon"):
            now, before = (median(drain[way][figure] for drain in taken) for way in (0, 1))
            ratio = median(one[figure] / other[figure] for one, other in taken)
            print(f"{name}, {figure}: {now:.3f} s, before {before:.3f} s, ratio {ratio:.3f}")
        sys.stdout.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main())
