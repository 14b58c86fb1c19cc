"""What a Kafka cluster gets from a relay, and what the relay does when that is in trouble.

The cluster is librdkafka's own imitation: see kafka_cluster.py for what it has not.
"""

from __future__ import annotations

import time
from collections.abc import Iterator

import pytest

from brokers.host import Host
from brokers.kafka_cluster import (
    NOT_ENOUGH_REPLICAS,
    NOT_LEADER,
    REQUEST_TIMED_OUT,
    TOPIC_AUTHORIZATION_FAILED,
    Cluster,
    Message,
)
from support.waiting import LIMIT, wait_until


@pytest.fixture
def cluster(empty_sandbox: None) -> Iterator[Cluster]:
    """A cluster that runs."""
    started = Cluster()
    yield started
    started.close()


def host_for(cluster: Cluster, name: str = "host1", key: str = "{host}", more: str = "") -> Host:
    """A host that delivers to the cluster, all records under one key."""
    return Host(
        f"""
type = "kafka"
broker = "{cluster.addresses}"
topic = "files"
key = "{key}"
{more}
""",
        name,
    )


def without_repeats(messages: list[Message], host: str = "host1") -> list[str]:
    """The paths of one host's messages whose id was not seen before, in order."""
    seen: dict[str, str] = {}
    for message in messages:
        if message.ident.startswith(f"{host}:"):
            path = seen.setdefault(message.ident, message.record["path"])
            assert path == message.record["path"], "one id is that of two records"
    return list(seen.values())


def check_arrived(cluster: Cluster, host: Host, paths: list[str]) -> None:
    """Waits, and holds what the cluster has against what was announced."""
    host.wait_until_delivered()
    assert without_repeats(cluster.messages(len(paths), LIMIT)) == paths


def test_each_record_becomes_a_message_with_an_id_and_a_key(cluster: Cluster) -> None:
    host = host_for(cluster)
    host.start()
    paths = host.announce(2500)
    host.wait_until_delivered()
    messages = cluster.messages(len(paths), LIMIT)
    assert [message.record["path"] for message in messages] == paths
    assert len({message.ident for message in messages}) == len(paths)
    assert messages[0].ident.startswith("host1:1:")
    assert messages[0].key == "host1"
    assert host.figures()["failures"] == 0


def test_without_a_key_all_partitions_get_their_part(cluster: Cluster) -> None:
    host = host_for(cluster, key="", more='options = { "sticky.partitioning.linger.ms" = "0" }')
    host.start()
    paths = host.announce(300)
    host.wait_until_delivered()
    messages = cluster.messages(len(paths), LIMIT)
    assert {message.key for message in messages} == {None}
    assert [message.record["path"] for message in messages] != paths
    assert sorted(without_repeats(messages)) == paths


def test_errors_that_pass_lose_nothing(cluster: Cluster) -> None:
    host = host_for(cluster)
    host.start()
    paths = host.announce(200)
    cluster.fail(*[NOT_ENOUGH_REPLICAS, NOT_LEADER, REQUEST_TIMED_OUT] * 3)
    paths += host.announce(200)
    for partition in range(3):
        cluster.lead(partition, 1)
    paths += host.announce(200)
    check_arrived(cluster, host, paths)


def test_brokers_that_are_all_down_are_told_and_waited_for(cluster: Cluster) -> None:
    host = host_for(cluster)
    host.start()
    paths = host.announce(100)
    host.wait_until_delivered()
    for broker in cluster.brokers:
        cluster.set_up(broker, False)
    paths += host.announce(100)
    host.wait_for_problem("127.0.0.1")
    time.sleep(10)
    assert host.figures()["failures"] <= 3, "it is not told again and again"
    for broker in cluster.brokers:
        cluster.set_up(broker, True)
    check_arrived(cluster, host, paths)


def test_brokers_that_answer_late_are_told_and_waited_for(cluster: Cluster) -> None:
    host = host_for(cluster)
    host.start()
    paths = host.announce(10)
    host.wait_until_delivered()
    cluster.set_delay(20000)
    paths += host.announce(10)
    host.wait_for_problem("confirmed nothing for 10 seconds")
    cluster.set_delay(0)
    check_arrived(cluster, host, paths)


def test_what_the_library_gives_up_is_sent_again(cluster: Cluster) -> None:
    host = host_for(cluster)
    host.start()
    paths = host.announce(50)
    host.wait_until_delivered()
    cluster.fail(TOPIC_AUTHORIZATION_FAILED, TOPIC_AUTHORIZATION_FAILED)
    paths += host.announce(50)
    host.wait_for_problem("authorization failed")
    check_arrived(cluster, host, paths)


def test_a_record_that_is_too_large_is_told_and_waits_for_a_higher_limit(cluster: Cluster) -> None:
    host = host_for(cluster, more='options = { "message.max.bytes" = "1000" }')
    host.start()
    paths = host.announce(200) + host.announce(1, "x" * 1000) + host.announce(200)
    host.wait_for_problem("Message size too large")
    wait_until(lambda: int(host.figures()["acknowledged"]) == 200, "all before it to arrive")
    assert host.stop() == 0, host.messages()
    host.configure(host.subscriber.replace("1000", "100000"))
    host.start()
    check_arrived(cluster, host, paths)


def test_three_hosts_deliver_to_one_topic_and_one_is_killed(cluster: Cluster) -> None:
    hosts = [host_for(cluster, name) for name in ("host1", "host2", "host3")]
    expected: dict[str, list[str]] = {host.name: [] for host in hosts}
    for host in hosts:
        host.start()
    for turn in range(6):
        for host in hosts:
            expected[host.name] += host.announce(300)
        if turn == 2:
            hosts[1].kill()
            cluster.set_up(2, False)
        if turn == 4:
            cluster.set_up(2, True)
            hosts[1].start()
        time.sleep(0.3)
    for host in hosts:
        host.wait_until_delivered()
    messages = cluster.messages(sum(map(len, expected.values())), LIMIT)
    assert {host.name: without_repeats(messages, host.name) for host in hosts} == expected
