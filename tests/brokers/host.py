"""A host that collects: a relay of its own, with its pipe, its log, and a broker to deliver to."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from pathlib import Path
from typing import Any

from support.daemon import sanitizer_environment
from support.waiting import LIMIT, wait_until

sys.path.insert(0, os.environ.get("SKARN_RELAY_CLIENT", ""))

import skarn_relay  # noqa: E402

# What a broker that is under way again may need to be found, besides the test's own limit.
PATIENCE = 4 * LIMIT


class Host:
    """Its relay can be ended and started again; what the pipe holds outlives it."""

    all: list[Host] = []  # of one test

    def __init__(self, subscriber: str, name: str = "host1") -> None:
        self.name = name
        self.folder = Path("/tmp", name)
        self.folder.mkdir()
        self.process: subprocess.Popen[bytes] | None = None
        self.client = skarn_relay.Relay(str(self.folder / "socket"), timeout=LIMIT)
        self._pipe = self.folder / "pipe"
        os.mkfifo(self._pipe)
        self._held = os.open(self._pipe, os.O_RDWR | os.O_NONBLOCK)
        self._announced = 0
        self.configure(subscriber)
        Host.all.append(self)

    def configure(self, subscriber: str) -> None:
        """What its subscriber is like from its next start on."""
        self.subscriber = subscriber
        (self.folder / "relay.toml").write_text(
            f"""
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
""",
            encoding="utf-8",
        )

    def start(self) -> None:
        """Starts the relay, and waits until it answers."""
        environment = {**os.environ, **sanitizer_environment()}
        # Kafka's library is not instrumented, and locks in ways that ThreadSanitizer does not know: what it does within
        # itself is no race.
        environment["TSAN_OPTIONS"] += ":ignore_noninstrumented_modules=1"
        with (self.folder / "messages").open("ab") as messages:
            self.process = subprocess.Popen(
                [os.environ["SKARN_RELAY_BINARY"], "run", "--config", self.folder / "relay.toml"],
                stderr=messages,
                env=environment,
            )
        wait_until(self._answers, lambda: f"the relay to answer: {self.messages()}")

    def _answers(self) -> bool:
        assert self.process is not None
        assert self.process.poll() is None, self.messages()
        try:
            self.client.status()
        except OSError:
            return False
        return True

    def kill(self) -> None:
        """SIGKILL, at once."""
        assert self.process is not None
        self.process.kill()
        self.process.wait()

    def stop(self) -> None:
        """SIGTERM; whatever its broker does, the relay ends by itself, and in good order."""
        assert self.process is not None
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(LIMIT) == 0, self.messages()

    def is_running(self) -> bool:
        """Whether its relay has been started and not ended."""
        return self.process is not None and self.process.returncode is None

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

    def messages(self) -> str:
        """All that its relays have said."""
        return (self.folder / "messages").read_text(encoding="utf-8", errors="replace")

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
