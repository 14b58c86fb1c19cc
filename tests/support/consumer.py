"""The reader of the named pipe in which files are announced: keeps each line and when it came."""

from __future__ import annotations

import os
import selectors
import threading
import time
from collections import Counter
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType

from support.daemon import FIFO
from support.waiting import LIMIT

START_MESSAGE = "usershift: "


@dataclass(frozen=True)
class Record:
    """One line of the pipe without its line feed, and when it was read (time.monotonic)."""

    line: str
    arrival: float


class Consumer:
    """Reads the FIFO at `path`, which it makes if need be, on a thread of its own.

    It keeps a writing end of its own open, so that it never sees an end of file between two
    writers, and never leaves the pipe without a reader until it is stopped.

    With a `nap` it rests that many seconds after each read, so that it takes many records at a
    time and little of the processor; the pipe holds what comes meanwhile.
    """

    def __init__(self, path: Path = FIFO, nap: float = 0) -> None:
        self.path = path
        self._nap = nap
        self._records: list[Record] = []
        self._announced = 0
        self._changed = threading.Condition()
        self._thread: threading.Thread | None = None
        self._reading = self._writing = self._wake = -1

    def start(self) -> None:
        """Makes and opens the FIFO and begins to read. It is open for reading on return."""
        assert self._thread is None, "the consumer runs already"
        if not self.path.exists():
            os.mkfifo(self.path, 0o600)
        self._reading = os.open(self.path, os.O_RDONLY | os.O_NONBLOCK)
        self._writing = os.open(self.path, os.O_WRONLY)
        stop, self._wake = os.pipe()
        self._thread = threading.Thread(target=self._read, args=(stop,), daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Reads what is left and closes the FIFO; does nothing if it was not started.

        A daemon that writes into the FIFO afterwards is ended by SIGPIPE: stop the daemon first.
        """
        thread, self._thread = self._thread, None
        if thread is None:
            return
        os.close(self._wake)
        thread.join(30)
        assert not thread.is_alive(), "the consumer did not stop"
        os.close(self._writing)
        os.close(self._reading)

    def records(self) -> list[Record]:
        """All lines read so far, the start-up message included, in order of arrival."""
        with self._changed:
            return list(self._records)

    def lines(self) -> list[str]:
        """The text of all lines read so far."""
        return [record.line for record in self.records()]

    def announced(self) -> list[str]:
        """The paths handed off so far: every line but the start-up message."""
        return [line for line in self.lines() if not line.startswith(START_MESSAGE)]

    def names_below(self, target: str) -> list[str]:
        """The names handed off so far for one target directory, as the daemon writes it."""
        prefix = target + "/"
        return [line[len(prefix) :] for line in self.announced() if line.startswith(prefix)]

    def count(self) -> int:
        """How many paths have been handed off so far."""
        with self._changed:
            return self._announced

    def wait_for(self, count: int, timeout: float = LIMIT) -> None:
        """Waits until `count` paths have been handed off."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while self._announced < count:
                remaining = deadline - time.monotonic()
                if remaining <= 0:
                    raise AssertionError(
                        f"{self._announced} of {count} files were announced in {timeout} s"
                    )
                self._changed.wait(remaining)

    def forget(self) -> None:
        """Drops the lines read so far; they stay counted."""
        with self._changed:
            self._records.clear()

    def repeated(self) -> list[str]:
        """The paths that were handed off more than once."""
        return sorted(path for path, times in Counter(self.announced()).items() if times > 1)

    def __enter__(self) -> Consumer:
        self.start()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.stop()

    def _read(self, stop: int) -> None:
        rest = b""
        with selectors.DefaultSelector() as selector:
            selector.register(self._reading, selectors.EVENT_READ)
            selector.register(stop, selectors.EVENT_READ)
            stopping = False
            while not stopping:
                ready = [key.fd for key, _ in selector.select()]
                stopping = stop in ready
                rest = self._drain(rest)
                if self._nap and not stopping:
                    time.sleep(self._nap)
        os.close(stop)

    def _drain(self, rest: bytes) -> bytes:
        """Reads all that the pipe holds; returns the beginning of a line that is not whole yet."""
        while True:
            try:
                block = os.read(self._reading, 65536)
            except BlockingIOError:
                return rest
            now = time.monotonic()
            *lines, rest = (rest + block).split(b"\n")
            with self._changed:
                for line in lines:
                    self._records.append(Record(os.fsdecode(line), now))
                    self._announced += not line.startswith(os.fsencode(START_MESSAGE))
                self._changed.notify_all()
