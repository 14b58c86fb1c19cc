"""Emptying and removing folders without walking into what is mounted below them.

Whatever a test removes in the daemon's fixed places is removed by these two: wherever the project
lies, it may be seen below one of those places.
"""

from __future__ import annotations

import os
import stat
from contextlib import suppress
from pathlib import Path


def empty(place: str | Path, within: int | None = None) -> bool:
    """Removes what is in a folder (named from the folder `within`, if given), at any depth.

    What is mounted below it stays, and so do the folders on the way there. What goes away meanwhile
    is no mistake. Returns whether nothing is left.
    """
    folder = os.open(place, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW, dir_fd=within)
    try:
        device = os.fstat(folder).st_dev
        nothing_left = True
        for name in os.listdir(folder):
            with suppress(FileNotFoundError):
                status = os.stat(name, dir_fd=folder, follow_symlinks=False)
                if status.st_dev != device:
                    nothing_left = False
                elif not stat.S_ISDIR(status.st_mode):
                    os.unlink(name, dir_fd=folder)
                elif empty(name, folder):
                    os.rmdir(name, dir_fd=folder)
                else:
                    nothing_left = False
        return nothing_left
    finally:
        os.close(folder)


def remove(path: str | Path) -> None:
    """Takes a file, a link or a whole folder away, if it is there; but see `empty`."""
    if os.path.isdir(path) and not os.path.islink(path):
        if not os.path.ismount(path) and empty(path):
            os.rmdir(path)
    else:
        Path(path).unlink(missing_ok=True)
