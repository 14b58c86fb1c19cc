"""Takes what it costs that the copy program keeps the figures of each share.

The same copy program is there twice, once built to keep none. They take turns, another one first
each time:

- an empty listing, so many times in a row: processor time of all that it starts;
- a drain in memory by the daemon, as in the drains.
"""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import processor_time
from drain.compare import MINPAUSE, drain_with
from drain.share import Workload, empty, make_station
from results import Data
from support.bed import Station
from support.daemon import PASSWORD_FILE
from turns import in_turns

PROGRAMS = {
    "with": Path(os.environ["CONFIRMING_RSYNC_BINARY"]),
    "without": Path(os.environ["CONFIRMING_RSYNC_WITHOUT_FIGURES"]),
}
LIMIT = 60.0


def measure(quick: bool) -> Data:
    rounds, listings, workload = (
        (1, 5, Workload(200, 20_000)) if quick else (15, 40, Workload(8_000, 20_000))
    )
    stations = {name: make_station(program, MINPAUSE) for name, program in PROGRAMS.items()}
    empty(stations["with"])
    with stations["with"].server:
        listed = in_turns(
            list(PROGRAMS), rounds, lambda name: list_often(stations[name], name, listings)
        )
    drained = in_turns(list(PROGRAMS), rounds, lambda name: drain_with(PROGRAMS[name], workload))
    return {
        "listings": {"a_round": listings, "rounds": listed},
        "drains": {"files": workload.files, "size": workload.size, "rounds": drained},
    }


def list_often(station: Station, name: str, listings: int) -> Data:
    """Processor seconds of one empty listing."""
    command = [str(PROGRAMS[name]), "-mrlDHW", "--list-only", f"--password-file={PASSWORD_FILE}"]
    before = processor_time.of_ended()
    for _ in range(listings):
        subprocess.run(
            [*command, station.server.url],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            check=True,
            timeout=LIMIT,
        )
    return {"clients": (processor_time.of_ended() - before) / listings}
