"""What the tests of the brokers need of the machine."""

from __future__ import annotations

from collections.abc import Iterator

import pytest

from brokers import rabbitmq


@pytest.fixture
def broker(empty_sandbox: None) -> Iterator[rabbitmq.RabbitMq]:
    """A RabbitMQ that runs."""
    if rabbitmq.programs() is None:
        pytest.exit("skipped: rabbitmq-server is not installed", returncode=77)
    started = rabbitmq.RabbitMq()
    started.start()
    yield started
