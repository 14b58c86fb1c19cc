"""What the tests of the relay start from: the daemon's pipe, held open as a service manager does."""

from __future__ import annotations

import os
from collections.abc import Iterator

import pytest

from support.daemon import FIFO
from support.relay_process import end_all


@pytest.fixture(autouse=True)
def held_pipe(empty_sandbox: None) -> Iterator[None]:
    """Holds the pipe open, so that it outlives its readers with what is in it. Ends them at last."""
    os.mkfifo(FIFO, 0o600)
    descriptor = os.open(FIFO, os.O_RDWR | os.O_NONBLOCK)
    yield
    end_all()
    os.close(descriptor)
