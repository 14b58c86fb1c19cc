"""The relay in the place of the bed's consumer, with a subscriber of each kind, and their account.

The bed's consumer reads the pipe subscriber. A program is run for the command subscriber, which
keeps what it is given, and a thread fetches over HTTP.
"""

from __future__ import annotations

import http.client
import os
import threading
from collections import Counter
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from contextlib import suppress
from pathlib import Path

from faults.consumer import CheckingConsumer
from support.daemon import FIFO
from support.processes import processes
from support.relay_process import LOG, MESSAGES, Relay, skarn_relay
from support.waiting import wait_until

PIPE = Path("/run/subscriber")
HOOK = Path("/run/stop-after-commit")  # stops the relay between the commit and the taking out
PROGRAM = Path("/srv/keeper")
KEPT = Path("/srv/kept")
FAILS = Path("/run/keeper-fails")
HANGS = Path("/run/keeper-hangs")
# What one that was killed began stands for itself, in front of a zero byte.
SCRIPT = f"""\
#!/bin/sh
[ ! -e {FAILS} ] || exit 1
while [ -e {HANGS} ]; do sleep 0.05; done
printf '\\0' >>{KEPT}
exec cat >>{KEPT}
"""
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
batch = 100
attempts = 2
back_off = 1
back_off_limit = 1
"""


def differences(
    logged: Sequence[skarn_relay.Record],
    wanted: set[str],
    allowed: set[str],
    got: Mapping[str, list[str]],
    unordered: set[str],
) -> Iterator[str]:
    """What differs from the promise: each file of `wanted` is in the log once, besides those only
    some that are `allowed`, and each subscriber got all of them in the order of the log, where those
    that came again don't count. Of the `unordered` subscribers the order is not asked.
    """
    files = [each.path for each in logged if each.kind == "file"]
    yield from missing_or_strange("the log", files, wanted, allowed)
    again = sorted(path for path, count in Counter(files).items() if count > 1)
    if again:
        yield f"{len(again)} files are in the log twice, among them {again[0]}"
    for each in logged:
        if each.kind == "other":
            yield f"in the log is a line that is no record: {each.path!r}"
    numbers = [each.seq for each in logged]
    if any(second <= first for first, second in zip(numbers, numbers[1:])):
        yield "a number of the log was given twice"
    for name, paths in got.items():
        yield from missing_or_strange(f"what subscriber {name} got", paths, set(files), set())
        if list(dict.fromkeys(paths)) != files and name not in unordered:
            yield f"subscriber {name} got its files in another order than the log's"


def missing_or_strange(
    what: str, found: Iterable[str], wanted: set[str], allowed: set[str]
) -> Iterator[str]:
    """Which of the wanted ones were not found, and what was found beside these and the allowed."""
    missing = sorted(wanted - set(found))
    strange = sorted(set(found) - wanted - allowed)
    if missing:
        yield f"{len(missing)} files are missing in {what}, among them {missing[0]}"
    if strange:
        yield f"{len(strange)} too many are in {what}, among them {strange[0]!r}"


class Fetcher:
    """The subscriber over HTTP, which begins anew whenever it is cut off."""

    def __init__(self) -> None:
        self.fetched: list[str] = []  # the paths, as they came
        self.hangs = False  # keeps away from the relay
        self.forgets = 0  # so many times it does not acknowledge what it has fetched
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def start(self) -> None:
        """Begins to fetch."""
        self._thread.start()

    def stop(self) -> None:
        """Fetches no more."""
        self._end.set()
        if self._thread.is_alive():
            self._thread.join(60)
        assert not self._thread.is_alive(), "the fetcher did not stop"

    def _run(self) -> None:
        while not self._end.wait(0.02):
            # What can't be had now, because the relay is dead or its disk full, comes later.
            with suppress(OSError, skarn_relay.RelayError, http.client.HTTPException):
                if not self.hangs:
                    self._fetch()

    def _fetch(self) -> None:
        subscription = skarn_relay.Relay(timeout=10).subscribe("fetcher")
        found = subscription.fetch(limit=200, wait=1)
        self.fetched += [record.path for record in found]
        if found and self.forgets:
            self.forgets -= 1
        elif found:
            subscription.acknowledge(found[-1])


class BehindRelay:
    """One relay with its subscribers. What is wrong is told to `complain`."""

    pipe = PIPE  # what the bed's consumer reads

    def __init__(self, consumer: CheckingConsumer, complain: Callable[[str], None]) -> None:
        self.relay = Relay(CONFIGURATION, binary="SKARN_RELAY_FOR_TESTS_BINARY")
        self.relay.environment = {"SKARN_RELAY_STOP_AFTER_COMMIT": str(HOOK)}
        self.fetcher = Fetcher()
        self.kills = 0
        self._consumer = consumer
        self._complain = complain
        self._held = -1
        self._logged: list[skarn_relay.Record] = []  # by databases that were damaged since

    # What faults use.

    def kill(self) -> None:
        """SIGKILL; counts it. It must run, or be stopped."""
        if self._has_ended():
            self._complain(f"the relay ended on its own: {self.relay.messages()[-2000:]}")
        self.relay.kill()
        self.kills += 1

    def start(self, wait: bool = True) -> None:
        """Starts it again; with `wait` it answers on return."""
        self.relay.start(wait)

    def start_if_ended(self) -> None:
        """Starts it again if it has given up for want of a log, as it may."""
        with suppress(AssertionError):
            wait_until(lambda: self._has_ended() or self.relay.answers(), "the relay to answer", 10)
        if self._has_ended():
            self.start()

    def _has_ended(self) -> bool:
        assert self.relay.process is not None
        return self.relay.process.poll() is not None

    @property
    def pid(self) -> int:
        """Of the relay that was started last."""
        assert self.relay.process is not None
        return self.relay.process.pid

    def programs(self) -> list[int]:
        """The command subscriber's programs that run now."""
        return [
            each.pid for each in processes() if each.parent == self.pid and not each.is_zombie
        ]

    def has_all_out(self) -> bool:
        """Whether the pipe is empty and every subscriber has acknowledged all that is logged."""
        try:
            status = self.relay.status()
        except (OSError, http.client.HTTPException, skarn_relay.RelayError):
            return False
        lags = [each["lag"] for each in status["subscribers"]]
        return status["bytes_waiting"] == 0 and len(lags) == 3 and not any(lags)

    def remember_log(self) -> None:
        """Keeps the account of what is logged now, for the database is about to be damaged."""
        known = self._logged[-1].seq if self._logged else 0
        self._logged += [each for each in self.relay.records() if each.seq > known]

    # What the bed uses.

    def hold_pipe(self) -> None:
        """Makes the daemon's pipe and holds it open, as systemd does."""
        FIFO.unlink(missing_ok=True)
        os.mkfifo(FIFO, 0o600)
        self._held = os.open(FIFO, os.O_RDWR | os.O_NONBLOCK)

    def begin(self) -> None:
        """Starts the relay and its subscribers."""
        LOG.mkdir(parents=True, exist_ok=True)
        PROGRAM.write_text(SCRIPT, encoding="ascii")
        PROGRAM.chmod(0o755)
        KEPT.touch()
        self.start()
        self.fetcher.start()

    def end(self) -> None:
        """Ends both, whatever state they are in."""
        self.fetcher.stop()
        process = self.relay.process
        if process is not None and process.poll() is None:
            self.relay.kill()
        if self._held >= 0:
            os.close(self._held)
            self._held = -1

    def describe(self) -> str:
        """Its state, for whoever asks why something stands still."""
        with suppress(OSError, http.client.HTTPException, skarn_relay.RelayError):
            return f"{self.relay.status()}"
        return f"the relay does not answer: {self.relay.messages()[-2000:]}"

    def judge(self, wanted: set[str], allowed: set[str]) -> None:
        """Compares the log, and what each subscriber got, with the paths of the files that had to
        be announced, and of those that may have been. To be called when all is quiet.
        """
        try:
            wait_until(self.has_all_out, "every subscriber to have all", 30)
            letters = self._retry_dead_letters()
            self.remember_log()
        except (AssertionError, OSError, http.client.HTTPException, skarn_relay.RelayError) as error:
            self._complain(f"{error!r}: {self.describe()}")
            return
        self.fetcher.stop()
        files = {each.path for each in self._logged}
        got = {
            "pipe": self._consumer.paths,
            "fetcher": self.fetcher.fetched,
            "command": self._kept(files),
        }
        # A record that became a dead letter lets those behind it go first.
        unordered = {"command"} if letters else set()
        for sentence in differences(self._logged, wanted, allowed, got, unordered):
            self._complain(sentence)
        messages = self.relay.messages()
        for sign in ("Sanitizer", "runtime error:", "another program reads the pipe"):
            if sign in messages:
                self._complain(messages[max(0, messages.index(sign) - 200) :][:6000])

    def _retry_dead_letters(self) -> int:
        """Has the command subscriber's dead letters delivered; returns how many there were."""

        def letters() -> int:
            return sum(each["dead_letters"] for each in self.relay.status()["subscribers"])

        found = letters()
        if found:
            self.relay.client.request(
                "POST", "subscribers/command/dead-letters/retry", [("seq", "all")]
            )
            wait_until(lambda: not letters(), "the dead letters to be delivered")
        return found

    def _kept(self, files: set[str]) -> list[str]:
        """What the programs kept, but for the beginnings that those which were killed wrote."""
        parts = [os.fsdecode(part) for part in KEPT.read_bytes().split(b"\0") if part]
        return [
            part
            for part in parts
            if part in files or not any(path.startswith(part) for path in files)
        ]
