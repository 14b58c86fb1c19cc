"""What the tests of the brokers need of the machine."""

from __future__ import annotations

from collections.abc import Iterator

import pytest

from brokers import rabbitmq
from support.relay_process import end_all


@pytest.fixture(autouse=True)
def ended_relays(empty_sandbox: None) -> Iterator[None]:
    """Ends the relays that a test leaves; what is wrong with how they end is a failure of it."""
    yield
    end_all()


@pytest.fixture
def broker(empty_sandbox: None) -> Iterator[rabbitmq.RabbitMq]:
    """A RabbitMQ that runs."""
    if rabbitmq.programs() is None:
        pytest.exit("skipped: rabbitmq-server is not installed", returncode=77)
    started = rabbitmq.RabbitMq()
    started.start()
    yield started
