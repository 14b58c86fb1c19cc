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
from turns import in_turns

WORKLOADS = {"8,000 x 20 kB": Workload(8_000, 20_000), "200 x 6 MB": Workload(200, 6_000_000)}
MINPAUSE = 100


def drain_with(program: Path, workload: Workload) -> Data:
    return asdict(drain_once(make_station(program, MINPAUSE), "skarn", workload))


def main() -> int:
    programs = [Path(name) for name in sys.argv[1:3]]
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 15
    run.have_packets_of_an_ethernet()
    for name, workload in WORKLOADS.items():
        taken = in_turns(programs, rounds, lambda program: drain_with(program, workload))
        for figure in ("wall", "clients", "server", "daemon"):
            now, before = (median(each[way][figure] for each in taken) for way in programs)
            ratio = median(
                each[programs[0]][figure] / each[programs[1]][figure] for each in taken
            )
            print(f"{name}, {figure}: {now:.3f} s, before {before:.3f} s, ratio {ratio:.3f}")
        sys.stdout.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main())
