"""A mounted file system of which nobody ever answers a question: a file server that is gone."""

from __future__ import annotations

import os
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

_mounted: list[Path] = []


def is_mounted() -> bool:
    """Whether there is one now. What waits for it can't be stopped, not even to look for leaks."""
    return bool(_mounted)


@contextmanager
def dead_file_system() -> Iterator[Path]:
    """One in user space, without the program that would serve it."""
    try:
        fuse = os.open("/dev/fuse", os.O_RDWR)
    except OSError as error:
        pytest.exit(f"no FUSE here: {error}", 77)
    place = Path("/srv/dead")
    place.mkdir(exist_ok=True)
    options = f"fd={fuse},rootmode=40000,user_id=0,group_id=0"
    subprocess.run(
        ["mount", "-i", "-t", "fuse", "-o", options, "dead", str(place)], check=True, pass_fds=[fuse]
    )
    _mounted.append(place)
    try:
        yield place
    finally:
        _mounted.remove(place)
        os.close(fuse)  # ends all that wait
        subprocess.run(["umount", "--lazy", str(place)], check=True)
