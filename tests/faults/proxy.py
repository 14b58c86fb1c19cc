"""A proxy on loopback between the daemon and an rsync server, which can spoil connections."""

from __future__ import annotations

import selectors
import socket
import struct
import threading
from contextlib import suppress
from dataclasses import dataclass, field

from support.rsync_server import PORT

RESET = struct.pack("ii", 1, 0)  # SO_LINGER: closing sends a reset
BLOCK = 262144


@dataclass(eq=False)
class Link:
    """One connection: its two sockets, and what has to be written to either."""

    client: socket.socket
    server: socket.socket
    pending: dict[socket.socket, bytes] = field(default_factory=dict)
    ended: set[socket.socket] = field(default_factory=set)  # those that send no more
    stuck: bool = False  # nothing of it moves any more

    def other(self, end: socket.socket) -> socket.socket:
        """The end that gets what `end` sends."""
        return self.server if end is self.client else self.client


class Proxy:
    """Accepts at `address` and passes everything on to the server at `to`, the same port.

    Cutting, stalling and the like concern the connections that are there at that moment, and with
    `holding` or `refusing` also those that come.
    """

    def __init__(self, address: str, to: str) -> None:
        self.address = address
        self.accepted = 0
        self._to = to
        self._links: list[Link] = []
        self._lock = threading.RLock()
        self._holding = self._refusing = False
        self._stop = threading.Event()
        self._thread: threading.Thread | None = None
        self._listener: socket.socket | None = None

    def start(self) -> None:
        """Listens and passes on, on a thread of its own."""
        self._listener = socket.create_server((self.address, PORT), backlog=64)
        self._listener.setblocking(False)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Cuts all connections and listens no more."""
        self._stop.set()
        if self._thread is not None:
            self._thread.join(30)
            assert not self._thread.is_alive(), "the proxy did not stop"
        self.cut()
        if self._listener is not None:
            self._listener.close()

    def connections(self) -> int:
        """How many connections it is passing on now."""
        with self._lock:
            return sum(not link.stuck for link in self._links)

    def cut(self, reset: bool = True) -> int:
        """Ends all connections, by a reset or by an end of file; returns how many."""
        with self._lock:
            cut = list(self._links)
            self._links.clear()
            for link in cut:
                for end in (link.client, link.server):
                    with suppress(OSError):
                        if reset:
                            end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
                    end.close()
        return len(cut)

    def half_close(self, towards_client: bool) -> int:
        """Ends one direction of all connections, as one side's end of file; returns how many."""
        count = 0
        with self._lock:
            for link in self._links:
                sender = link.server if towards_client else link.client
                if sender not in link.ended:
                    link.ended.add(sender)
                    link.pending.pop(link.other(sender), None)
                    with suppress(OSError):
                        link.other(sender).shutdown(socket.SHUT_WR)
                    count += 1
        return count

    def hold(self) -> int:
        """Lets nothing of any connection pass until `release`; returns how many there are."""
        with self._lock:
            self._holding = True
            return len(self._links)

    def release(self) -> None:
        """Everything that was held flows again."""
        with self._lock:
            self._holding = False

    def black_hole(self) -> int:
        """From now on nothing of the connections that are there ever passes, and nobody is told."""
        with self._lock:
            alive = [link for link in self._links if not link.stuck]
            for link in alive:
                link.stuck = True
            return len(alive)

    def refuse(self) -> None:
        """Ends each connection that comes at once, and those that are there."""
        with self._lock:
            self._refusing = True
        self.cut()

    def admit(self) -> None:
        """Takes connections again."""
        with self._lock:
            self._refusing = False

    def _serve(self) -> None:
        while not self._stop.is_set():
            with selectors.DefaultSelector() as selector:
                with self._lock:
                    self._register(selector)
                # Short, so that what another thread changed is seen soon.
                ready = [(key.fileobj, events) for key, events in selector.select(0.01)]
            with self._lock:
                for source, events in ready:
                    if isinstance(source, socket.socket):
                        self._attend(source, events)

    def _register(self, selector: selectors.BaseSelector) -> None:
        assert self._listener is not None
        selector.register(self._listener, selectors.EVENT_READ)
        if self._holding:
            return
        for link in self._links:
            if link.stuck:
                continue
            for end in (link.client, link.server):
                events = selectors.EVENT_WRITE if link.pending.get(end) else 0
                if end not in link.ended and not link.pending.get(link.other(end)):
                    events |= selectors.EVENT_READ
                if events:
                    selector.register(end, events)

    def _attend(self, source: socket.socket, events: int) -> None:
        if source is self._listener:
            self._accept(source)
            return
        for link in self._links:
            if source in (link.client, link.server):
                try:
                    if events & selectors.EVENT_WRITE:
                        self._write(link, source)
                    if events & selectors.EVENT_READ:
                        self._read(link, source)
                except OSError:
                    self._drop(link)
                    return
                if len(link.ended) == 2 and not any(link.pending.values()):
                    self._drop(link)
                return

    def _accept(self, listener: socket.socket) -> None:
        with suppress(OSError):
            client, _ = listener.accept()
            self.accepted += 1
            if self._refusing:
                client.close()
                return
            try:
                server = socket.create_connection((self._to, PORT), timeout=2)
            except OSError:
                client.close()
                return
            for end in (client, server):
                end.setblocking(False)
                end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._links.append(Link(client, server))

    def _read(self, link: Link, source: socket.socket) -> None:
        try:
            block = source.recv(BLOCK)
        except BlockingIOError:
            return
        target = link.other(source)
        if block:
            link.pending[target] = block
            self._write(link, target)
            return
        link.ended.add(source)
        with suppress(OSError):
            target.shutdown(socket.SHUT_WR)

    def _write(self, link: Link, target: socket.socket) -> None:
        try:
            sent = target.send(link.pending.get(target, b""))
        except BlockingIOError:
            return
        link.pending[target] = link.pending[target][sent:]

    def _drop(self, link: Link) -> None:
        if link in self._links:
            self._links.remove(link)
        link.client.close()
        link.server.close()
