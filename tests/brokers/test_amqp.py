"""What a RabbitMQ gets from a relay, and what the relay does when that is in trouble."""

from __future__ import annotations

import signal
import time

from brokers.host import Host
from brokers.rabbitmq import PORT, Client, Message, RabbitMq

EXCHANGE = f"""
type = "amqp"
broker = "amqp://127.0.0.1:{PORT}"
exchange = "skarn"
key = "{{host}}.{{kind}}.{{detector}}"
heartbeat = 2
"""
QUEUE = f"""
type = "amqp"
broker = "amqp://127.0.0.1:{PORT}"
queue = "files"
heartbeat = 2
"""


def take(queue: str = "files") -> list[Message]:
    """All that the queue holds."""
    client = Client()
    messages = client.take(queue)
    client.close()
    return messages


def bind() -> None:
    """Makes the queue that gets all of the exchange's."""
    client = Client()
    client.bind("files", "skarn")
    client.close()


def without_repeats(messages: list[Message]) -> list[str]:
    """The paths of messages whose id was not seen before, in order."""
    seen: dict[str, str] = {}
    for message in messages:
        path = seen.setdefault(message.ident, message.record["path"])
        assert path == message.record["path"], "one id is that of two records"
    return list(seen.values())


def test_each_record_becomes_a_persistent_message_with_an_id_and_a_key(broker: RabbitMq) -> None:
    bind()
    host = Host(EXCHANGE)
    host.start()
    paths = host.announce(2500)
    host.wait_until_delivered()
    messages = take()
    assert [message.record["path"] for message in messages] == paths
    assert len({message.ident for message in messages}) == len(paths)
    first = messages[0]
    assert first.ident.startswith("host1:1:")
    assert first.key == "host1.file.-"
    assert first.is_persistent
    assert first.content_type == "application/json"
    assert host.figures()["delivered"] == len(paths)
    assert host.figures()["failures"] == 0


def test_a_message_has_the_key_of_its_run_and_so_has_what_is_told_of_the_run(
    broker: RabbitMq,
) -> None:
    client = Client()
    client.bind("files", "skarn", "run1")
    client.bind("others", "skarn", "-")
    client.close()
    host = Host(EXCHANGE.replace("{host}.{kind}.{detector}", "{run}") + """
[runs]
pattern = '/(?P<run>run[0-9]+)/f(?P<index>[0-9]+)$'
first_index = 0
""")
    host.start()
    paths = host.announce(3)
    odd = host.announce(1, ".tmp")
    host.wait_until_delivered()
    host.client.request("POST", "runs/end", [("name", "run1"), ("expect", 3)])
    host.wait_until_delivered(runs=1)
    messages = take()
    assert [message.key for message in messages] == ["run1"] * 4
    assert [message.record.get("path") for message in messages[:3]] == paths
    assert messages[3].record["kind"] == "run"
    assert '"complete":true' in messages[3].record["line"]
    assert [message.record["path"] for message in take("others")] == odd


def test_a_queue_that_is_missing_is_made_durable(broker: RabbitMq) -> None:
    host = Host(QUEUE)
    host.start()
    paths = host.announce(3)
    host.wait_until_delivered()
    broker.end(signal.SIGTERM)
    broker.start()
    assert [message.record["path"] for message in take()] == paths


def test_a_queue_that_would_not_outlive_the_broker_gets_nothing(broker: RabbitMq) -> None:
    client = Client()
    client.channel.queue_declare("files", durable=False)
    host = Host(QUEUE)
    host.start()
    paths = host.announce(3)
    host.wait_for_problem("declaring files: PRECONDITION_FAILED - inequivalent arg 'durable'")
    assert not client.take("files")
    client.channel.queue_delete("files")
    host.wait_until_delivered()
    assert [message.record["path"] for message in client.take("files")] == paths
    client.close()


