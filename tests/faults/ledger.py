"""What was produced, what left the source, what arrived and what was announced: file by file."""

from __future__ import annotations

import os
import threading
import time
from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path

from support.detector import digest_of_entry


@dataclass
class Entry:
    """One file that a detector produced, and what became of it so far."""

    name: str
    born: float
    digests: set[str]  # of each state that it had under its name
    final: str  # of the last one
    source: Path
    withdrawn: bool = False  # the detector itself took it away, or may have
    stays: bool = False  # can't be carried: has to stay at the source as it is
    excused: bool = False  # left the source while nobody could be told
    gone: float | None = None  # when it was first seen to have left the source
    records: list[float] = field(default_factory=list)  # when each of its records was read


class Ledger:
    """Keeps account of every file of one detector, from several threads.

    `places` are the folders where a file that left the source counts as arrived: the target, and
    what a fault moved it to. Everything that breaks the promise at the moment when it is seen goes
    into `broken`, as a sentence.
    """

    def __init__(self, source: Path, target: Path) -> None:
        self.source = source
        self.places = [target]
        self.broken: list[str] = []
        self.bytes = 0
        self.moved = 0  # files that have left the source
        self.something_died = False
        self.told_lost: set[str] = set()  # names that the log has as sent and never confirmed
        self.made_up: set[str] = set()  # names that a fault itself announces; they don't count
        self._entries: dict[str, Entry] = {}
        self._present: dict[str, Entry] = {}
        self._lock = threading.RLock()
        self._looking = threading.Lock()  # one look at a time

    # What the detector says.

    def will_appear(self, name: str, digest: str, size: int, stays: bool = False) -> None:
        """The file is about to stand in the share, whole and under its own name."""
        entry = Entry(name, time.monotonic(), {digest}, digest, self.source / name, stays=stays)
        with self._lock:
            assert name not in self._entries, f"{name} was produced twice"
            self._entries[name] = entry
            self.bytes += size

    def appeared(self, name: str) -> None:
        """The file stands there; from now on its absence means that it has left."""
        with self._lock:
            self._present[name] = self._entries[name]

    def will_change(self, name: str, digest: str) -> None:
        """The file is about to get another content: it may be taken with the one or the other."""
        with self._lock:
            self._entries[name].digests.add(digest)
            self._entries[name].final = digest

    def will_withdraw(self, name: str) -> None:
        """The detector is about to delete the file itself."""
        with self._lock:
            self._entries[name].withdrawn = True

    def carry_over(self, entries: Iterable[Entry], present: set[str]) -> None:
        """Begins with the files of another ledger: those `present` stand in the share, the others
        have left it, and what they were announced in before counts no more.
        """
        for entry in entries:
            here = Entry(entry.name, entry.born, set(entry.digests), entry.final, entry.source)
            with self._lock:
                self._entries[entry.name] = here
                if entry.name in present:
                    self._present[entry.name] = here
                else:
                    here.gone = time.monotonic()

    # What the bed sees.

    def look(self) -> int:
        """Notices what has left the source since the last look, and checks that it is whole at the
        target at that moment. Returns how many files are still there that have to leave.
        """
        with self._looking:
            return self._look()

    def _look(self) -> int:
        with self._lock:
            present = list(self._present.values())
        left = 0
        for entry in present:
            if os.path.lexists(entry.source):
                left += not entry.stays
                continue
            with self._lock:
                entry.gone = time.monotonic()
                del self._present[entry.name]
                self.moved += 1
            if entry.stays and not entry.withdrawn:
                self.complain(f"{entry.name!r} left the source though it can't be carried")
            elif not entry.withdrawn and not self.is_whole(entry):
                self.complain(f"{entry.name} left the source and is not whole at the target")
        return left

    def announced(self, name: str) -> None:
        """A record was read: the file has to be whole at the target now."""
        with self._lock:
            entry = self._entries.get(name)
            if entry is not None:
                entry.records.append(time.monotonic())
        if entry is None and name in self.made_up:
            return
        if entry is None:
            self.complain(f"{name!r} was announced and never produced")
        elif not self.is_whole(entry):
            self.complain(f"{name} was announced and is not whole at the target")

    def excuse(self, names: Iterable[str]) -> None:
        """These left the source while no consumer could be told: they need no record."""
        with self._lock:
            for name in names:
                self._entries[name].excused = True

    def complain(self, sentence: str) -> None:
        """Keeps a sentence on how the promise was broken."""
        with self._lock:
            self.broken.append(sentence)

    # What can be asked.

    def entries(self) -> list[Entry]:
        """All files produced so far."""
        with self._lock:
            return list(self._entries.values())

    def present(self) -> list[str]:
        """The names of the files that had not left the source at the last look and have to leave:
        those that can't be carried are not among them.
        """
        with self._lock:
            return [name for name, entry in self._present.items() if not entry.stays]

    def unannounced(self) -> list[str]:
        """The names of the files that left the source, need a record and have none.

        A file that a fault has taken away from the target needs none in two cases, for nothing is
        announced that is not there: when something has died since, or when it was gone before the
        copy program could look at it and the log has told so.
        """
        with self._lock:
            open_entries = [
                entry
                for entry in self._entries.values()
                if entry.gone is not None
                and not (entry.records or entry.excused or entry.withdrawn or entry.stays)
            ]
        if len(self.places) > 1:
            for entry in open_entries:
                if self.something_died or entry.name in self.told_lost:
                    found = self.find(entry.name)
                    entry.excused = found not in (None, self.places[0] / entry.name)
        return [entry.name for entry in open_entries if not entry.excused]

    def is_open(self, names: Iterable[str]) -> bool:
        """Whether one of these files has not left the source, or needs a record and has none."""
        with self._lock:
            entries = [self._entries[name] for name in names]
        return any(each.gone is None or not (each.records or each.excused) for each in entries)

    def find(self, name: str) -> Path | None:
        """Where the file has arrived, or None."""
        for place in self.places:
            if os.path.lexists(place / name):
                return place / name
        return None

    def is_whole(self, entry: Entry, final: bool = False) -> bool:
        """Whether the file is at the target with a content that it had, or has at last."""
        wanted = {entry.final} if final else entry.digests
        for place in self.places:
            try:
                if digest_of_entry(place / entry.name) in wanted:
                    return True
            except OSError:
                continue  # not there, or the place itself is not
        return False
