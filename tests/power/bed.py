"""The power bed: a whole installation at work on a disk whose power is cut, and what it proves.

A life of the host: a detector fills its share, as a stream or as a share full of files that is
drained; the daemon, the real copy program and real rsync servers move them; the targets and the
journals are on a disk (disk.py) with one file system for both, or one for each. At random instants
of it

1. every file that the share still has is linked into a folder beside it: what is missing there has
   left the source;
2. then the disk is copied, as it is at this instant: a cut of the power.

Each cut is looked at after the life: its disk and its source are mounted and put in their places,
the kernel tells of another start, and nothing else of the old life is left. Then

- every file that had left the source is whole at the target, before anything is started;
- a fresh daemon announces each of them, unless the old consumer had read its record so long before
  the cut that the journals need not know it any more;
- it moves what is still at the source, whole, and announces that.
"""

from __future__ import annotations

import os
import signal
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from random import Random

from faults.bed import JOURNALS, Bed, arguments
from faults.ledger import Entry
from power.disk import Disk, Store
from support import boot
from support import daemon as skarn
from support.bed import SHARES, TARGETS
from support.folders import remove
from support.processes import processes
from support.waiting import wait_until

STATE = JOURNALS.parent
SOURCES = Path("/srv/sources")
# A run may have ended a little before the consumer read the last of its records.
SLACK = 2.0
SENTENCES = 20  # how many of a cut's complaints are kept


class Life:
    """How files come into the share, and how the cuts follow one another."""

    name = ""
    gap = (0.0, 0.0)  # seconds between two cuts, from and to

    def begin(self, bed: Bed, rng: Random) -> None:
        """Called before the daemon starts."""
        raise NotImplementedError

    def go_on(self, bed: Bed, rng: Random) -> None:
        """Called before each cut."""


class Drain(Life):
    """A share full of files, of which no more come until it is empty."""

    name = "drain"
    gap = (0.01, 0.25)

    def begin(self, bed: Bed, rng: Random) -> None:
        bed.stations[0].workload.write_some(rng.randint(300, 1500))

    def go_on(self, bed: Bed, rng: Random) -> None:
        # A cut when all has just been moved is the one after which only a reminder helps.
        if not bed.left() and rng.random() < 0.7:
            bed.stations[0].workload.write_some(rng.randint(300, 1500))


class Stream(Life):
    """A detector that writes all the time."""

    name = "stream"
    gap = (0.05, 0.6)

    def begin(self, bed: Bed, rng: Random) -> None:
        bed.stations[0].workload.batch = (5, 80)
        bed.stations[0].workload.start()


LIVES: dict[str, type[Life]] = {kind.name: kind for kind in (Drain, Stream)}


@dataclass
class Cut:
    """One cut of the power: what there was at that instant."""

    number: int
    moment: float
    disk: Disk
    source: Path
    entries: list[Entry]
    present: set[str]


@dataclass
class Outcome:
    """What a number of cuts came to."""

    cuts: int = 0
    files: int = 0  # that had left the source before a cut, added up over the cuts
    lost: int = 0  # of them: not whole after it
    never_announced: int = 0  # of them: whole, and no consumer was told
    again: int = 0  # announced after a cut, and before it too
    went_on: int = 0  # files that were still at the source at a cut, and were moved after it
    stayed: int = 0  # files of which the fresh daemon did not move, whole, and announce all
    recovered_in: float = 0.0  # seconds from the start of the fresh daemon until all was right
    broken: list[str] = field(default_factory=list)

    def add(self, other: Outcome) -> None:
        """Adds what other cuts came to."""
        self.cuts += other.cuts
        self.files += other.files
        self.lost += other.lost
        self.never_announced += other.never_announced
        self.again += other.again
        self.went_on += other.went_on
        self.stayed += other.stayed
        self.recovered_in = max(self.recovered_in, other.recovered_in)
        self.broken += other.broken


