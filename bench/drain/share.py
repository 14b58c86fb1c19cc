"""The share that is drained: filling it, and looking at what became of it."""

from __future__ import annotations

import os
import random
from dataclasses import dataclass
from pathlib import Path

from support.bed import STATE, Station, install, make_stations
from support.folders import remove

JOURNALS = Path("/var/lib/skarn/journal")


@dataclass(frozen=True)
class Workload:
    """So many files of that many bytes."""

    files: int
    size: int

    def names(self) -> list[str]:
        return [f"frame_{number:06d}.raw" for number in range(1, self.files + 1)]


def make_station(copy_program: Path, minpause: int) -> Station:
    """The one detector, with everything installed that the daemon needs."""
    (station,) = make_stations(1)
    install(copy_program, [station], {"logfile_max_size": "1G"}, minpause=minpause)
    return station


def empty(station: Station) -> None:
    """Leaves neither files nor journals: to decide about the journals of a dead daemon is no part
    of a drain.
    """
    for folder in (station.target, station.simulator.root, JOURNALS):
        remove(folder)
    for folder in (station.target, station.simulator.root, STATE):
        folder.mkdir(parents=True, exist_ok=True)


def fill(station: Station, workload: Workload) -> None:
    """Fills the empty share; each file has its own content."""
    block = random.Random("drain").randbytes(workload.size + workload.files)
    for number, name in enumerate(workload.names()):
        (station.simulator.root / name).write_bytes(block[number : number + workload.size])


def check(station: Station, workload: Workload) -> None:
    """Whether all files of the share are at the target, and none at the source."""
    arrived = sorted(os.listdir(station.target))
    assert arrived == workload.names(), f"{len(arrived)} of {workload.files} files arrived"
    for name in arrived:
        size = (station.target / name).stat().st_size
        assert size == workload.size, f"{name} has {size} bytes"
    assert not os.listdir(station.simulator.root), "files are left at the source"