def test_an_exchange_that_is_not_declared_must_be_there(broker: RabbitMq) -> None:
    host = Host(EXCHANGE + "declare = false")
    host.start()
    paths = host.announce(3)
    host.wait_for_problem("no exchange 'skarn' in vhost '/'")
    bind()
    host.wait_until_delivered()
    assert [message.record["path"] for message in take()] == paths


def test_what_no_queue_gets_is_kept_and_told(broker: RabbitMq) -> None:
    host = Host(EXCHANGE)
    host.start()
    paths = host.announce(5)
    told = host.wait_for_problem("NO_ROUTE")
    assert 'no queue takes what has the routing key "host1.file.-"' in told
    bind()
    host.wait_until_delivered()
    assert [message.record["path"] for message in take()] == paths


def test_nothing_is_lost_over_restarts_and_kills_of_the_broker(broker: RabbitMq) -> None:
    bind()
    host = Host(EXCHANGE)
    host.start()
    paths = host.announce(500)
    for number in (signal.SIGTERM, signal.SIGKILL, signal.SIGKILL):
        paths += host.announce(1000)
        broker.end(number)
        paths += host.announce(200)
        host.wait_for_problem("127.0.0.1")
        broker.start()
    host.wait_until_delivered()
    assert without_repeats(take()) == paths


def test_a_broker_that_comes_late_gets_all(broker: RabbitMq) -> None:
    bind()
    broker.end(signal.SIGTERM)
    host = Host(EXCHANGE)
    host.start()
    paths = host.announce(100)
    host.wait_for_problem("connecting to")
    time.sleep(5)
    attempts = host.figures()["attempts"]
    assert 2 <= attempts <= 20, "it tries again, at distances"
    broker.start()
    host.wait_until_delivered()
    assert without_repeats(take()) == paths


def test_a_full_disk_of_the_broker_is_told_and_waited_for(broker: RabbitMq) -> None:
    bind()
    host = Host(EXCHANGE)
    host.start()
    paths = host.announce(10)
    host.wait_until_delivered()
    broker.set_disk_alarm(True)
    paths += host.announce(3000)
    assert host.wait_for_problem("takes nothing") == (
        "the broker takes nothing for now: low on disk"
    )
    # Several heartbeats later it still has the same connection, and has sent next to nothing.
    time.sleep(8)
    assert host.figures()["attempts"] == 1
    broker.set_disk_alarm(False)
    host.wait_until_delivered()
    assert [message.record["path"] for message in take()] == paths


def test_a_queue_that_refuses_gets_all_once_it_has_room(broker: RabbitMq) -> None:
    client = Client()
    client.channel.queue_declare(
        "files", durable=True, arguments={"x-max-length": 50, "x-overflow": "reject-publish"}
    )
    host = Host(QUEUE + "declare = false")
    host.start()
    paths = host.announce(120)
    host.wait_for_problem("refuses")
    got: list[Message] = []
    while host.figures()["lag"] > 0:
        got += client.take("files")
        time.sleep(0.1)
    host.wait_until_delivered()
    got += client.take("files")
    client.close()
    # Room may have come between two of those that were under way.
    assert sorted(without_repeats(got)) == paths


def test_a_broker_that_hangs_is_found_out_by_its_heartbeats(broker: RabbitMq) -> None:
    bind()
    host = Host(EXCHANGE)
    host.start()
    paths = host.announce(10)
    host.wait_until_delivered()
    broker.send(signal.SIGSTOP)
    paths += host.announce(10)
    host.wait_for_problem("heartbeat")
    broker.send(signal.SIGCONT)
    host.wait_until_delivered()
    assert without_repeats(take()) == paths


def test_what_was_not_confirmed_when_the_relay_was_killed_is_sent_again(broker: RabbitMq) -> None:
    bind()
    host = Host(EXCHANGE)
    paths: list[str] = []
    for _ in range(3):
        host.start()
        paths += host.announce(1500)
        time.sleep(0.2)
        host.kill()
    host.start()
    host.wait_until_delivered()
    assert without_repeats(take()) == paths
