"""Who the broker is, and who the relay is: certificates and passwords."""

from __future__ import annotations

import signal
from collections.abc import Iterator
from pathlib import Path

import pytest

from brokers import certificates, rabbitmq
from brokers.host import Host
from brokers.rabbitmq import PORT, TLS_PORT, Client, RabbitMq

PASSWORD = Path("/tmp/password")
SUBSCRIBER = f"""
type = "amqp"
broker = "amqps://localhost:{TLS_PORT}"
queue = "files"
ca_file = "{rabbitmq.CERTIFICATES}/ca.pem"
"""


@pytest.fixture
def secure_broker(empty_sandbox: None) -> Iterator[RabbitMq]:
    """A RabbitMQ with a certificate of its own; it does not run yet."""
    if rabbitmq.programs() is None:
        pytest.exit("skipped: rabbitmq-server is not installed", returncode=77)
    certificates.make_authority()
    yield RabbitMq(with_tls=True)


def paths_in_queue() -> list[str]:
    """What the queue holds."""
    client = Client()
    paths = [message.record["path"] for message in client.take("files")]
    client.close()
    return paths


def restart(broker: RabbitMq) -> None:
    """Has it take a certificate that was made anew."""
    broker.end(signal.SIGTERM)
    broker.start()


def test_only_a_broker_with_a_valid_certificate_of_its_host_gets_anything(
    secure_broker: RabbitMq,
) -> None:
    certificates.make_server(time=certificates.PAST)
    secure_broker.start()
    host = Host(SUBSCRIBER)
    host.start()
    paths = host.announce(5)
    host.wait_for_problem(
        f"connecting to amqps://localhost:{TLS_PORT}: its certificate is not accepted: "
        "certificate has expired"
    )

    certificates.make_server("elsewhere")
    restart(secure_broker)
    host.wait_for_problem("hostname")
    assert host.figures()["delivered"] == 0

    certificates.make_server()
    restart(secure_broker)
    host.wait_until_delivered()
    assert paths_in_queue() == paths


def test_a_wrong_password_is_told_and_a_right_one_taken(broker: RabbitMq) -> None:
    broker.control("add_user", "relay", "right")
    broker.control("set_permissions", "relay", ".*", ".*", ".*")
    subscriber = f"""
type = "amqp"
broker = "amqp://127.0.0.1:{PORT}"
queue = "files"
user = "relay"
password_file = "{PASSWORD}"
"""
    host = Host(subscriber)
    host.start()
    paths = host.announce(3)
    host.wait_for_problem(f"the password cannot be read from {PASSWORD}: No such file")
    PASSWORD.write_text("wrong\n", encoding="ascii")
    refused = host.wait_for_problem("logging in as relay")
    assert "ACCESS_REFUSED" in refused
    assert "wrong" not in host.messages().replace("wrong password", "")
    PASSWORD.write_text("right\n", encoding="ascii")
    host.wait_until_delivered()
    assert paths_in_queue() == paths


def test_one_without_the_right_to_write_is_told(broker: RabbitMq) -> None:
    client = Client()
    client.bind("files", "skarn")
    broker.control("add_user", "relay", "right")
    broker.control("set_permissions", "relay", "", "", ".*")
    PASSWORD.write_text("right", encoding="ascii")
    subscriber = f"""
type = "amqp"
broker = "amqp://127.0.0.1:{PORT}"
exchange = "skarn"
declare = false
user = "relay"
password_file = "{PASSWORD}"
"""
    host = Host(subscriber)
    host.start()
    host.announce(3)
    host.wait_for_problem("ACCESS_REFUSED - access to exchange 'skarn' in vhost '/' refused for user 'relay'")
    broker.control("set_permissions", "relay", "", "skarn", ".*")
    host.wait_until_delivered()
    client.close()
