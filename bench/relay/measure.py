"""Takes the numbers of the relay, whose log is on an ext4 on a loop device, its image in memory.

- *Intake*: lines of files that are there go from the pipe into the log; beside that a bare reader of
  the pipe, and a bare insert of the same records in as many transactions (intake_speed.cpp).
- *Delay*: at 500 lines a second, from the write into the daemon's pipe to a subscriber's reading of
  its own; and what one flush of a page takes on the same disk, at the same rate.
- *Backlog*: ten million records that nobody has fetched yet, then fetched by two subscribers, one
  after the other (backlog.py).
- *Drain*: by the daemon, in memory, with a plain reader of the pipe, and with the relay and a reader
  of a subscriber's pipe in its place; to the last line that the reader gets. They take turns.
"""

from __future__ import annotations

import json
import os
import subprocess
import threading
import time
from dataclasses import asdict
from pathlib import Path

from drain.share import Workload, check, empty, fill, make_station
from drain.ways import CONSUMER_NAP, counted, drain_by_daemon
from durable.disk import disk
from relay import backlog
from results import Data
from support.bed import Station
from support.consumer import Consumer
from support.daemon import FIFO
from support.folders import empty as empty_folder
from support.relay_process import Relay
from turns import in_turns

SPEED = Path(os.environ["SKARN_RELAY_SPEED_BINARY"])
DISK = Path("/srv/disk-of-the-log")
FILES = Path("/srv/files")
PIPE = Path("/run/subscriber")
MINPAUSE = 100
RATE = 500  # lines a second
KEPT = 1000  # of the delays, about
WAYS = ("plain reader", "relay")
LIMIT = 600.0
CONFIGURATION = f"""\
[log]
folder = "{DISK}/log"

[[subscriber]]
name = "reader"
type = "pipe"
path = "{PIPE}"
"""


def measure(quick: bool) -> Data:
    size, rounds, lines, seconds, records, workload, drains = (
        (200 << 20, 1, 2_000, 1.0, 20_000, Workload(200, 20_000), 1)
        if quick
        else (6 << 30, 7, 100_000, 30.0, 10_000_000, Workload(8_000, 20_000), 15)
    )
    station = make_station(Path(os.environ["CONFIRMING_RSYNC_BINARY"]), MINPAUSE)
    with disk("ext4", size, DISK):
        return {
            "intake": [intake(lines) for _ in range(rounds)],
            "delay": {"rate": RATE, "lines": delays(seconds), "flushes": flushes(seconds)},
            "backlog": backlog.measure(os.environ["SKARN_RELAY_BINARY"], fresh(DISK / "b"), records),
            "drains": {
                "files": workload.files,
                "size": workload.size,
                "rounds": in_turns(WAYS, drains, lambda way: drain(station, way, workload)),
            },
        }


def fresh(folder: Path) -> Path:
    """The folder, empty."""
    folder.mkdir(parents=True, exist_ok=True)
    empty_folder(str(folder))
    return folder


def intake(lines: int) -> Data:
    """One round, the three ways one after the other."""
    places = [str(fresh(place)) for place in (DISK / "a", FILES)]
    command = [str(SPEED), places[0], str(lines), places[1]]
    done = subprocess.run(command, check=True, stdout=subprocess.PIPE, timeout=LIMIT)
    found: Data = json.loads(done.stdout)
    for each in places:
        empty_folder(each)
    return found


def start_relay() -> Relay:
    """One with an empty log and one pipe subscriber."""
    fresh(DISK / "log")
    for pipe in (FIFO, PIPE):
        pipe.unlink(missing_ok=True)
    relay = Relay(CONFIGURATION)
    relay.start()
    return relay


def delays(seconds: float) -> list[float]:
    """From each line's write to its arrival, in seconds, sorted and thinned."""
    folder = fresh(FILES)
    paths = [folder / f"frame_{number:06d}.raw" for number in range(int(RATE * seconds))]
    for path in paths:
        path.touch()
    relay = start_relay()
    written: list[float] = []

    def write() -> None:
        descriptor = os.open(FIFO, os.O_WRONLY)
        begin = time.monotonic()
        for number, path in enumerate(paths):
            time.sleep(max(0.0, begin + number / RATE - time.monotonic()))
            written.append(time.monotonic())
            os.write(descriptor, os.fsencode(f"{path}\n"))
        os.close(descriptor)

    try:
        with Consumer(PIPE) as consumer:
            writer = threading.Thread(target=write, daemon=True)
            writer.start()
            writer.join()
            consumer.wait_for(len(paths), LIMIT)
            records = consumer.records()
    finally:
        relay.stop()
    assert [record.line for record in records] == [str(path) for path in paths]
    return thinned([record.arrival - begin for record, begin in zip(records, written)])


def flushes(seconds: float) -> list[float]:
    """How long it takes to write one page and flush it, at the same rate, sorted and thinned."""
    taken = []
    with open(DISK / "flushed", "wb", buffering=0) as file:
        for _ in range(int(RATE * seconds)):
            begin = time.monotonic()
            file.write(bytes(4096))
            os.fdatasync(file.fileno())
            taken.append(time.monotonic() - begin)
            time.sleep(max(0.0, begin + 1 / RATE - time.monotonic()))
    return thinned(taken)


def thinned(values: list[float]) -> list[float]:
    """The values, sorted: every so many of them, so that some hundreds are kept, and the greatest."""
    every = sorted(values)
    step = max(1, len(every) // KEPT)
    return [round(each, 6) for each in [*every[step // 2 :: step], every[-1]]]


def drain(station: Station, way: str, workload: Workload) -> Data:
    """One drain, from filling the share to the check."""
    FIFO.unlink(missing_ok=True)
    relay = start_relay() if way == "relay" else None
    empty(station)
    fill(station, workload)
    reader = Consumer(PIPE if relay else FIFO, nap=CONSUMER_NAP)
    try:
        with counted(station, lambda: drain_by_daemon(station, workload.names(), reader)) as result:
            check(station, workload)
    finally:
        if relay is not None:
            relay.stop()
    return asdict(result)
