"""Every system call of the copy program is a point at which it may die or fail.

A copy of a few files makes some hundred system calls, so no random moments are needed: strace ends
the copy program at its first, second, ... last call, or lets the n-th call of a kind fail, while
the daemon that started it lives on. Only the copy program itself is traced, not what it starts, and
the tracer is no relative of it. After each injection nothing is injected any more, until the files
are moved and announced; then comes the next.

The listing, which looks after what earlier copies have left, is treated the same way: before each
injection into it, the copy is killed when it is about to report.

Several detectors are served at once, each with injections of its own.
"""

from __future__ import annotations

import os
import queue
import re
import shlex
import threading
import time
from collections import Counter
from collections.abc import Iterator
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path
from random import Random

from faults.bed import Bed, Station
from support.daemon import COPY_PROGRAM
from support.detector import digest_of
from support.waiting import wait_until

STRACE = Path("/usr/bin/strace")
REAL = Path("/usr/local/orbelin/real") / COPY_PROGRAM.name  # by this name the bed knows it
ORDERS = Path("/srv/orders")
STATIONS = 4
FILES = 4  # in each copy
PATIENCE = 30.0
BEYOND = 60  # how far beyond the calls that were counted a series may go

# A copy, or a listing once no copy is to be treated before it, takes the order that was left for
# its detector, if there is one, and runs under strace.
WRAPPER = """\
#!/bin/sh
program=listing
for word; do
    case $word in
        --confirm-files) program=copy ;;
        rsync://*) host=${{word#*@}} host=${{host%%:*}} ;;
    esac
done
orders={orders}/$host
if [ $program = copy ] || [ ! -e "$orders/copy" ]; then
    if [ -e "$orders/$program" ] && /bin/mv "$orders/$program" "$orders/$program.taken"; then
        read -r expression <"$orders/$program.taken"
        exec {strace} -DDD -s 4096 -o "$orders/$program.trace" -e "$expression" -- {real} "$@"
    fi
fi
exec {real} "$@"
"""

# Which errors each call can give.
ERRORS = {
    call: tuple(errors.split())
    for calls, errors in (
        ("fsync fdatasync syncfs", "EIO ENOSPC EDQUOT EINTR"),
        ("sync_file_range", "EIO ENOSPC"),
        ("write pwrite64 writev", "EIO ENOSPC EDQUOT EINTR"),
        ("open openat", "EIO EMFILE ENOSPC EINTR"),
        ("read pread64", "EIO EINTR"),
        ("mkdir mkdirat linkat rename renameat renameat2", "EIO ENOSPC EDQUOT"),
        ("unlink unlinkat getdents64 readlink readlinkat", "EIO"),
        ("stat fstat lstat newfstatat statx fstatfs statfs", "EIO"),
        ("ftruncate fallocate", "EIO ENOSPC"),
        ("fchmod fchown utimensat", "EIO"),
        ("pipe2 memfd_create signalfd4 eventfd2 dup", "EMFILE"),
        ("clone clone3 fork vfork", "EAGAIN ENOMEM"),
        ("mmap mremap", "ENOMEM"),
        ("flock", "EINTR ENOLCK"),
        ("poll ppoll wait4 waitid", "EINTR"),
    )
    for call in calls.split()
}

PROGRAMS = ("copy", "listing")
VERBOSITIES = (2, None)  # the server says what it has removed, or keeps that to itself


@dataclass(frozen=True)
class Point:
    """One injection."""

    program: str
    call: str
    effect: str  # an error, or "KILL"
    number: int

    def __str__(self) -> str:
        what = "killed" if self.effect == "KILL" else self.effect
        return f"{self.program} {what} at {self.call} {self.number}"

    @property
    def expression(self) -> str:
        """What strace is told."""
        effect = "signal=KILL" if self.effect == "KILL" else f"error={self.effect}"
        return f"inject={self.call}:{effect}:when={self.number}"


@dataclass
class Series:
    """All injections of one effect into one kind of call: until no such call is left."""

    program: str
    call: str
    effect: str
    counted: int  # how many such calls an untreated run has made
    over: bool = False

    @property
    def is_kill(self) -> bool:
        """Whether the program dies of it at once."""
        return self.effect == "KILL"

    def points(self) -> Iterator[Point]:
        """The injections; `over` ends them once all that were counted have been made."""
        for number in range(1, self.counted + BEYOND):
            if self.over and number > self.counted:
                return
            yield Point(self.program, self.call, self.effect, number)


