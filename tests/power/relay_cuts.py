"""A cut of the power under the relay's log, at random instants and after each of its system calls.

The log's folder is on a disk whose power is cut (disk.py). Lines come into the daemon's pipe, and a
subscriber fetches and acknowledges them. At an instant it is noted how much the relay has taken out
of the pipe by then, and what the subscriber has got; then the disk is copied. Each copy is looked
at afterwards, by a fresh relay with an empty pipe, as after a start of the machine:

- every line that was taken out is in the log, in order, and nothing is there twice or set aside;
- what the subscriber had got stands there under the same number;
- the subscriber gets all that it had not got, and a new line gets a number that none had before.
"""

from __future__ import annotations

import fcntl
import http.client
import os
import re
import signal
import struct
import termios
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from random import Random

from power.bed import STATE, Host, Outcome
from power.disk import Disk, Store
from relay_points import TRACE, TracedRelay
from support.daemon import FIFO
from support.relay_process import MESSAGES, Relay, announce, skarn_relay
from support.waiting import wait_until

LINE = "/srv/images/1/./{:07d}"
LINES = 30  # in a run with a cut after each call
LENGTH = len(LINE.format(0)) + 1
# The calls of a log's work that may change what is on a disk.
CALLS = "openat,write,pwrite64,ftruncate,fallocate,fsync,fdatasync,rename,unlink,mkdir,fchmod,fchown"
INWARD = re.compile(r'openat\((?!.*O_CREAT)|write\((\d+<)?[12],')  # these change nothing there
LAST_CALL = re.compile(
    rf"^\d+ +(?:<\.\.\. )?((?:{CALLS.replace(',', '|')})\b.*)$", re.MULTILINE
)
CALLS_FOR = 60.0  # seconds that a run with a cut after each call may last


def seen_sequence(record: skarn_relay.Record) -> tuple[int, str]:
    """What must not change about a record."""
    return record.seq, record.path


class Pipe:
    """The daemon's pipe, held open, and a writer of numbered lines."""

    def __init__(self) -> None:
        os.mkfifo(FIFO, 0o600)
        self._held = os.open(FIFO, os.O_RDWR | os.O_NONBLOCK)
        self.written = 0  # lines
        self._end = threading.Event()
        self._thread: threading.Thread | None = None

    def start(self, rng: Random, most: int = 10**6) -> None:
        """Writes lines in bursts, on a thread."""
        self._thread = threading.Thread(target=self._write, args=(rng, most), daemon=True)
        self._thread.start()

    def _write(self, rng: Random, most: int) -> None:
        descriptor = os.open(FIFO, os.O_WRONLY)
        while not self._end.is_set() and self.written < most:
            for _ in range(min(rng.choice((1, 5, 200)), most - self.written)):
                os.write(descriptor, os.fsencode(LINE.format(self.written) + "\n"))
                self.written += 1
            self._end.wait(rng.uniform(0, 0.02))
        os.close(descriptor)

    def taken(self) -> int:
        """How many lines are out of it, at least."""
        written = self.written
        return written - waiting(self._held) // LENGTH

    def close(self) -> None:
        """Ends the writer, too."""
        self._end.set()
        if self._thread is not None:
            self._thread.join(30)
        os.close(self._held)


def waiting(descriptor: int) -> int:
    """How many bytes wait in a pipe."""
    return int(struct.unpack("i", fcntl.ioctl(descriptor, termios.FIONREAD, b"\0" * 4))[0])


class Subscriber:
    """Fetches and acknowledges over HTTP, on a thread."""

    def __init__(self) -> None:
        self.got: list[tuple[int, str]] = []
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        while not self._end.wait(0.01):
            with suppress(OSError, http.client.HTTPException, skarn_relay.RelayError):
                subscription = skarn_relay.Relay(timeout=5).subscribe("me")
                found = subscription.fetch(limit=100)
                self.got += map(seen_sequence, found)
                if found:
                    subscription.acknowledge(found[-1])

    def stop(self) -> None:
        """Fetches no more."""
        self._end.set()
        self._thread.join(30)


@dataclass
class Cut:
    """What was known at one cut of the power."""

    what: str
    disk: Disk
    taken: int  # lines out of the pipe before it
    before: list[tuple[int, str]]  # what the subscriber had got before it
    got: list[tuple[int, str]]  # what it may have acknowledged before it


def take_cut(disk: Disk, pipe: Pipe, subscriber: Subscriber, taken: list[Cut], what: str) -> None:
    """Cuts the power of one of this machine's likes."""
    lines, before = pipe.taken(), list(subscriber.got)
    copy = disk.cut(f"cut-{len(taken)}")
    taken.append(Cut(what, copy, lines, before, list(subscriber.got)))


@contextmanager
def at_work(host: Host, disk: Disk) -> Iterator[tuple[Pipe, Subscriber]]:
    """An empty disk, a pipe and a subscriber, which end with the block."""
    host.boot()
    MESSAGES.unlink(missing_ok=True)
    disk.attach([STATE])
    disk.flush()
    pipe, subscriber = Pipe(), Subscriber()
    try:
        yield pipe, subscriber
    finally:
        subscriber.stop()
        pipe.close()


