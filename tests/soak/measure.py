"""Looking at a running daemon from outside: its memory, its things, and how many cycles it made."""

from __future__ import annotations

import ctypes
import os
import re
import time
from collections import Counter
from collections.abc import Sequence
from pathlib import Path

from soak.judge import Sample
from support import processes
from support.bed import Station

JOURNAL = Path("/var/lib/skarn/journal")
# Journals of runs that are over and handed off stay for a minute, for a cut of the power.
KEPT_SECONDS = 75
SEPARATOR = b"+" * 60 + b"\n ++++\n"
# The first line that a worker ends after its separators names its detector.
ENDED_SEPARATORS = re.compile(rb"((?:\+{60}\n \+\+\+\+\n)+)(\S+?):? ")


def is_kept(journal: str) -> bool:
    """True for a journal that is only kept for its minute, or gone by now."""
    try:
        written = os.stat(journal).st_mtime
    except FileNotFoundError:
        return True
    return os.path.basename(journal).startswith("done-") and time.time() - written < KEPT_SECONDS


class LogFollower:
    """Reads a log that is rotated, each byte once, and counts the separators in it by detector."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.separators: Counter[str] = Counter()
        self.heard: set[str] = set()  # the detectors whose separators came with the last look
        self._file = path.open("rb")
        self._rest = b""

    def look(self) -> None:
        """Reads what was written since the last look."""
        self.heard = set()
        self._read()
        for path in self._successors():
            # Nothing is written to a file any more once it was renamed.
            self._read()
            self._file.close()
            self._file = path.open("rb")
            self._read()

    def close(self) -> None:
        """Closes the file that is followed."""
        self._file.close()

    def _read(self) -> None:
        text = self._rest + self._file.read()
        # Only whole lines; and a run of separators not before the line that follows it.
        end = text.rfind(b"\n") + 1
        while text[:end].endswith(SEPARATOR):
            end -= len(SEPARATOR)
        self._rest = text[end:]
        for found in ENDED_SEPARATORS.finditer(text[:end]):
            identity = found[2].decode()
            self.separators[identity] += len(found[1]) // len(SEPARATOR)
            self.heard.add(identity)

    def _successors(self) -> list[Path]:
        """The files that were begun after the one that is read, the oldest first."""
        followed = os.fstat(self._file.fileno()).st_ino
        for _ in range(100):
            before = self._files()
            if before == self._files():
                inodes = [inode for inode, _ in before]
                if followed not in inodes:
                    raise AssertionError("the log was rotated faster than it could be read")
                return [path for _, path in before[inodes.index(followed) + 1 :]]
        raise AssertionError("the log is rotated all the time")

    def _files(self) -> list[tuple[int, Path]]:
        """Inodes and paths of the log's files, the oldest first."""
        numbers = [
            int(path.suffix[1:])
            for path in self.path.parent.glob(self.path.name + ".*")
            if path.suffix[1:].isdigit()
        ]
        paths = [Path(f"{self.path}.{number}") for number in sorted(numbers, reverse=True)]
        found = []
        for path in [*paths, self.path]:
            try:
                found.append((path.stat().st_ino, path))
            except FileNotFoundError:
                continue
        return found


class ConnectionCounter:
    """Counts the clients of one rsync server by its log, and gives the log's memory back."""

    def __init__(self, log: Path) -> None:
        self.count = 0
        self._path = log
        self._offset = 0

    def look(self) -> int:
        """How many clients were let in so far."""
        with self._path.open("r+b") as log:
            log.seek(self._offset)
            text = log.read()
            end = text.rfind(b"\n") + 1
            self.count += text[:end].count(b" allowed access on module ")
            punch_hole(log.fileno(), 0, self._offset + end)
            self._offset += end
        return self.count


def punch_hole(descriptor: int, offset: int, length: int) -> None:
    """Frees a part of a file, whose length stays: a server may go on appending to it."""
    keep_size_and_punch_hole = 3
    page = 4096
    length -= length % page
    if length == 0:
        return
    libc = ctypes.CDLL(None, use_errno=True)
    arguments = (ctypes.c_int64(offset), ctypes.c_int64(length))
    if libc.fallocate(descriptor, keep_size_and_punch_hole, *arguments) != 0:
        raise OSError(ctypes.get_errno(), "fallocate")


class Meter:
    """Takes the samples of one daemon that serves some stations."""

    def __init__(self, pid: int, log: Path, stations: Sequence[Station]) -> None:
        self.log = LogFollower(log)
        self._pid = pid
        self._connections: dict[str, ConnectionCounter] = {}
        self._connections_then: dict[str, int] = {}
        for station in stations:
            assert station.server.log_file is not None
            self._connections[station.id] = ConnectionCounter(station.server.log_file)
            self._connections_then[station.id] = 0

    def sample(self, time: float, phase: str, files: int) -> Sample:
        """What the daemon holds now."""
        waiting = self._look_at_cycles()
        return Sample(
            time=time,
            phase=phase,
            cycles=self.log.separators.total() + waiting,
            files=files,
            separators=waiting,
            resident=self._resident(),
            descriptors=len(os.listdir(f"/proc/{self._pid}/fd")),
            threads=len(os.listdir(f"/proc/{self._pid}/task")),
            zombies=sum(each.is_zombie for each in processes.children(self._pid)),
            tmp_files=len(os.listdir("/tmp")),
            journal_files=sum(
                not is_kept(os.path.join(folder, name))
                for folder, _, names in os.walk(JOURNAL)
                for name in names
            ),
        )

    def _look_at_cycles(self) -> int:
        """Reads the logs; returns how many separators wait in the workers' memory.

        A worker that has just logged holds none; from then on each listing, which is one client
        of its server, adds one.
        """
        self.log.look()
        waiting = 0
        for identity, connections in self._connections.items():
            count = connections.look()
            if identity in self.log.heard:
                self._connections_then[identity] = count
            waiting += count - self._connections_then[identity]
        return waiting

    def _resident(self) -> int:
        text = Path(f"/proc/{self._pid}/smaps_rollup").read_text(encoding="ascii")
        found = re.search(r"^Rss:\s+(\d+) kB$", text, re.MULTILINE)
        assert found is not None, text
        return int(found[1])
