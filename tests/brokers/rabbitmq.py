"""A real RabbitMQ in the sandbox, which can be ended in all ways; and what its queues hold."""

from __future__ import annotations

import json
import os
import signal
import socket
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import pika  # type: ignore[import]

from support.waiting import wait_until

PORT = 5672
TLS_PORT = 5671
FOLDER = Path("/tmp/rabbitmq")
CERTIFICATES = FOLDER / "certificates"
# An Erlang starts slowly where others use the processors too.
START_LIMIT = 180.0

CONFIGURATION = f"""
listeners.tcp.default = 127.0.0.1:{PORT}
loopback_users = none
disk_free_limit.absolute = 1MB
"""
WITH_TLS = f"""
listeners.ssl.default = 127.0.0.1:{TLS_PORT}
ssl_options.certfile = {CERTIFICATES}/server.pem
ssl_options.keyfile = {CERTIFICATES}/server.key
ssl_options.cacertfile = {CERTIFICATES}/ca.pem
"""


def programs() -> Path | None:
    """The folder of its programs; nothing if it is not installed."""
    found = sorted(Path("/usr/lib/rabbitmq/lib").glob("rabbitmq_server-*/sbin"))
    return found[-1] if found else None


class RabbitMq:
    """One broker: what is durable in it outlives its process."""

    def __init__(self, with_tls: bool = False) -> None:
        sbin = programs()
        assert sbin is not None
        self._sbin = sbin
        FOLDER.mkdir(exist_ok=True)
        text = CONFIGURATION + (WITH_TLS if with_tls else "")
        (FOLDER / "rabbitmq.conf").write_text(text, encoding="ascii")
        (FOLDER / "enabled_plugins").write_text("[].", encoding="ascii")
        self._environment = {
            **os.environ,
            "HOME": str(FOLDER),
            "RABBITMQ_NODENAME": "rabbit@localhost",
            "RABBITMQ_MNESIA_BASE": str(FOLDER / "mnesia"),
            "RABBITMQ_LOG_BASE": str(FOLDER / "log"),
            "RABBITMQ_CONFIG_FILE": str(FOLDER / "rabbitmq.conf"),
            "RABBITMQ_ENABLED_PLUGINS_FILE": str(FOLDER / "enabled_plugins"),
            "RABBITMQ_PID_FILE": str(FOLDER / "pid"),
            "RABBITMQ_CONF_ENV_FILE": "/dev/null",
        }
        self._process: subprocess.Popen[bytes] | None = None

    def start(self) -> None:
        """Starts it, and waits until it takes connections."""
        with (FOLDER / "output").open("ab") as output:
            self._process = subprocess.Popen(
                [self._sbin / "rabbitmq-server"],
                env=self._environment,
                stdout=output,
                stderr=output,
            )
        wait_until(self._listens, self._output, START_LIMIT)

    def _output(self) -> str:
        return "RabbitMQ to start: " + (FOLDER / "output").read_text(encoding="utf-8")[-3000:]

    def _listens(self) -> bool:
        assert self._process is not None
        assert self._process.poll() is None, self._output()
        try:
            # It takes connections before it serves them: what is no greeting is answered.
            with socket.create_connection(("127.0.0.1", PORT), 1) as probe:
                probe.sendall(b"no greeting")
                return probe.recv(8) == b"AMQP\0\0\x09\x01"
        except OSError:
            return False

    def send(self, number: signal.Signals) -> None:
        """Sends the Erlang machine a signal."""
        os.kill(int((FOLDER / "pid").read_text(encoding="ascii")), number)

    def end(self, number: signal.Signals) -> None:
        """Ends it by a signal, and waits until it is gone."""
        assert self._process is not None
        self.send(number)
        self._process.wait(START_LIMIT)

    def control(self, *words: str) -> str:
        """Runs rabbitmqctl."""
        done = subprocess.run(
            [self._sbin / "rabbitmqctl", "--quiet", *words],
            env=self._environment,
            capture_output=True,
            text=True,
            check=True,
        )
        return done.stdout

    def set_disk_alarm(self, is_set: bool) -> None:
        """Has it find its disk full, or no longer."""
        self.control("set_disk_free_limit", "1000000GB" if is_set else "1MB")


@dataclass
class Message:
    """One message as a receiver has it."""

    key: str
    ident: str
    is_persistent: bool
    content_type: str
    record: dict[str, Any]


class Client:
    """One who makes queues and takes messages out of them."""

    def __init__(self) -> None:
        self._connection = pika.BlockingConnection(pika.ConnectionParameters("127.0.0.1", PORT))
        self.channel = self._connection.channel()

    def bind(self, queue: str, exchange: str, key: str = "#") -> None:
        """Makes a durable queue that gets what has such a routing key."""
        self.channel.exchange_declare(exchange, "topic", durable=True)
        self.channel.queue_declare(queue, durable=True)
        self.channel.queue_bind(queue, exchange, key)

    def take(self, queue: str) -> list[Message]:
        """Takes all that the queue holds."""
        taken: list[Message] = []
        while True:
            method, properties, body = self.channel.basic_get(queue)
            if method is None:
                return taken
            self.channel.basic_ack(method.delivery_tag)
            taken.append(
                Message(
                    method.routing_key,
                    properties.message_id,
                    properties.delivery_mode == 2,
                    properties.content_type,
                    json.loads(body),
                )
            )

    def leads_to(self, queue: str, exchange: str, key: str) -> bool:
        """Whether the queue, which is empty, gets a message with such a key."""
        self.channel.basic_publish(exchange, key, b"{}")
        return self.channel.basic_get(queue, auto_ack=True)[0] is not None

    def close(self) -> None:
        """Ends the connection."""
        self._connection.close()
