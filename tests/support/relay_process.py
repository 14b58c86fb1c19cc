"""skarn-relay as a process in the sandbox: its configuration, its pipe, its records."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import TypedDict, cast

from support.daemon import FIFO, sanitizer_environment
from support.waiting import LIMIT, wait_until

sys.path.insert(0, os.environ.get("SKARN_RELAY_CLIENT", ""))

import skarn_relay  # noqa: E402

__all__ = ["CONFIGURATION", "LOG", "MESSAGES", "Relay", "announce", "make_files", "skarn_relay"]

CONFIGURATION = Path("/run/relay.toml")
LOG = Path("/var/lib/skarn/relay")
MESSAGES = Path("/tmp/relay.messages")


class SubscriberStatus(TypedDict):
    """What is told of one subscriber."""

    name: str
    problem: str
    acknowledged: int
    lag: int
    delivered: int
    attempts: int
    failures: int
    dead_letters: int
    dropped: int


class Status(TypedDict):
    """What is told of the relay, as far as tests ask for it."""

    problem: str
    records: int
    repeats: int
    stalls: int
    bytes_waiting: int
    first: int
    last: int
    subscribers: list[SubscriberStatus]


class Relay:
    """One relay, which can be ended and started again with the same log.

    Those of a test share a configuration file and the relay's own places, but for one that has a
    `folder` of its own, with its configuration, its messages and its socket.
    """

    all: list[Relay] = []  # of one test

    def __init__(
        self,
        configuration: str = "",
        binary: str = "SKARN_RELAY_BINARY",
        folder: Path | None = None,
    ) -> None:
        self._binary = os.environ[binary]
        self._file = folder / "relay.toml" if folder else CONFIGURATION
        self._messages = folder / "messages" if folder else MESSAGES
        self.configuration = configuration
        self.process: subprocess.Popen[bytes] | None = None
        self.client = (
            skarn_relay.Relay(str(folder / "socket"), timeout=LIMIT)
            if folder
            else skarn_relay.Relay(timeout=LIMIT)
        )
        self.environment: dict[str, str] = {}
        Relay.all.append(self)

    def start(self, wait: bool = True, before: Sequence[str] = ()) -> None:
        """Starts it, and waits until it answers. What stands `before` its command runs it."""
        self._file.write_text(self.configuration, encoding="utf-8")
        with self._messages.open("ab") as messages:
            self.process = subprocess.Popen(
                [*before, self._binary, "run", "--config", str(self._file)],
                stderr=messages,
                env=self.whole_environment(),
            )
        if wait:
            wait_until(self.answers, lambda: f"the relay to answer: {self.messages()}")

    def whole_environment(self) -> dict[str, str]:
        """What it is started with."""
        environment = {**os.environ, **sanitizer_environment()}
        # Debian's libraries are not instrumented. How two of their threads wait for each other (for
        # a static that one of them sets up, say) ThreadSanitizer does not see, and what they read
        # and write then passes for a race. Ours are all seen.
        environment["TSAN_OPTIONS"] += ":ignore_noninstrumented_modules=1"
        return {**environment, **self.environment}

    def answers(self) -> bool:
        """Whether it is up. Complains if it has ended."""
        assert self.process is not None
        assert self.process.poll() is None, self.messages()
        try:
            self.client.status()
        except OSError:
            return False
        return True

    def is_running(self) -> bool:
        """Whether it has been started and not ended."""
        return self.process is not None and self.process.poll() is None

    def kill(self) -> None:
        """SIGKILL, at once."""
        assert self.process is not None
        self.process.kill()
        self.process.wait()

    def stop(self) -> int:
        """SIGTERM; returns its exit status."""
        assert self.process is not None
        self.process.terminate()
        return self.process.wait(LIMIT)

    def command(self, *words: str) -> subprocess.CompletedProcess[str]:
        """One of its other commands, with the same configuration."""
        return subprocess.run(
            [self._binary, *words], capture_output=True, text=True, timeout=LIMIT, check=False
        )

    def messages(self) -> str:
        """All that it has said, and those before it in its place."""
        return self._messages.read_text(encoding="utf-8", errors="replace")

    def status(self) -> Status:
        """Its own account of itself."""
        return cast(Status, self.client.status())

    def records(self, **query: object) -> list[skarn_relay.Record]:
        """All records of the log that match."""
        found: list[skarn_relay.Record] = []
        after = 0
        while True:
            asked = [*query.items(), ("after", after), ("limit", 10000)]
            lines = self.client.request("GET", "records", asked)
            page = [skarn_relay.Record(json.loads(line)) for line in lines.splitlines()]
            if not page:
                return found
            found += page
            after = page[-1].seq

    def paths(self) -> list[str]:
        """The paths of all files of the log."""
        return [record.path for record in self.records()]

    def wait_for_last(self, number: int) -> None:
        """Waits until the log has that many records."""
        wait_until(
            lambda: self.status()["last"] >= number,
            lambda: f"{number} records: {self.status()} {self.messages()}",
        )


def end_all() -> None:
    """Ends the relays that a test leaves running. How they end is part of the test, too: in good
    order, and with a sanitizer's last word."""
    relays = Relay.all.copy()
    Relay.all.clear()
    for relay in relays:
        if relay.is_running():
            assert relay.stop() == 0, relay.messages()


def announce(*lines: bytes | str, fifo: Path = FIFO) -> None:
    """Writes lines into the pipe, each with one call, as the daemon does."""
    descriptor = os.open(fifo, os.O_WRONLY)
    try:
        for line in lines:
            os.write(descriptor, (line if isinstance(line, bytes) else os.fsencode(line)) + b"\n")
    finally:
        os.close(descriptor)


def make_files(count: int, folder: str = "/srv/t", prefix: str = "f") -> list[str]:
    """Files at a target, and their paths as the daemon announces them."""
    Path(folder).mkdir(parents=True, exist_ok=True)
    names = [f"{prefix}{number:05d}" for number in range(count)]
    for name in names:
        Path(folder, name).write_text(name, encoding="ascii")
    return [f"{folder}/./{name}" for name in names]
