"""The Kafka cluster that librdkafka itself mimics, in memory, with the errors it can be told to give.

It speaks the protocol over TCP on the loopback: brokers, topics, partitions, leaders, idempotent
producers, consumers. It has no disk, no replication, no TLS and no passwords.
"""

from __future__ import annotations

import ctypes
import ctypes.util
import json
from dataclasses import dataclass
from typing import Any

from confluent_kafka import Consumer, TopicPartition  # type: ignore[import]

PRODUCER = 0
# Numbers of the protocol.
PRODUCE = 0
NOT_LEADER = 6
REQUEST_TIMED_OUT = 7
NOT_ENOUGH_REPLICAS = 19
TOPIC_AUTHORIZATION_FAILED = 29
PARTITIONS = 3


@dataclass
class Message:
    """One message as a receiver has it."""

    key: str | None
    ident: str
    record: dict[str, Any]


class Cluster:
    """Three brokers with one topic, "files"."""

    def __init__(self) -> None:
        self._library = ctypes.CDLL("librdkafka.so.1")
        for name in ("rd_kafka_conf_new", "rd_kafka_new", "rd_kafka_mock_cluster_new"):
            getattr(self._library, name).restype = ctypes.c_void_p
        self._library.rd_kafka_mock_cluster_bootstraps.restype = ctypes.c_char_p
        why = ctypes.create_string_buffer(512)
        configuration = ctypes.c_void_p(self._library.rd_kafka_conf_new())
        self._handle = ctypes.c_void_p(
            self._library.rd_kafka_new(PRODUCER, configuration, why, len(why))
        )
        assert self._handle, why.value
        self._cluster = ctypes.c_void_p(
            self._library.rd_kafka_mock_cluster_new(self._handle, len(self.brokers))
        )
        self.addresses = self._library.rd_kafka_mock_cluster_bootstraps(self._cluster).decode()
        self._call("topic_create", b"files", PARTITIONS, len(self.brokers))

    brokers = (1, 2, 3)

    def _call(self, name: str, *arguments: Any) -> None:
        function = getattr(self._library, f"rd_kafka_mock_{name}")
        assert function(self._cluster, *arguments) == 0 or function.restype is None, name

    def close(self) -> None:
        """Ends it, with all that it held."""
        self._library.rd_kafka_mock_cluster_destroy(self._cluster)
        self._library.rd_kafka_destroy(self._handle)

    def set_up(self, broker: int, is_up: bool) -> None:
        """Takes one broker down or up."""
        self._call("broker_set_up" if is_up else "broker_set_down", broker)

    def set_delay(self, milliseconds: int) -> None:
        """Has all brokers answer late."""
        for broker in self.brokers:
            self._call("broker_set_rtt", broker, milliseconds)

    def lead(self, partition: int, broker: int) -> None:
        """Gives a partition another leader."""
        self._call("partition_set_leader", b"files", partition, broker)

    def fail(self, *errors: int) -> None:
        """Has the next requests to write fail with these."""
        array = (ctypes.c_int * len(errors))(*errors)
        self._library.rd_kafka_mock_push_request_errors_array(
            self._cluster, ctypes.c_int16(PRODUCE), ctypes.c_size_t(len(errors)), array
        )

    def messages(self, count: int, limit: float) -> list[Message]:
        """All messages of the topic, partition after partition, once there are so many or more."""
        consumer = Consumer({"bootstrap.servers": self.addresses, "group.id": "test"})
        consumer.assign([TopicPartition("files", number, 0) for number in range(PARTITIONS)])
        found: dict[int, list[Message]] = {number: [] for number in range(PARTITIONS)}
        while (message := consumer.poll(limit)) is not None:
            assert message.error() is None, message.error()
            found[message.partition()].append(
                Message(
                    None if message.key() is None else message.key().decode(),
                    dict(message.headers())["message-id"].decode(),
                    json.loads(message.value()),
                )
            )
            # Then only what comes at once: repeats.
            if sum(map(len, found.values())) >= count:
                limit = 1
        consumer.close()
        return [message for messages in found.values() for message in messages]
