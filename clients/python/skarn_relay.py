"""A client of skarn-relay: every announced file, at least once, in order, from where one left off.

    import skarn_relay

    files = skarn_relay.Relay().subscribe("my-analysis", detectors=["1"])
    for record in files:
        if record.kind == "file":
            print("new file:", record.path, record.size)

A record is acknowledged when the next one is asked for, so one whose handling failed comes again.
"""

from __future__ import annotations

import http.client
import json
import os
import socket
import urllib.parse
from collections.abc import Iterator, Sequence
from typing import Any

SOCKET = "/run/skarn-relay/socket"


class RelayError(Exception):
    """What the relay refused, in its own words."""

    def __init__(self, status: int, sentence: str) -> None:
        super().__init__(sentence)
        self.status = status


class Record:
    """One announcement. All fields of the JSON object are in `fields`."""

    def __init__(self, fields: dict[str, Any]) -> None:
        self.fields = fields
        self.seq: int = fields["seq"]
        self.kind: str = fields["kind"]
        key = "path" if self.kind == "file" else "line"
        # A text in which bytes that are no UTF-8 are kept as Python keeps them in names of files.
        self.path: str = (
            fields[key]
            if key in fields
            else os.fsdecode(urllib.parse.unquote_to_bytes(fields[key + "_percent"]))
        )
        self.detector: str | None = fields.get("detector")
        self.size: int | None = fields.get("size")
        # Of a record of kind "run": what has become of the run (see docs/relay.md).
        self.run: dict[str, Any] | None = (
            json.loads(self.path[5:]) if self.path.startswith("run: {") else None
        )

    def __repr__(self) -> str:
        return f"Record({self.seq}, {self.path!r})"


class _UnixConnection(http.client.HTTPConnection):
    def __init__(self, path: str, timeout: float) -> None:
        super().__init__("localhost", timeout=timeout)
        self._path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self._path)


class Relay:
    """The relay at a Unix socket (an absolute path), or at "ADDRESS:PORT" with a token."""

    def __init__(
        self, address: str = SOCKET, token: str | None = None, timeout: float = 90
    ) -> None:
        self._address = address
        self._token = token
        self._timeout = timeout

    def request(
        self,
        method: str,
        path: str,
        query: Sequence[tuple[str, object]] = (),
    ) -> bytes:
        """One request. Returns the body of the answer; raises RelayError, OSError or HTTPException."""
        connection = (
            _UnixConnection(self._address, self._timeout)
            if self._address.startswith("/")
            else http.client.HTTPConnection(self._address, timeout=self._timeout)
        )
        try:
            headers = {"Authorization": f"Bearer {self._token}"} if self._token else {}
            text = urllib.parse.urlencode([(key, str(value)) for key, value in query])
            target = f"/v1/{path}" + (f"?{text}" if text else "")
            connection.request(method, target, headers=headers)
            answer = connection.getresponse()
            content = answer.read()
        finally:
            connection.close()
        if answer.status >= 300:
            try:
                sentence = json.loads(content)["error"]
            except (ValueError, KeyError, TypeError):
                sentence = f"status {answer.status}"
            raise RelayError(answer.status, sentence)
        return content

    def status(self) -> dict[str, Any]:
        """What skarn-relay status --json prints."""
        found: dict[str, Any] = json.loads(self.request("GET", "status"))
        return found

    def subscribe(
        self,
        name: str,
        *,
        detectors: Sequence[str] = (),
        paths: Sequence[str] = (),
        kinds: Sequence[str] = ("file", "run"),
        start: str | int = "oldest",
        max_backlog: int = 0,
    ) -> Subscription:
        """The subscriber of that name, which is made if there is none yet."""
        query: list[tuple[str, object]] = [("start", start), ("max_backlog", max_backlog)]
        query += [("detector", each) for each in detectors]
        query += [("path", each) for each in paths]
        query += [("kind", each) for each in kinds]
        self.request("PUT", f"subscribers/{name}", query)
        return Subscription(self, name)


class Subscription:
    """A subscriber of the relay. Iterating over it gives its records, and waits for new ones."""

    def __init__(self, relay: Relay, name: str) -> None:
        self._relay = relay
        self.name = name

    def fetch(self, limit: int = 1000, wait: int = 0, after: int | None = None) -> list[Record]:
        """Records behind the last acknowledged one, or behind `after`; waits so many seconds for
        the first of them. The same ones again until they are acknowledged.
        """
        query: list[tuple[str, object]] = [("limit", limit), ("wait", wait)]
        if after is not None:
            query.append(("after", after))
        lines = self._relay.request("GET", f"subscribers/{self.name}/records", query)
        return [Record(json.loads(line)) for line in lines.splitlines()]

    def acknowledge(self, record: Record | int) -> None:
        """This record and all before it were dealt with."""
        number = record if isinstance(record, int) else record.seq
        self._relay.request("POST", f"subscribers/{self.name}/ack", [("seq", number)])

    def __iter__(self) -> Iterator[Record]:
        while True:
            for record in self.fetch(wait=30):
                yield record
                self.acknowledge(record)

    def reset(self, start: str | int) -> None:
        """Puts it elsewhere: "oldest", "now", a time, or a sequence number."""
        self._relay.request("POST", f"subscribers/{self.name}/reset", [("start", start)])

    def remove(self) -> None:
        """Ends the subscription; the relay keeps nothing for it any more."""
        self._relay.request("DELETE", f"subscribers/{self.name}")
