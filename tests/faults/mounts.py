"""Changing a file system that is mounted in the sandbox: its size, its inodes, whether it can be
written."""

from __future__ import annotations

import ctypes
import os
import subprocess
import time
from pathlib import Path

MS_RDONLY = 1
MS_REMOUNT = 32
PAGE = os.sysconf("SC_PAGE_SIZE")

_libc = ctypes.CDLL(None, use_errno=True)


_mounted: list[Path] = []


def mount_memory(place: Path, mode: int = 0o755) -> None:
    """Mounts an empty file system in memory at `place`, which is made if need be; once, until
    `unmount_all`.
    """
    if place in _mounted:
        return
    place.mkdir(mode=mode, parents=True, exist_ok=True)
    options = f"mode={mode:o}"
    command = ["mount", "-n", "-t", "tmpfs", "-o", options, "tmpfs", str(place)]
    subprocess.run(command, check=True, timeout=30)
    _mounted.append(place)


def unmount_all() -> None:
    """Takes away what `mount_memory` mounted, so that another run finds everything empty."""
    while _mounted:
        # Whatever still has a file open on it keeps it, out of sight, until it ends.
        command = ["umount", "-n", "-l", str(_mounted.pop())]
        subprocess.run(command, check=True, timeout=30)


def remount(place: Path, options: str = "", read_only: bool = False) -> bool:
    """Changes a mounted file system; False if it can't be done at this moment."""
    flags = MS_REMOUNT | (MS_RDONLY if read_only else 0)
    done: int = _libc.mount(None, os.fsencode(place), None, flags, options.encode())
    return done == 0


def use_up_space(place: Path, left: int, limit: float = 5) -> bool:
    """Leaves room for `left` more pages of data on a file system in memory.

    False if it was filling so fast that its size could not be brought down to that in `limit`
    seconds.
    """
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        status = os.statvfs(place)
        used = (status.f_blocks - status.f_bfree) * status.f_frsize
        # A size of 0 would mean none at all.
        if remount(place, f"size={max(used, PAGE) + left * PAGE}"):
            return True
    return False


def use_up_inodes(place: Path, left: int, limit: float = 5) -> bool:
    """Leaves room for `left` more files on a file system in memory, as `use_up_space` does."""
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        status = os.statvfs(place)
        if remount(place, f"nr_inodes={status.f_files - status.f_ffree + left}"):
            return True
    return False


def give_back(place: Path) -> None:
    """Undoes both of the above."""
    assert remount(place, "size=50%"), f"the size of {place} could not be put back"
    assert remount(place, "nr_inodes=1000000"), f"the inodes of {place} could not be put back"


def forbid_writing(place: Path, limit: float = 5) -> bool:
    """Makes a file system read-only, which takes a moment when no file on it is open for writing.

    False if there was none in `limit` seconds.
    """
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        if remount(place, read_only=True):
            return True
    return False


def allow_writing(place: Path) -> None:
    """Makes a file system writable again."""
    assert remount(place), f"{place} could not be made writable again"
