"""The consumer of a fault run: looks at each file the moment its record is read."""

from __future__ import annotations

import os
import selectors
import threading
from pathlib import Path

from faults.ledger import Ledger
from support.daemon import FIFO

START_MESSAGE = b"usershift: "


class CheckingConsumer:
    """Reads the FIFO and passes each record to the ledger of the target that it names.

    It can be slow, leave and come back. While it is there it holds a writing end of its own, so
    that records which no daemon is left to write stay in the pipe.
    """

    def __init__(self, ledgers: dict[str, Ledger], path: Path = FIFO) -> None:
        """`ledgers` by the path that the daemon writes in front of "/NAME"."""
        self.path = path
        self.nap = 0.0  # seconds of rest after each read, when the consumer is to be slow
        self.bite = 65536  # bytes taken at a time
        self.records = 0
        self.paths: list[str] = []  # of all records, as they were read
        self._ledgers = {os.fsencode(key) + b"/": ledger for key, ledger in ledgers.items()}
        self._thread: threading.Thread | None = None
        self._leave = threading.Event()
        self._wake = -1

    @property
    def is_there(self) -> bool:
        """Whether it has the FIFO open."""
        return self._thread is not None

    def come(self) -> None:
        """Opens the FIFO, which it makes if need be, and reads. It is open on return."""
        if self._thread is not None:
            return
        if not self.path.exists():
            os.mkfifo(self.path, 0o600)
        reading = os.open(self.path, os.O_RDONLY | os.O_NONBLOCK)
        writing = os.open(self.path, os.O_WRONLY)
        stop, self._wake = os.pipe()
        self._leave.clear()
        self._thread = threading.Thread(
            target=self._read, args=(reading, writing, stop), daemon=True
        )
        self._thread.start()

    def leave(self) -> None:
        """Reads what is in the pipe and closes it; a daemon that is just writing then dies."""
        thread, self._thread = self._thread, None
        if thread is None:
            return
        self._leave.set()
        os.close(self._wake)
        thread.join(60)
        assert not thread.is_alive(), "the consumer did not stop"

    def _read(self, reading: int, writing: int, stop: int) -> None:
        rest = b""
        with selectors.DefaultSelector() as selector:
            selector.register(reading, selectors.EVENT_READ)
            selector.register(stop, selectors.EVENT_READ)
            stopping = False
            while not stopping:
                selector.select()
                stopping = self._leave.is_set()
                rest = self._take(reading, rest, everything=stopping)
                if self.nap:
                    self._leave.wait(self.nap)
        for descriptor in (reading, writing, stop):
            os.close(descriptor)

    def _take(self, reading: int, rest: bytes, everything: bool) -> bytes:
        """Reads once, or until the pipe is empty; returns the beginning of an unfinished line."""
        while True:
            try:
                block = os.read(reading, 65536 if everything else self.bite)
            except BlockingIOError:
                return rest
            *lines, rest = (rest + block).split(b"\n")
            for line in lines:
                self._check(line)
            if not everything:
                return rest

    def _check(self, line: bytes) -> None:
        if line.startswith(START_MESSAGE):
            return
        self.records += 1
        self.paths.append(os.fsdecode(line))
        for prefix, ledger in self._ledgers.items():
            if line.startswith(prefix):
                ledger.announced(os.fsdecode(line[len(prefix) :]))
                return
        ledger = next(iter(self._ledgers.values()))
        ledger.complain(f"a record names no file of any target: {os.fsdecode(line)!r}")
