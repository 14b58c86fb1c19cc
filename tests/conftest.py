"""What every pytest file relies on: it runs in the sandbox, and each test finds it empty."""

from __future__ import annotations

import os
import re
import stat
from collections.abc import Iterator
from pathlib import Path

import pytest

from support import daemon, processes

# Emptied between tests. Below /etc only the daemon's own files go.
EMPTIED = ("/tmp", "/run", "/srv", "/usr/local/orbelin", str(daemon.REPORTS))


def pytest_configure(config: pytest.Config) -> None:
    """Refuses to run outside the sandbox: the tests write to the daemon's fixed places."""
    if not processes.in_sandbox():
        raise pytest.UsageError(
            "these tests use the daemon's fixed places (/etc, /var/run, /tmp, /usr/local): run them "
            "with tests/support/sandbox COMMAND, as ctest does"
        )


@pytest.fixture(autouse=True)
def empty_sandbox() -> Iterator[None]:
    """Gives each test empty places, and ends afterwards what it started.

    Fails the test when a daemon built with a sanitizer left a complaint.
    """
    empty_places()
    yield
    processes.end_descendants()
    reports = daemon.sanitizer_reports()
    empty_places()
    assert not reports, reports


def empty_places() -> None:
    """Removes everything from the daemon's places, and puts back the empty folders."""
    kept = mount_points()
    for place in EMPTIED:
        if os.path.isdir(place):
            empty(os.path.realpath(place), kept)
    for name in os.listdir("/etc"):
        if name.startswith("skarn_orbelin"):
            remove(os.path.join("/etc", name), kept)
    for folder in (daemon.COPY_PROGRAM.parent, daemon.PASSWORD_FILE.parent):
        folder.mkdir(parents=True, exist_ok=True)
    for place, mode in (("/run", 0o755), ("/srv", 0o755), ("/tmp", 0o1777)):
        os.chmod(place, mode)


def mount_points() -> set[str]:
    """Where something is mounted: what is mounted below an emptied place is not ours to empty."""
    lines = Path("/proc/self/mountinfo").read_text(encoding="utf-8").splitlines()
    return {
        re.sub(r"\\([0-7]{3})", lambda code: chr(int(code[1], 8)), line.split()[4])
        for line in lines
    }


def empty(folder: str, kept: set[str]) -> bool:
    """Empties a folder but for the places in `kept`; returns whether nothing is left."""
    done = True
    for name in os.listdir(folder):
        done = remove(os.path.join(folder, name), kept) and done
    return done


def remove(path: str, kept: set[str]) -> bool:
    """Removes a file or folder but for the places in `kept`; returns whether it is gone."""
    if path in kept:
        return False
    if stat.S_ISDIR(os.lstat(path).st_mode):
        if not empty(path, kept):
            return False
        os.rmdir(path)
    else:
        os.unlink(path)
    return True
