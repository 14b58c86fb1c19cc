"""Drains more and more files, and shares of more and more detectors, and takes what it costs.

Real rsync servers, the confirming copy program, files of 1 kB with contents of their own, all in
memory. The time runs from the daemon's start, right before its first listing, to the moment the
consumer has read the last record. At the end of the cycle, with the daemon still there, its
processor time (its children apart), its children's, its page faults, and the most memory that it
ever had are read.
All is checked: every file there as it was, announced once, none left.

The rounds take the sizes in turn; the largest, which is long enough not to be disturbed, has fewer.
"""

from __future__ import annotations

import os
import random
import time
from pathlib import Path

import processor_time
from drain.share import JOURNALS
from results import Data
from support.bed import Station, install, make_stations
from support.consumer import Consumer
from support.daemon import Daemon, file_lists
from support.folders import remove
from support.processes import status_field
from support.rsync_server import RsyncServer
from support.waiting import wait_until

SIZE = 1000
LIMIT = 170.0
BLOCK = random.Random("growth").randbytes(1 << 20)


def measure(quick: bool) -> Data:
    """Every drain: first those of more files, then those of more detectors."""
    if quick:
        counts, rounds = {200: 1, 500: 1, 1_000: 1}, 1
        detectors, each = [1, 2], 200
    else:
        counts, rounds = {1_000: 5, 10_000: 5, 100_000: 2}, 4
        detectors, each = [1, 2, 4, 8], 3_000
    drain(1, min(counts))  # not counted: the first one finds every program unread
    files = [
        drain(1, count)
        for number in range(max(counts.values()))
        for count in counts
        if number < counts[count]
    ]
    more = [drain(number, each) for _ in range(rounds) for number in detectors]
    return {"size": SIZE, "files": files, "detectors": more}


def drain(detectors: int, files: int) -> Data:
    """One drain of so many files of each detector."""
    stations = make_stations(detectors)
    install(Path(os.environ["CONFIRMING_RSYNC_BINARY"]), stations)
    remove(JOURNALS)  # those of the drain before are of a dead daemon
    names = sorted(names_of(files))
    for station in stations:
        remove(station.target)
        fill(station, names)
    servers = [station.server for station in stations]
    try:
        for server in servers:
            server.start()
        result = drain_by_daemon(stations, names)
    finally:
        stop(servers)
    for station in stations:
        check(station, names)
        remove(station.target)
    return {"detectors": detectors, "files": detectors * files, **result}


def drain_by_daemon(stations: list[Station], names: list[str]) -> Data:
    total = len(names) * len(stations)
    with Consumer(nap=0.005) as consumer, Daemon() as daemon:
        begin = time.monotonic()
        started = daemon.start()
        assert daemon.detached, started.errors + daemon.log()
        consumer.wait_for(total, LIMIT)
        # The processor time of a copy process counts once the daemon has taken its status.
        wait_until(lambda: not file_lists(), "the end of the cycles", LIMIT)
        result = {
            "daemon": processor_time.of_process(daemon.pid),
            "children": processor_time.of_children(daemon.pid),
            "faults": int(processor_time.statistics_of(daemon.pid)[7]),
            "memory": int(status_field(daemon.pid, "VmHWM").split()[0]) * 1024,
        }
        daemon.end()
    for station in stations:
        announced = consumer.names_below(station.announced_target)
        assert sorted(announced) == names, f"{len(announced)} of {len(names)} were announced"
    return {"seconds": consumer.records()[-1].arrival - begin, **result}


def stop(servers: list[RsyncServer]) -> None:
    for server in servers:
        server.kill()


def names_of(count: int) -> list[str]:
    """Names of 29 characters in folders of a thousand."""
    return [f"run_{number // 1000:04d}/frame_{number:010d}.raw" for number in range(count)]


def content(number: int) -> bytes:
    begin = number % (len(BLOCK) - SIZE)
    return BLOCK[begin : begin + SIZE]


def fill(station: Station, names: list[str]) -> None:
    root = station.simulator.root
    remove(root)
    for folder in {os.path.dirname(name) for name in names}:
        (root / folder).mkdir(parents=True)
    for number, name in enumerate(names):
        with open(f"{root}/{name}", "wb", buffering=0) as file:
            file.write(content(number))


def check(station: Station, names: list[str]) -> None:
    """Every file is at the target as it was, and none is left."""
    for number, name in enumerate(names):
        with open(f"{station.target}/{name}", "rb", buffering=0) as file:
            assert file.read() == content(number), f"{name} is another file"
    left = [name for _, _, inside in os.walk(station.simulator.root) for name in inside]
    assert not left, f"{len(left)} files are left"
