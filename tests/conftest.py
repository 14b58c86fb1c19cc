"""What every pytest file relies on: it runs in the sandbox, and each test finds it empty."""

from __future__ import annotations

import os
import signal
import time
from collections.abc import Iterator

import pytest

from support import daemon, processes
from support.folders import empty, remove

# Emptied between tests. Below /etc only the daemon's own files go.
EMPTIED = (
    *("/tmp", "/run", "/srv", "/usr/local/orbelin", "/var/lib/skarn", "/var/log"),
    str(daemon.REPORTS),
)


def pytest_configure(config: pytest.Config) -> None:
    """Refuses to run outside the sandbox: the tests write to the daemon's fixed places.

    In it they begin alike, whoever calls them and from where.
    """
    if not processes.in_sandbox():
        raise pytest.UsageError(
            "these tests use the daemon's fixed places (/etc, /var/run, /tmp, /usr/local): "
            "run them with tests/support/sandbox COMMAND, as ctest does"
        )
    os.umask(0o022)
    # The daemon is started without this variable: it has the machine's own time zone.
    os.environ.pop("TZ", None)
    time.tzset()
    # A shell starts what runs in its background with these ignored, and so would the daemon be.
    for number in (signal.SIGINT, signal.SIGQUIT):
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, signal.SIG_DFL)


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """Keeps the cases of the part that SKARN_TESTS_PART names, "1/3" for the first of three: each
    part runs in a sandbox of its own. Every case is in just one.
    """
    part, parts = map(int, os.environ.get("SKARN_TESTS_PART", "1/1").split("/"))
    mine = items[part - 1 :: parts]
    config.hook.pytest_deselected(items=[each for each in items if each not in mine])
    items[:] = mine


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
            remove(f"/etc/{name}")
    for folder in (daemon.COPY_PROGRAM.parent, daemon.PASSWORD_FILE.parent):
        folder.mkdir(parents=True, exist_ok=True)
    for place in ("/run", "/srv", "/usr/local/orbelin"):
        os.chmod(place, 0o755)
    os.chmod("/tmp", 0o1777)
