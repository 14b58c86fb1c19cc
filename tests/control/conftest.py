"""What the tests of skarnctl start from: a host on which the daemon can be started, and no daemon."""

from __future__ import annotations

import pytest

from support import processes, scripted
from support.daemon import Detector, install_password_file, write_configuration


@pytest.fixture
def host() -> None:
    """Configuration with one detector, password file and scripted copy program; nothing runs.
    After an empty listing the daemon rests for the remainder of the test.
    """
    processes.adopt_orphans()
    install_password_file()
    scripted.install()
    write_configuration(None, [Detector("1", minpause=60000)])
