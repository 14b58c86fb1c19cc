"""A target on a disk: a small file system in a file."""

from __future__ import annotations

import shutil
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

CANNOT_RUN = 77  # what ctest takes for skipped


@contextmanager
def ext4(place: Path, megabytes: int = 32) -> Iterator[Path]:
    """An ext4 file system that is mounted at `place` until the end of the block. Where none can be
    had, none of the file's tests is run, which counts as skipped."""
    for tool in ("mkfs.ext4", "mount", "strace"):
        if not shutil.which(tool, path="/usr/sbin:/usr/bin:/sbin:/bin"):
            pytest.exit(f"the program '{tool}' is missing", CANNOT_RUN)
    image = Path(f"{place}.image")
    with open(image, "wb") as file:
        file.truncate(megabytes * 1024 * 1024)
    subprocess.run(["/sbin/mkfs.ext4", "-q", "-m", "0", image], check=True)
    place.mkdir(parents=True, exist_ok=True)
    mounting = subprocess.run(
        ["mount", "-o", "loop", image, place], stderr=subprocess.PIPE, text=True, check=False
    )
    if mounting.returncode != 0:
        why = mounting.stderr.strip()
        pytest.exit(f"this machine mounts no file system from a file: {why}", CANNOT_RUN)
    (place / "lost+found").rmdir()
    try:
        yield place
    finally:
        subprocess.run(["umount", place], check=True)
        image.unlink()