@dataclass
class Outcome:
    """What a number of injections came to."""

    injected: int = 0
    files: int = 0
    lost: int = 0
    never_announced: int = 0
    stayed: int = 0
    again: int = 0  # announced more than once
    broken: list[str] = field(default_factory=list)


class CrashBed:
    """The fault bed, in whose copy program's place stands the one that takes orders."""

    def __init__(self, seed: str, max_verbosity: int | None, stations: int = STATIONS) -> None:
        self.bed = Bed(seed, stations=stations, max_verbosity=max_verbosity)
        self.outcome = Outcome()
        self.before_listing = ""  # what is done to the copy before a listing is treated
        self._rng = Random(f"crash points {seed}")
        self._lock = threading.Lock()
        self._numbers = iter(range(1, 10**6))

    def install(self) -> None:
        """Puts everything in its place; the daemon starts with it."""
        self.bed.install()
        REAL.parent.mkdir(parents=True, exist_ok=True)
        COPY_PROGRAM.rename(REAL)
        COPY_PROGRAM.write_text(
            WRAPPER.format(orders=ORDERS, strace=STRACE, real=shlex.quote(str(REAL))),
            encoding="ascii",
        )
        COPY_PROGRAM.chmod(0o755)
        for station in self.bed.stations:
            orders(station).mkdir(parents=True)

    def reference(self, program: str) -> list[str]:
        """The system calls of a copy, or of a listing after a copy that was killed."""
        station = self.bed.stations[0]
        if program == "listing":
            self.order(station, "copy", self.before_listing)
        self.order(station, program, "trace=all")
        names = self.produce(station)
        wait_until(lambda: ended(station, program), f"an untreated {program}", PATIENCE)
        self.wait_right(station, names)
        calls = trace(station, program)
        # A listing may become stock rsync, whose calls are not the program's.
        others = [n for n, line in enumerate(calls) if line.startswith("execve(") and n > 0]
        return calls[: others[0] + 1] if others else calls

    def count(self) -> list[Series]:
        """All series of injections, by what untreated runs do."""
        found: list[Series] = []
        for program in PROGRAMS:
            calls = self.reference(program)
            if program == "copy":
                writes = [line for line in calls if line.startswith("write(")]
                report = next(
                    number
                    for number, line in enumerate(writes, 1)
                    if line.startswith("write(1,") and "CONFIRMED" in line
                )
                self.before_listing = f"inject=write:signal=KILL:when={report}"
            counts = Counter(each.partition("(")[0] for each in calls if each[0].isalpha())
            # strace counts the calls of each kind for itself, also when it is told "all".
            for call, count in sorted(counts.items()):
                for effect in ("KILL", *ERRORS.get(call, ())):
                    found.append(Series(program, call, effect, count))
        return found

    def run(self, series: list[Series], limit: float) -> None:
        """Makes all injections, several at a time; complains if `limit` seconds are not enough."""
        todo: queue.SimpleQueue[tuple[Series, Iterator[Point]]] = queue.SimpleQueue()
        # Each in pieces that go round, so that none of the detectors is idle at the end.
        for each in series:
            todo.put((each, each.points()))
        end = time.monotonic() + limit

        def work(station: Station) -> None:
            while True:
                try:
                    one, points = todo.get_nowait()
                except queue.Empty:
                    return
                point = next(points, None)
                if point is None:
                    continue
                if time.monotonic() > end:
                    with self._lock:
                        self.outcome.broken.append(f"{point} was not tried: out of time")
                    continue
                todo.put((one, points))
                if not self.inject(station, point):
                    one.over = True

        threads = [
            threading.Thread(target=work, args=(station,), daemon=True)
            for station in self.bed.stations
        ]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def inject(self, station: Station, point: Point) -> bool:
        """One injection, and the account of it. False if there was no such call any more."""
        if point.program == "listing":
            self.order(station, "copy", self.before_listing)
        self.order(station, point.program, point.expression)
        names = self.produce(station)
        reached = True
        try:
            wait_until(lambda: ended(station, point.program), f"{point} to be over", PATIENCE)
        except AssertionError as error:
            reached = False
            self.complain(str(error))
        self.wait_right(station, names)
        self.account(station, point, names)
        if not reached:
            return False
        text = "\n".join(trace(station, point.program))
        struck = "(INJECTED)" in text or "+++ killed by SIGKILL" in text
        with self._lock:
            self.outcome.injected += struck
        return struck

    def order(self, station: Station, program: str, expression: str) -> None:
        """The next copy or listing of a station is run like this."""
        place = orders(station)
        for old in ("trace", "taken"):
            (place / f"{program}.{old}").unlink(missing_ok=True)
        (place / "fresh").write_text(expression + "\n", encoding="ascii")
        (place / "fresh").rename(place / program)

    def produce(self, station: Station) -> list[str]:
        """Lets a few files appear at the source at once, in a folder of their own."""
        with self._lock:
            number = next(self._numbers)
            contents = [self._rng.randbytes(self._rng.randrange(0, 9000)) for _ in range(FILES)]
        folder = station.ledger.source / f"{number:06d}"
        unfinished = folder.with_suffix(".tmp")
        unfinished.mkdir(parents=True)
        names = []
        for each, content in enumerate(contents):
            names.append(f"{folder.name}/{each}.raw")
            (unfinished / f"{each}.raw").write_bytes(content)
            station.ledger.will_appear(names[-1], digest_of(content), len(content))
        unfinished.rename(folder)
        for name in names:
            station.ledger.appeared(name)
        return names

    def wait_right(self, station: Station, names: list[str]) -> None:
        """Waits, within limits, until these are moved and announced."""
        with suppress(AssertionError):
            wait_until(lambda: not station.ledger.is_open(names), "all to be right", PATIENCE)
        with suppress(OSError):
            (station.ledger.source / names[0]).parent.rmdir()  # the next listing is as short

    def account(self, station: Station, point: Point, names: list[str]) -> None:
        """Compares file by file."""
        ledger = station.ledger
        mine = [each for each in ledger.entries() if each.name in set(names)]
        stayed = [each.name for each in mine if each.gone is None]
        lost = [each.name for each in mine if each.gone is not None and not ledger.is_whole(each)]
        never = [name for name in ledger.unannounced() if name in names]
        ledger.excuse(never)
        with self._lock:
            outcome = self.outcome
            outcome.files += len(mine)
            outcome.lost += len(lost)
            outcome.never_announced += len(never)
            outcome.stayed += len(stayed)
            outcome.again += sum(len(each.records) > 1 for each in mine)
            for what, found in (("lost", lost), ("never announced", never), ("stayed", stayed)):
                if found:
                    outcome.broken.append(f"{point}: {len(found)} {what}: {', '.join(found)}")

    def complain(self, sentence: str) -> None:
        """Keeps a sentence on what went wrong."""
        with self._lock:
            self.outcome.broken.append(sentence)


