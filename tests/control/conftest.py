"""What the tests of skarnctl start from: a host on which the daemon can be started, and no daemon."""

from __future__ import annotations

import os
import shutil
from collections.abc import Iterator
from pathlib import Path

import pytest

from support import processes, scripted
from support.daemon import (
    CONFIGURATION,
    LOG_FILE,
    PID_FILE,
    STATUS_FILE,
    Detector,
    file_lists,
    install_password_file,
    write_configuration,
)


def _remove(path: Path) -> None:
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    else:
        path.unlink(missing_ok=True)


@pytest.fixture
def host() -> Iterator[None]:
    """Configuration with one detector, password file and scripted copy program; nothing runs.
    After an empty listing the daemon rests for the remainder of the test.

    Whatever the test starts is ended afterwards, and the control files are taken away.
    """
    processes.adopt_orphans()
    shutil.rmtree(scripted.FOLDER, ignore_errors=True)
    install_password_file()
    scripted.install()
    write_configuration(None, [Detector("1", minpause=60000)])
    yield
    processes.end_descendants()
    for path in (PID_FILE, STATUS_FILE, CONFIGURATION, LOG_FILE, *file_lists()):
        _remove(path)
    for name in os.listdir("/srv"):
        if name.startswith("victim-"):
            _remove(Path("/srv") / name)