def cut_at_random(disk_kind: str, seed: str, number: int, flushes: bool = True) -> Outcome:
    """Cuts in a stream of lines, in an empty sandbox. Without `flushes` the relay is kept from
    flushing anything, so that the log must lose records.
    """

    def live(disk: Disk, pipe: Pipe, subscriber: Subscriber) -> list[Cut]:
        rng = Random(f"relay {seed}")
        taken: list[Cut] = []
        relay = TracedRelay()
        if flushes:
            relay.start()
        else:
            relay.start_traced("inject=fsync,fdatasync,msync:retval=0")
        pipe.start(rng)
        for _ in range(number):
            time.sleep(rng.uniform(0.02, 0.3))
            if flushes and rng.random() < 0.2:
                relay.kill()  # what it leaves is as good as what a cut finds
                relay.start()
            take_cut(disk, pipe, subscriber, taken, "at random")
        relay.kill()
        return taken

    return life(disk_kind, seed, live)


def cut_at_calls(disk_kind: str, seed: str) -> Outcome:
    """Cuts after each system call of a small run that may change what is on the disk."""

    def live(disk: Disk, pipe: Pipe, subscriber: Subscriber) -> list[Cut]:
        taken: list[Cut] = []
        relay = TracedRelay()
        TRACE.unlink(missing_ok=True)
        pipe.start(Random(f"relay {seed}"), most=LINES)
        begun = threading.Thread(
            target=relay.start_traced, args=(f"inject={CALLS}:signal=STOP",), daemon=True
        )
        begun.start()
        wait_until(lambda: relay.process is not None and TRACE.exists(), "strace")
        end = time.monotonic() + CALLS_FOR
        stops = 0
        assert relay.process is not None
        while time.monotonic() < end:
            text = TRACE.read_text(encoding="utf-8", errors="replace")
            now = text.count("--- stopped by SIGSTOP")
            if now > stops:
                stops = now
                call = LAST_CALL.findall(text)[-1]
                if not INWARD.match(call):
                    take_cut(disk, pipe, subscriber, taken, f"after {call[:80]}")
                os.kill(relay.process.pid, signal.SIGCONT)
            elif relay.process.poll() is not None:
                break
            elif len(subscriber.got) >= LINES:
                os.kill(relay.process.pid, signal.SIGTERM)  # its end writes the database
            time.sleep(0.001)
        begun.join(30)
        if time.monotonic() > end:
            relay.end_traced()
            raise AssertionError(f"the relay was not done in {CALLS_FOR:g} s")
        return taken

    return life(disk_kind, seed, live)


def life(
    disk_kind: str, seed: str, live: Callable[[Disk, Pipe, Subscriber], list[Cut]]
) -> Outcome:
    """One life of a disk, and what its cuts came to."""
    outcome = Outcome()
    with Store() as store:
        host = Host(store, seed, 0, 0)
        disk = store.new_disk(disk_kind, 1)
        try:
            with at_work(host, disk) as (pipe, subscriber):
                taken = live(disk, pipe, subscriber)
        finally:
            disk.detach()
            disk.remove()
        for each in taken:
            outcome.add(check(host, each))
    return outcome


def check(host: Host, cut: Cut) -> Outcome:
    """Looks at what a cut has left, and lets a fresh relay go on with it."""
    try:
        with at_work_after(host, cut) as relay:
            begin = time.monotonic()
            relay.start()
            logged = relay.records()
            subscription = skarn_relay.Relay(timeout=10).subscribe("me")
            rest: list[tuple[int, str]] = []
            while found := subscription.fetch(limit=10000):
                rest += map(seen_sequence, found)
                subscription.acknowledge(found[-1])
            announce("/srv/images/1/./new")
            wait_until(lambda: relay.status()["last"] > len(logged), "a new line")
            took = time.monotonic() - begin
            new = relay.records()[-1]
            said = relay.messages()
            relay.kill()
    finally:
        cut.disk.remove()
    paths = [each.path for each in logged]
    lost = [LINE.format(n) for n in range(cut.taken) if LINE.format(n) not in set(paths)]
    known = set(map(seen_sequence, logged))
    got = {*cut.got, *rest}
    missed = [each for each in known if each not in got]
    broken = [f"{path} was taken out of the pipe and is not in the log" for path in lost[:5]]
    broken += [f"{path} was never delivered" for _, path in missed[:5]]
    astray = sorted(set(cut.before) - known)
    broken += [f"{each} was delivered, and is not in the log" for each in astray[:5]]
    if paths != [LINE.format(n) for n in range(len(paths))]:
        broken.append(f"the log is not in order, or has something twice: {paths[:50]}")
    if new.path != "/srv/images/1/./new" or any(new.seq <= seq for seq, _ in cut.got):
        broken.append(f"the new line is {new}, and {max(cut.got)} was delivered before the cut")
    if "set aside" in said or "damaged" in said:
        broken.append(f"the log was taken for damaged: {said}")
    return Outcome(
        cuts=1,
        files=cut.taken,
        lost=len(lost),
        never_announced=len(missed),
        again=len(set(cut.got) & set(rest)),
        went_on=1,
        recovered_in=took,
        broken=[f"{cut.what}: {each}" for each in broken],
    )


@contextmanager
def at_work_after(host: Host, cut: Cut) -> Iterator[Relay]:
    """The disk of a cut, an empty pipe and a relay that is not started, for as long as the block
    lasts.
    """
    host.boot()
    MESSAGES.unlink(missing_ok=True)
    cut.disk.attach([STATE])
    pipe, relay = Pipe(), Relay()
    try:
        yield relay
    finally:
        if relay.process is not None and relay.process.poll() is None:
            relay.kill()
        pipe.close()
        cut.disk.detach()
