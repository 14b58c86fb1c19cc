"""A disk whose power can be cut: what it holds at one instant is kept, and looked at afterwards.

The disk is a file on an XFS in memory that shares blocks between files, so that a copy of it takes
some milliseconds and holds exactly what the disk held at one instant, however much was being
written. A file system in the copy recovers when it is mounted, as after a cut of the power. What
was in the page cache alone is not in it.

Everything is mounted in the sandbox's own mount namespace, and every loop device ends with its
mount: nothing is left on the machine, however the run ends.
"""

from __future__ import annotations

import fcntl
import functools
import os
import shutil
import struct
import subprocess
import tempfile
from collections.abc import Sequence
from pathlib import Path

from support.waiting import wait_until

STORE = Path("/srv/store")  # where the XFS is mounted that holds the disks
MEGABYTE = 1 << 20
PART = 640 * MEGABYTE  # the size of one file system, next to nothing of which is used at first
STORE_SIZE = 12_000 * MEGABYTE

# How each file system is made, and with which options its copy is mounted while the original, with
# the same identity, may be mounted too.
MAKERS: dict[str, Sequence[str]] = {
    "ext4": ("mkfs.ext4", "-q", "-F"),
    "xfs": ("mkfs.xfs", "-q", "-f"),
    "btrfs": ("mkfs.btrfs", "-q", "-f"),
}
OPTIONS = {"ext4": "", "xfs": ",nouuid", "btrfs": ""}

FICLONE = 0x40049409
FICLONERANGE = 0x4020940D


def run(*command: str | Path) -> str:
    """Runs a command that must succeed; returns what it printed."""
    words = [str(word) for word in command]
    path = "/usr/sbin:/usr/bin:/sbin:/bin"
    done = subprocess.run(
        words, capture_output=True, text=True, timeout=120, check=False, env={"PATH": path}
    )
    assert done.returncode == 0, f"{words}: {done.stderr or done.stdout}"
    return done.stdout


@functools.cache
def missing(kinds: tuple[str, ...] = tuple(MAKERS)) -> str:
    """What this machine lacks for such disks with these file systems, or "" if it has all."""
    for kind in {"xfs", *kinds}:
        program = MAKERS[kind][0]
        if shutil.which(program, path="/usr/sbin:/usr/bin:/sbin:/bin") is None:
            return f"the program {program!r} is missing"
    try:
        for kind in sorted({"xfs", *kinds}):
            with tempfile.TemporaryDirectory(prefix="disk", dir="/srv") as folder:
                image, place = Path(folder, "image"), Path(folder, "place")
                make_file_system(kind, image)
                place.mkdir()
                mount(image, place, kind)
                unmount(place)
    except AssertionError as error:
        return f"no {kind} can be mounted: {error}"
    return ""


def make_file_system(kind: str, image: Path) -> None:
    """Makes an empty file system in a new file."""
    with image.open("xb") as file:
        file.truncate(PART)
    run(*MAKERS[kind], *(("-m", "reflink=1") if kind == "xfs" else ()), image)


def mount(image: Path, place: Path, kind: str, part: int | None = 0) -> None:
    """Mounts one part of an image, or all of it, through a loop device that ends with the mount."""
    limits = "discard" if part is None else f"offset={part * PART},sizelimit={PART}"
    run("mount", "-n", "-t", kind, "-o", f"loop,{limits}{OPTIONS[kind]}", image, place)


def unmount(place: Path) -> None:
    """Unmounts, as soon as what just ended has let go of it."""

    def done() -> bool:
        words = ["/bin/umount", "-n", str(place)]
        return subprocess.run(words, capture_output=True, timeout=60, check=False).returncode == 0

    wait_until(done, f"{place} to be unmounted", 20)


class Store:
    """The XFS that holds the disks of a run, mounted as long as the `with` block lasts."""

    def __enter__(self) -> Store:
        image = STORE.with_name("store.image")
        with image.open("xb") as file:
            file.truncate(STORE_SIZE)
        run(*MAKERS["xfs"], "-m", "reflink=1", image)
        STORE.mkdir()
        mount(image, STORE, "xfs", part=None)
        return self

    def __exit__(self, *_: object) -> None:
        unmount(STORE)
        STORE.rmdir()
        STORE.with_name("store.image").unlink()

    def new_disk(self, kind: str, parts: int) -> Disk:
        """A disk with that many empty file systems of one kind."""
        templates = []
        for number in range(parts):
            template = STORE / f"empty-{kind}-{number}"  # two, since each has an identity
            if not template.exists():
                make_file_system(kind, template)
            templates.append(template)
        image = STORE / "disk"
        with image.open("wb") as file:
            file.truncate(parts * PART)
            for number, template in enumerate(templates):
                with template.open("rb") as empty:
                    extent = struct.pack("qQQQ", empty.fileno(), 0, PART, number * PART)
                    fcntl.ioctl(file, FICLONERANGE, extent)
        return Disk(kind, parts, image)


class Disk:
    """One disk with one or two file systems, and folders of theirs that are seen elsewhere."""

    def __init__(self, kind: str, parts: int, image: Path) -> None:
        self.kind = kind
        self.parts = parts
        self.image = image
        self._mounted: list[Path] = []

    def attach(self, folders: Sequence[Path]) -> None:
        """Mounts it and lets its folders, made if need be, be seen at these paths: the n-th is on
        the n-th file system, or on the last one.
        """
        for number in range(self.parts):
            place = Path(f"/srv/part{number}")
            place.mkdir(exist_ok=True)
            mount(self.image, place, self.kind, number)
            self._mounted.append(place)
        for number, folder in enumerate(folders):
            held = Path(f"/srv/part{min(number, self.parts - 1)}") / folder.name
            held.mkdir(exist_ok=True)
            folder.mkdir(parents=True, exist_ok=True)
            run("mount", "-n", "--bind", held, folder)
            self._mounted.append(folder)

    def flush(self) -> None:
        """Writes out what is in the page cache: what is there now survives a cut."""
        for number in range(self.parts):
            run("sync", "-f", f"/srv/part{number}")

    def detach(self) -> None:
        """Unmounts it; what uses it must have ended."""
        while self._mounted:
            unmount(self._mounted[-1])
            self._mounted.pop()

    def cut(self, name: str) -> Disk:
        """What the disk holds at this instant, as a disk of its own."""
        image = STORE / name
        with self.image.open("rb") as now, image.open("xb") as file:
            fcntl.ioctl(file, FICLONE, now.fileno())
        return Disk(self.kind, self.parts, image)

    def remove(self) -> None:
        """Gives back its space."""
        os.unlink(self.image)
