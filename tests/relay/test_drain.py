"""A drain of thousands of files through the daemon, the relay and three subscribers, each of which
is killed meanwhile: every subscriber has every file, in the order of the log.
"""

from __future__ import annotations

import http.client
import signal
import threading
import time
from contextlib import suppress
from pathlib import Path

from support.bed import Bed
from support.consumer import Consumer
from support.detector import frame_names
from support.relay_process import Relay, skarn_relay
from support.waiting import wait_until

PIPE = Path("/run/subscriber")
PROGRAM = Path("/srv/program")
OUTPUT = Path("/srv/output")
FILES = 2000  # of each of two detectors
PARTS = 12  # that they come in, with a kill of the relay in each
CONFIGURATION = f"""\
[[subscriber]]
name = "pipe"
type = "pipe"
path = "{PIPE}"

[[subscriber]]
name = "command"
type = "command"
command = ["{PROGRAM}"]
input = "nul"
batch = 200
"""


class Fetcher:
    """A subscriber over HTTP that begins anew whenever it is cut off."""

    def __init__(self) -> None:
        self.seen: list[str] = []
        self._stop = False
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self) -> Fetcher:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stop = True
        self._thread.join()

    def _run(self) -> None:
        while not self._stop:
            with suppress(OSError, skarn_relay.RelayError, http.client.HTTPException):
                subscription = skarn_relay.Relay(timeout=10).subscribe("fetcher")
                for record in subscription.fetch(limit=100, wait=1):
                    self.seen.append(record.path)
                    last = record
                if self.seen:
                    subscription.acknowledge(last)
            time.sleep(0.01)


def once(paths: list[str]) -> list[str]:
    """Without those that came again."""
    return list(dict.fromkeys(paths))


def programs() -> list[str]:
    return OUTPUT.read_bytes().decode().split("\0")[:-1] if OUTPUT.exists() else []


def test_every_subscriber_has_every_file_whoever_is_killed() -> None:
    PROGRAM.write_text(f"#!/bin/sh\ncat >>{OUTPUT}\n", encoding="ascii")
    PROGRAM.chmod(0o755)
    names = frame_names(FILES)
    bed = Bed(stations=2)
    bed.consumer = Consumer(PIPE)
    expected = {f"{station.announced_target}/{name}" for station in bed.stations for name in names}
    relay = Relay(CONFIGURATION)
    relay.start()
    with bed, Fetcher() as fetcher:
        bed.start()
        for part in range(PARTS):
            # What comes now meets a relay that is killed, and one that starts.
            for station in bed.stations:
                station.simulator.burst(names[part::PARTS])
            time.sleep(0.05)
            relay.kill()
            if part == PARTS // 2:
                bed.daemon.end(signal.SIGKILL)
                bed.start()
            relay.start()

        def all_have_all() -> bool:
            subscribers = (fetcher.seen, bed.consumer.announced(), programs())
            return all(expected <= set(each) for each in subscribers)

        wait_until(all_have_all, lambda: f"all to have all: {relay.status()}")
        bed.settle()
        bed.check(interrupted=True, again=set(names))
        logged = [record.path for record in relay.records()]
        assert once(logged) == logged, "logged twice"
        assert set(logged) == expected
        assert once(fetcher.seen) == logged
        assert once(bed.consumer.announced()) == logged
        assert once(programs()) == logged
        bed.daemon.end()
