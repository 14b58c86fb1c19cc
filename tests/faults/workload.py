"""The detector of a fault run: keeps its share filled with files that the seed decides."""

from __future__ import annotations

import os
import random
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from faults.ledger import Ledger
from support.detector import digest_of

FOLDERS = ("", "", "run_a/", "run_b/", "run_b/deep/er/", "r\u00f6ntgen/")
SUFFIXES = (".raw", ".cbf", ".dat.gz", "")


class Workload:
    """Writes files below `root` on a thread of its own, a batch each time that few are left.

    The n-th file's name, size and content follow from the seed alone; when it is written follows
    from how fast the share is emptied. Each is written as NAME.tmp and renamed when it is whole.
    `most` bounds how many there are in all, `batch` how many are written at once.
    """

    def __init__(
        self,
        root: Path,
        seed: str,
        ledger: Ledger,
        batch: tuple[int, int] = (5, 150),
        refill: int = 40,
        most: int = 200_000,
    ) -> None:
        self.root = root
        self.batch = batch
        self.refill = refill
        self._rng = random.Random(f"workload {seed}")
        self._ledger = ledger
        self._most = most
        self._number = 0
        self._stop = threading.Event()
        self._lock = threading.Lock()
        self._writing = threading.RLock()
        self._thread: threading.Thread | None = None

    def start(self) -> None:
        """Begins to produce."""
        assert self._thread is None, "the detector produces already"
        self.root.mkdir(parents=True, exist_ok=True)
        self._stop.clear()
        self._thread = threading.Thread(target=self._produce, daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Produces no more; what was begun is finished first."""
        thread, self._thread = self._thread, None
        if thread is None:
            return
        self._stop.set()
        thread.join(60)
        assert not thread.is_alive(), "the detector did not stop"

    def write_some(self, count: int) -> list[str]:
        """Writes that many files at once and returns their names."""
        return [self._write_next() for _ in range(count)]

    def write(self, name: str, content: bytes, stays: bool = False) -> None:
        """Writes one more file, whose name must not be one of the seed's."""
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        unfinished = path.with_name(path.name + ".tmp")
        unfinished.write_bytes(content)
        with self._writing:
            self._ledger.will_appear(name, digest_of(content), len(content), stays)
            os.rename(unfinished, path)
            self._ledger.appeared(name)

    @contextmanager
    def standing_still(self) -> Iterator[None]:
        """As long as the block lasts no file appears: each that the ledger knows has appeared."""
        with self._writing:
            yield

    def _produce(self) -> None:
        while not self._stop.is_set() and self._number < self._most:
            if len(self._ledger.present()) < self.refill:
                self.write_some(self._rng.randint(*self.batch))
            self._stop.wait(0.02)

    def _write_next(self) -> str:
        with self._lock:
            self._number += 1
            number = self._number
            name = (
                f"{self._rng.choice(FOLDERS)}{self._rng.randrange(16**4):04x}_{number:06d}"
                f"{self._rng.choice(SUFFIXES)}"
            )
            content = self._rng.randbytes(self._size())
        self.write(name, content)
        return name

    def _size(self) -> int:
        kind = self._rng.random()
        if kind < 0.06:
            return 0
        if kind < 0.60:
            return self._rng.randint(1, 4_000)
        if kind < 0.97:
            return self._rng.randint(4_000, 100_000)
        return self._rng.randint(100_000, 1_000_000)
