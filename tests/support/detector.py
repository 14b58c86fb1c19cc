"""A simulated detector: writes frames with known contents into its share, as the real one does."""

from __future__ import annotations

import hashlib
import os
import random
import threading
import time
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Frame:
    """One entry that the detector produced: its name below the share's root and what is in it."""

    name: str
    size: int
    digest: str


def digest_of(content: bytes) -> str:
    """The checksum by which frames are compared."""
    return hashlib.sha256(content).hexdigest()


def digest_of_entry(path: Path) -> str:
    """The checksum of a file's bytes; for a symbolic link, where it leads."""
    if path.is_symlink():
        return f"link to {os.readlink(path)}"
    return digest_of(path.read_bytes())


def frame_names(count: int, prefix: str = "frame_", suffix: str = ".raw") -> list[str]:
    """Numbered names in the order in which a detector would use them."""
    return [f"{prefix}{number:06d}{suffix}" for number in range(1, count + 1)]


class SimulatedDetector:
    """Writes frames below `root` and remembers each in `frames`, by name.

    A frame is written as NAME.tmp and renamed when it is whole, so that no reader sees half a
    frame under its name. The content follows from `seed` and the name alone. Frames may be
    written from several threads, each name once.
    """

    def __init__(self, root: Path, seed: str = "detector") -> None:
        self.root = root
        self.frames: dict[str, Frame] = {}
        self._seed = seed
        self._lock = threading.Lock()
        self._producer: threading.Thread | None = None
        self._stop = threading.Event()

    def content(self, name: str, size: int) -> bytes:
        """What the frame of this name and size holds."""
        return random.Random(os.fsencode(f"{self._seed}/{name}")).randbytes(size)

    def write(self, name: str, size: int = 2000) -> Frame:
        """Writes one frame; folders in its name are made as needed."""
        content = self.content(name, size)
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        unfinished = path.with_name(path.name + ".tmp")
        unfinished.write_bytes(content)
        frame = Frame(name, size, digest_of(content))
        with self._lock:
            self.frames[name] = frame
        os.rename(unfinished, path)
        return frame

    def symbolic_link(self, name: str, to: str) -> Frame:
        """Makes a symbolic link; where it leads need not exist."""
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        frame = Frame(name, len(os.fsencode(to)), f"link to {to}")
        with self._lock:
            self.frames[name] = frame
        os.symlink(to, path)
        return frame

    def hard_link(self, name: str, existing: str) -> Frame:
        """Gives a frame that is still in the share a second name."""
        frame = Frame(name, self.frames[existing].size, self.frames[existing].digest)
        with self._lock:
            self.frames[name] = frame
        os.link(self.root / existing, self.root / name)
        return frame

    def burst(self, names: Iterable[str], size: int = 2000) -> None:
        """Writes the frames one after the other, as fast as it goes."""
        for name in names:
            self.write(name, size)

    def produce(
        self, names: Iterable[str], size: int, rate: float, stopped: Callable[[], bool]
    ) -> None:
        """Writes the frames at `rate` a second, until they are all written or `stopped()`.

        One that is late is caught up with: the rate holds on the average.
        """
        begin = time.monotonic()
        for number, name in enumerate(names):
            while not stopped():
                ahead = begin + number / rate - time.monotonic()
                if ahead <= 0:
                    break
                time.sleep(min(ahead, 0.1))
            if stopped():
                return
            self.write(name, size)

    def start(self, names: Iterable[str], size: int, rate: float) -> None:
        """Lets `produce` run beside the caller, until `stop` or the last frame."""
        assert self._producer is None, "the detector is producing already"
        self._stop.clear()
        self._producer = threading.Thread(
            target=self.produce, args=(names, size, rate, self._stop.is_set), daemon=True
        )
        self._producer.start()

    def wait(self, timeout: float) -> None:
        """Waits until the last frame of `start` is written."""
        assert self._producer is not None, "the detector was not started"
        self._producer.join(timeout)
        if self._producer.is_alive():
            raise TimeoutError(f"the detector was still producing after {timeout} s")
        self._producer = None

    def stop(self) -> None:
        """Ends the production that `start` began; does nothing if there is none."""
        self._stop.set()
        if self._producer is not None:
            self.wait(30)

    @property
    def produced(self) -> int:
        """How many frames have been written so far."""
        with self._lock:
            return len(self.frames)

    def left(self) -> list[str]:
        """The names of everything but folders that is still in the share, sorted."""
        return list_files(self.root)


def list_files(root: Path) -> list[str]:
    """The names below `root` of everything that is not a folder, sorted."""
    found = []
    for folder, folders, names in os.walk(root):
        links = [name for name in folders if os.path.islink(os.path.join(folder, name))]
        for name in names + links:
            found.append(os.path.relpath(os.path.join(folder, name), root))
    return sorted(found)
