"""What the tests of the daemon's outside start from: a host on which it can be started."""

from __future__ import annotations

from collections.abc import Iterator

import pytest

from support import scripted
from support.daemon import Daemon, install_password_file


@pytest.fixture
def daemon() -> Iterator[Daemon]:
    """A daemon, not started, with its password file and the scripted copy program in place."""
    install_password_file()
    scripted.install()
    with Daemon() as one:
        yield one