class Host:
    """The machine whose power is cut: a disk, and everything that a cut forgets.

    `reannounce` is for how many seconds after its end the copy program remembers a run, and
    `patience` after how many seconds a fresh daemon is taken to be done with what it does.
    """

    def __init__(self, store: Store, seed: str, reannounce: float, patience: float) -> None:
        self.seed = seed
        self.reannounce = reannounce
        self.patience = patience
        self._store = store
        self._rng = Random(f"host {seed}")
        # Whether the servers say what they have removed, or keep it to themselves.
        self.max_verbosity: int | None = self._rng.choice((2, None))

    def boot(self) -> None:
        """Another start of the machine, and nothing of what is in memory alone."""
        boot.pretend(str(uuid.UUID(int=self._rng.getrandbits(128), version=4)))
        for path in (skarn.PID_FILE, skarn.STATUS_FILE, skarn.FIFO, *skarn.file_lists()):
            path.unlink(missing_ok=True)
        remove("/run/skarn")

    def live(self, disk_kind: str, parts: int, life: str, cuts: int) -> Outcome:
        """One life with that many cuts, and what they came to."""
        rng = Random(f"life {self.seed}")
        kind = LIVES[life]()
        disk = self._store.new_disk(disk_kind, parts)
        self.start_with(disk)
        taken: list[Cut] = []
        try:
            with Bed(self.seed, max_verbosity=self.max_verbosity) as bed:
                bed.install()
                kind.begin(bed, rng)
                bed.start_daemon()
                for number in range(cuts):
                    kind.go_on(bed, rng)
                    time.sleep(rng.uniform(*kind.gap))
                    if number == cuts // 2:
                        # However slow the machine is, half of them find that files have left.
                        wait_until(lambda: bed.moved() > 0, "the first file to leave", self.patience)
                    taken.append(self.cut(bed, disk, number))
                bed.stations[0].workload.stop()
                end_all(bed)
                broken = list(bed.ledger.broken)
        finally:
            disk.detach()
            disk.remove()
        return self.check_all(taken, broken)

    def check_all(self, taken: list[Cut], broken: list[str]) -> Outcome:
        """Looks at each cut of a life, in which this was `broken` already."""
        outcome = Outcome(broken=[f"before any cut: {line}" for line in broken[:SENTENCES]])
        for each in taken:
            outcome.add(self.check(each))
        return outcome

    def start_with(self, disk: Disk) -> None:
        """Begins a life on an empty disk, with an empty share."""
        self.boot()
        remove(SHARES)
        remove(SOURCES)
        SOURCES.mkdir()
        disk.attach([TARGETS, STATE])
        disk.flush()  # an installed machine

    def cut(self, bed: Bed, disk: Disk, number: int) -> Cut:
        """Cuts the power of one of the host's likes, which goes on itself."""
        ledger = bed.ledger
        source = SOURCES / str(number)
        present = set()
        with bed.stations[0].workload.standing_still():
            entries = ledger.entries()
            for entry in entries:
                if entry.gone is None and link(entry, ledger.source, source):
                    present.add(entry.name)
            copy = disk.cut(f"cut-{number}")
            moment = time.monotonic()
        # A record that is read from now on belongs to what the cut ended.
        kept = [
            Entry(each.name, each.born, each.digests, each.final, each.source, records=[
                when for when in each.records if when < moment
            ])
            for each in entries
        ]  # fmt: skip
        return Cut(number, moment, copy, source, kept, present)

    def check(self, cut: Cut) -> Outcome:
        """Looks at what a cut has left, and lets a fresh daemon go on with it."""
        self.boot()
        remove(SHARES)
        SHARES.mkdir()
        if cut.source.exists():
            cut.source.rename(SHARES / "1")
        skarn.LOG_FILE.unlink(missing_ok=True)
        cut.disk.attach([TARGETS, STATE])
        try:
            name = f"{self.seed} {cut.number}"
            with Bed(name, max_verbosity=self.max_verbosity) as bed:
                return self._check(cut, bed)
        finally:
            cut.disk.detach()
            cut.disk.remove()

    def _check(self, cut: Cut, bed: Bed) -> Outcome:
        ledger = bed.ledger
        ledger.carry_over(cut.entries, cut.present)
        gone = [each for each in cut.entries if each.name not in cut.present]
        lost = {each.name for each in gone if not ledger.is_whole(each)}
        outdated = cut.moment - self.reannounce + SLACK
        told = {each.name for each in gone if any(when < outdated for when in each.records)}
        ledger.excuse(lost | told)
        bed.install()
        bed.start_daemon()
        begin = time.monotonic()
        while time.monotonic() - begin < self.patience:
            if not bed.left() and not ledger.unannounced():
                break
            time.sleep(0.02)
        took = time.monotonic() - begin
        end_all(bed)
        bed.left()
        bed.judge_log()
        silent = set(ledger.unannounced())
        never = silent - cut.present
        records = {each.name for each in ledger.entries() if each.records}
        staying = {
            each.name
            for each in ledger.entries()
            if each.name in cut.present
            and (each.gone is None or each.name in silent or not ledger.is_whole(each))
        }
        sentences = [f"{name} had left the source and is not whole" for name in sorted(lost)]
        sentences += [f"{name} is whole and was never announced" for name in sorted(never)]
        sentences += [f"{name} was not moved and announced" for name in sorted(staying)]
        sentences += ledger.broken
        if len(sentences) > SENTENCES:
            sentences[SENTENCES:] = [f"and {len(sentences) - SENTENCES} more"]
        if sentences:
            sentences.append(f"the log ends: {bed.daemon.archived_log()[-2000:]}")
        return Outcome(
            cuts=1,
            files=len(gone),
            lost=len(lost),
            never_announced=len(never),
            again=sum(1 for each in gone if each.records and each.name in records),
            went_on=len(cut.present - staying),
            stayed=len(staying),
            recovered_in=took,
            broken=[f"cut {cut.number}: {line}" for line in sentences],
        )


def link(entry: Entry, root: Path, place: Path) -> bool:
    """Links a file of the share into another folder; False if it has left the share."""
    linked = place / entry.source.relative_to(root)
    linked.parent.mkdir(parents=True, exist_ok=True)
    try:
        os.link(entry.source, linked)
    except FileNotFoundError:
        return False
    return True


def end_all(bed: Bed) -> None:
    """Ends everything at once, as a cut does: the daemon, its copy processes, rsync."""
    consumer = bed.consumer
    if bed.daemon.is_running():
        bed.daemon.end(signal.SIGKILL)
    for each in bed.copy_processes():
        bed.send(each, signal.SIGKILL)
    for station in bed.stations:
        station.server.kill()

    def mine() -> list[int]:
        return [
            each.pid
            for each in processes()
            if not each.is_zombie and (each.name == "rsync" or using(each.pid))
        ]

    wait_until(lambda: not mine(), lambda: f"{[arguments(pid) for pid in mine()]} to end", 30)
    consumer.leave()


def using(pid: int) -> bool:
    """Whether a process is a copy program in any of its roles."""
    return any(word == str(skarn.COPY_PROGRAM) for word in arguments(pid))
