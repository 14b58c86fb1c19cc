"""A file system on a loop device, as the place that files arrive in."""

from __future__ import annotations

import os
import shutil
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from results import CannotMeasure
from support.bed import TARGETS

IMAGE = Path("/srv/disk")
DAEMONS_OWN = Path("/var/lib/skarn")
BLOCK = bytes(1 << 20)


@contextmanager
def disk(kind: str, size: int, place: Path = TARGETS) -> Iterator[None]:
    """Has all targets and the copy program's journals on a file system of that kind, or only what is
    in another place.

    The image is in memory: what a flush costs beside a disk's own speed, which differs from moment
    to moment, is what the ratios are about. It is all written beforehand, as a disk is all there.
    Mounts and loop device belong to the sandbox and end with it at the latest.
    """
    program = shutil.which(f"mkfs.{kind}")
    if program is None:
        raise CannotMeasure(f"the program mkfs.{kind} is missing")
    with open(IMAGE, "wb", buffering=0) as image:
        for _ in range(size // len(BLOCK)):
            image.write(BLOCK)
    run(program, "-q", str(IMAGE))
    for folder in (place, DAEMONS_OWN):
        folder.mkdir(parents=True, exist_ok=True)
    mounted = run("mount", "-n", "-t", kind, "-o", "loop", str(IMAGE), str(place), check=False)
    if mounted.returncode != 0:
        raise CannotMeasure(f"no {kind} on a loop device: {mounted.stderr.decode().strip()}")
    try:
        if place != TARGETS:
            yield
            return
        own = TARGETS / "skarn"
        own.mkdir()
        run("mount", "-n", "--bind", str(own), str(DAEMONS_OWN))
        try:
            yield
        finally:
            run("umount", "-n", str(DAEMONS_OWN))
    finally:
        run("umount", "-n", str(place))
        os.unlink(IMAGE)


def settle() -> None:
    """Has everything on the disk, so that nobody pays for what was written before."""
    run("sync", "-f", str(TARGETS))


def run(*command: str, check: bool = True) -> subprocess.CompletedProcess[bytes]:
    return subprocess.run(command, check=check, stderr=subprocess.PIPE, timeout=120)
