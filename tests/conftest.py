"""What every pytest file relies on: it runs in the sandbox, and each test finds it empty."""

from __future__ import annotations

import os
import signal
import stat
from collections.abc import Iterator
from pathlib import Path

import pytest

from support import daemon, processes

# Emptied between tests. Below /etc only the daemon's own files go.
EMPTIED = (
    *("/tmp", "/run", "/srv", "/usr/local/orbelin", "/var/lib/skarn"),
    str(daemon.REPORTS),
)


def pytest_configure(config: pytest.Config) -> None:
    """Refuses to run outside the sandbox: the tests write to the daemon's fixed places."""
    if not processes.in_sandbox():
        raise pytest.UsageError(
            "these tests use the daemon's fixed places (/etc, /var/run, /tmp, /usr/local): "
            "run them with tests/support/sandbox COMMAND, as ctest does"
        )
    # A shell starts what runs in its background with these ignored, and so would the daemon be.
    for number in (signal.SIGINT, signal.SIGQUIT):
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, signal.SIG_DFL)


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
    for place in EMPTIED:
        if os.path.isdir(place):
            empty(os.path.realpath(place))
    for name in os.listdir("/etc"):
        if name.startswith("skarn_orbelin"):
            path = Path("/etc", name)
            if path.is_dir():
                empty(str(path))
                path.rmdir()
            else:
                path.unlink()
    for folder in (daemon.COPY_PROGRAM.parent, daemon.PASSWORD_FILE.parent):
        folder.mkdir(parents=True, exist_ok=True)
    for place, mode in (("/run", 0o755), ("/srv", 0o755), ("/tmp", 0o1777)):
        os.chmod(place, mode)


def empty(place: str, within: int | None = None) -> bool:
    """Removes what is in a folder (named from the folder `within`, if given), at any depth.

    What is mounted below it stays: the project itself may be seen there. Returns whether nothing
    is left.
    """
    folder = os.open(place, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW, dir_fd=within)
    try:
        device = os.fstat(folder).st_dev
        nothing_left = True
        for name in os.listdir(folder):
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