def orders(station: Station) -> Path:
    """Where the orders for the copy processes and listings of a station lie."""
    return ORDERS / station.server.address


def trace(station: Station, program: str) -> list[str]:
    """What strace has written so far."""
    try:
        path = orders(station) / f"{program}.trace"
        return path.read_text(encoding="utf-8", errors="replace").splitlines()
    except FileNotFoundError:
        return []


def ended(station: Station, program: str) -> bool:
    """Whether the traced program has ended and its tracer has said so."""
    last = trace(station, program)[-1:]
    return bool(last) and re.match(r"\+\+\+ (exited|killed)", last[0]) is not None


def try_all(
    seed: str, max_verbosity: int | None, program: str, kills: bool, limit: float
) -> Outcome:
    """All kills of a program, or all errors of its calls, in an empty sandbox."""
    crash = CrashBed(seed, max_verbosity)
    with crash.bed:
        crash.install()
        crash.bed.start_daemon()
        series = crash.count()
        crash.run(
            [each for each in series if each.program == program and each.is_kill == kills], limit
        )
        crash.bed.note_kill()
        crash.bed.wait_idle()
        if crash.bed.daemon.is_running():
            crash.bed.daemon.end()
        else:
            crash.complain("the daemon ended on its own")
        crash.bed.consumer.leave()
        crash.bed.judge_log()
        for station in crash.bed.stations:
            crash.outcome.broken += station.ledger.broken
    return crash.outcome


def summary(outcome: Outcome) -> str:
    """What the injections came to, in one line for people."""
    return (
        f"  {outcome.injected} injections, {outcome.files} files: {outcome.lost} lost, "
        f"{outcome.never_announced} never announced, {outcome.stayed} not moved, "
        f"{outcome.again} announced again"
    )


def lack() -> str:
    """What this machine lacks for this, or "" if it has all."""
    return "" if os.access(STRACE, os.X_OK) else "the program 'strace' is missing"
