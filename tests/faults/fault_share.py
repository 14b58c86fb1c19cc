"""The detector does what it should not: files vanish, grow, or have names that can't be carried."""

from __future__ import annotations

import os
import time
from contextlib import suppress
from pathlib import Path
from random import Random

from faults.bed import Bed, Station
from faults.fault import Fault, register
from support.detector import digest_of
from support.folders import remove


@register
class FilesVanish(Fault):
    """Files that were listed are deleted by the detector before or while they are copied."""

    name = "files-vanish"
    title = "files deleted by the detector during the transfer"
    instant = True
    rounds = 60

    def inject(self, bed: Bed, rng: Random) -> int:
        station = rng.choice(bed.stations)
        bed.wait_copying(5)
        present = sorted(station.ledger.present())
        deleted = 0
        for name in rng.sample(present, min(len(present), rng.randint(1, 5))):
            station.ledger.will_withdraw(name)
            try:
                (station.workload.root / name).unlink()
                deleted += 1
            except FileNotFoundError:
                continue  # it has just been moved
        return deleted


@register
class FoldersVanish(Fault):
    """A folder is deleted with all that is in it."""

    name = "folders-vanish"
    title = "folders deleted by the detector during the transfer"
    instant = True
    number = 0

    def inject(self, bed: Bed, rng: Random) -> int:
        station = rng.choice(bed.stations)
        self.number += 1
        folder = f"doomed_{self.number}"
        names = [f"{folder}/{rng.randrange(9)}/{index}.raw" for index in range(30)]
        for name in names:
            station.workload.write(name, rng.randbytes(20_000))
        bed.wait_copying(5)
        time.sleep(rng.uniform(0, 0.1))
        for name in names:
            station.ledger.will_withdraw(name)
        with suppress(OSError):  # as far as it lets itself be deleted
            remove(station.workload.root / folder)
        return 1


PAGE = 4096


@register
class FilesGrow(Fault):
    """A file is written to while it is copied, as by a detector that does not rename when done.

    Each state that it had may arrive. How often a detector went on writing to a file that was taken
    already is counted: what it writes then is lost to it, as with any program that moves files.
    """

    name = "files-grow"
    title = "files growing while they are copied"
    mixes = False
    rounds = 60
    gap = (0.0, 0.1)
    number = 0

    def inject(self, bed: Bed, rng: Random) -> int:
        station = rng.choice(bed.stations)
        self.number += 1
        name = f"growing_{self.number}.raw"
        content = rng.randbytes(rng.randint(1, 300_000))
        station.workload.write(name, content)
        for step in range(rng.randint(1, 120)):
            if step % 4 == 0:
                time.sleep(rng.uniform(0, 0.02))
            # Within a page: the beginning of a longer write is a state of the file, too, and may be
            # taken while the writer is held up in it.
            chunk = rng.randbytes(rng.randint(1, PAGE - len(content) % PAGE))
            station.ledger.will_change(name, digest_of(content + chunk))
            if not append(station.workload.root / name, chunk):
                break
            content += chunk
        return 1


def append(path: Path, chunk: bytes) -> bool:
    """Appends to a file that is still there; false if it has left."""
    try:
        file = os.open(path, os.O_WRONLY | os.O_APPEND)
    except FileNotFoundError:
        return False
    try:
        os.write(file, chunk)
        return True
    finally:
        os.close(file)


@register
class NamesWithBlanks(Fault):
    """Names that can't be carried stay as they are and stop nothing else."""

    name = "names-with-blanks"
    title = "names that can't be carried"
    hold = (0.5, 1.5)
    rounds = 10
    number = 0
    written: list[tuple[Station, str, bytes]] = []

    def inject(self, bed: Bed, rng: Random) -> int:
        self.written = []
        for station in bed.stations:
            for shape in ("blank {}.raw", "fold er/{}.raw", "line\nfeed {}.raw", "tab\t{}.raw"):
                self.number += 1
                name, content = shape.format(self.number), rng.randbytes(2000)
                station.workload.write(name, content, stays=True)
                self.written.append((station, name, content))
        return len(self.written)

    def heal(self, bed: Bed) -> None:
        for station, name, content in self.written:
            path = station.workload.root / name
            if not path.exists() or path.read_bytes() != content:
                station.ledger.complain(f"{name!r} did not stay as it was")
            station.ledger.will_withdraw(name)
            path.unlink(missing_ok=True)
