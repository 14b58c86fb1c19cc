"""A detector that writes at a steady rate, and how long each of its files is on the way."""

from __future__ import annotations

import os
import signal
import statistics
import subprocess
import threading
import time
from bisect import bisect_right
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from pathlib import Path
from typing import Any

import processor_time
from drain.share import empty
from drain.ways import LIMIT, script_command
from support.bed import Station
from support.consumer import Consumer
from support.daemon import Daemon, file_lists
from support.waiting import wait_until

RATE = 500  # files a second
SIZE = 20_000
STEP = 0.5  # seconds between two counts of the files that are on the way


class Producer:
    """Writes files at a steady rate and notes when each got its name (wall clock)."""

    def __init__(self, folder: Path, seconds: float) -> None:
        self.appeared: dict[str, float] = {}
        self._folder = folder
        self._count = int(RATE * seconds)
        self._thread = threading.Thread(target=self._produce, daemon=True)

    def start(self) -> None:
        self._thread.start()

    def wait(self, seconds: float) -> None:
        self._thread.join(seconds)
        assert not self._thread.is_alive(), "the detector did not keep to its rate"

    def _produce(self) -> None:
        content = bytes(SIZE)
        begin = time.monotonic()
        for number in range(self._count):
            ahead = begin + number / RATE - time.monotonic()
            if ahead > 0:
                time.sleep(ahead)
            name = f"frame_{number:06d}.raw"
            unfinished = self._folder / f"{name}.tmp"
            with open(unfinished, "wb", buffering=0) as file:
                file.write(content)
            self.appeared[name] = time.time()
            os.rename(unfinished, self._folder / name)


def stream_by_daemon(station: Station, seconds: float) -> dict[str, Any]:
    """The delays from each file's appearance to its line in the pipe, and the processor times."""
    empty(station)
    with station.server, Consumer() as consumer, Daemon() as daemon:
        started = daemon.start()
        assert daemon.detached, started.errors + daemon.log()
        producer = Producer(station.simulator.root, seconds)
        before, own = processor_time.of_ended(), processor_time.of_process(daemon.pid)
        # The consumer's clock is the monotonic one.
        offset = time.time() - time.monotonic()
        producer.start()
        producer.wait(seconds * 1.5 + 10)
        consumer.wait_for(len(producer.appeared), LIMIT)
        wait_until(lambda: not file_lists(), "the end of the cycle")
        own = processor_time.of_process(daemon.pid) - own
        cycles = daemon.log().count(" copy processes\n")
        daemon.end()
        clients = processor_time.of_ended() - before
        station.server.stop()
        server = processor_time.of_ended() - before - clients
    prefix = f"{station.announced_target}/"
    arrivals = {
        record.line[len(prefix) :]: record.arrival + offset
        for record in consumer.records()
        if record.line.startswith(prefix)
    }
    return result(producer, arrivals, seconds) | {
        "daemon": own,
        "clients": clients,
        "server": server,
        "cycles": cycles,
    }


def stream_by_script(station: Station, script: str, pause: float, seconds: float) -> dict[str, Any]:
    """The delays from each file's appearance to its arrival at the target, by a script's passes.

    When a file got its name at the target, its own time of change tells. What has not arrived soon
    after the end never does.
    """
    empty(station)
    with station.server:
        producer = Producer(station.simulator.root, seconds)
        before = processor_time.of_ended()
        with running(script_command(script, station, pause, None)):
            producer.start()
            producer.wait(seconds * 1.5 + 10)
            in_time = arrived_within(10, station, len(producer.appeared))
        clients = processor_time.of_ended() - before
        station.server.stop()
        server = processor_time.of_ended() - before - clients
    arrivals = {
        entry.name: entry.stat().st_ctime
        for entry in os.scandir(station.target)
        if not entry.name.startswith(".")
    }
    return result(producer, arrivals, seconds) | {
        "clients": clients,
        "server": server,
        "left_behind": len(producer.appeared) - in_time,
    }


def arrived_within(seconds: float, station: Station, count: int) -> int:
    """How many of `count` files have arrived, after at most that time."""
    end = time.monotonic() + seconds
    while len(os.listdir(station.target)) < count and time.monotonic() < end:
        time.sleep(0.05)
    return min(count, len(os.listdir(station.target)))


@contextmanager
def running(command: list[str]) -> Iterator[None]:
    """Runs a script for as long as the block lasts, and ends it with all that it started."""
    process = subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
        start_new_session=True,
    )
    try:
        yield
        assert process.poll() is None, "the script has ended"
    finally:
        with suppress(ProcessLookupError):  # it had ended, which the assertion says
            os.killpg(process.pid, signal.SIGTERM)
        process.wait(30)


def result(producer: Producer, arrivals: dict[str, float], seconds: float) -> dict[str, Any]:
    """The delays by their percentiles, and how many files were on the way every half second."""
    appeared = sorted(producer.appeared.values())
    arrived = sorted(arrivals[name] for name in producer.appeared if name in arrivals)
    begin = appeared[0]
    moments = [begin + number * STEP for number in range(1, int(seconds / STEP) + 1)]
    delays = [
        arrivals[name] - moment for name, moment in producer.appeared.items() if name in arrivals
    ]
    return {
        "files": len(appeared),
        "seconds": seconds,
        "rate": round((len(appeared) - 1) / (appeared[-1] - begin), 1),
        "arrived": len(arrived),
        "delay_percentiles": [
            round(delay, 4) for delay in statistics.quantiles(delays, n=100, method="inclusive")
        ],
        "longest_delay": round(max(delays), 4),
        "on_the_way": [
            bisect_right(appeared, moment) - bisect_right(arrived, moment) for moment in moments
        ],
    }
