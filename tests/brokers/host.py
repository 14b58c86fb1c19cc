"""A host that collects: a relay of its own, with its pipe, its log, and a broker to deliver to."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

from support.relay_process import Relay
from support.waiting import LIMIT, wait_until

# What a broker that is under way again may need to be found, besides the test's own limit.
PATIENCE = 4 * LIMIT


class Host(Relay):
    """Its relay can be ended and started again; what the pipe holds outlives it."""

    def __init__(self, subscriber: str, name: str = "host1") -> None:
        self.name = name
        self.folder = Path("/tmp", name)
        self.folder.mkdir()
        super().__init__(folder=self.folder)
        self._pipe = self.folder / "pipe"
        os.mkfifo(self._pipe)
        self._held = os.open(self._pipe, os.O_RDWR | os.O_NONBLOCK)
        self._announced = 0
        self.configure(subscriber)

    def configure(self, subscriber: str) -> None:
        """What its subscriber is like from its next start on."""
        self.subscriber = subscriber
        self.configuration = f"""
[pipe]
path = "{self._pipe}"
[log]
folder = "{self.folder}/log"
[http]
socket = "{self.folder}/socket"
[[subscriber]]
name = "broker"
host = "{self.name}"
back_off_limit = 2
{subscriber}
"""

    def announce(self, count: int, ending: str = "") -> list[str]:
        """Has so many more files, and tells of each. Returns their paths, which end like that."""
        paths = [
            f"/srv/{self.name}/./run1/f{number:06d}{ending}"
            for number in range(self._announced, self._announced + count)
        ]
        self._announced += count
        descriptor = os.open(self._pipe, os.O_WRONLY)
        for path in paths:
            os.write(descriptor, path.encode() + b"\n")
        os.close(descriptor)
        return paths

    def figures(self) -> dict[str, Any]:
        """What is told of its one subscriber."""
        found: dict[str, Any] = self.client.status()["subscribers"][0]
        return found

    def wait_for_problem(self, words: str) -> str:
        """Waits until its status tells of a problem with these words; returns the whole of it."""
        wait_until(
            lambda: words in self.figures()["problem"],
            lambda: f"a problem with '{words}': {self.figures()}",
            PATIENCE,
        )
        return str(self.figures()["problem"])

    def wait_until_delivered(self, runs: int = 0) -> None:
        """Waits until the broker has confirmed all that was announced, and what was told of so many runs."""
        wait_until(
            lambda: self.client.status()["last"] >= self._announced + runs
            and self.figures()["lag"] == 0
            and not self.figures()["problem"],
            lambda: f"{self._announced} records to be confirmed: {self.figures()}",
            PATIENCE,
        )
