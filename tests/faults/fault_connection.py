"""Connections between the daemon's side and the servers break, stall or go silent."""

from __future__ import annotations

from random import Random

from faults.bed import Bed
from faults.fault import Fault, register
from faults.proxy import Proxy


class ConnectionFault(Fault):
    """What happens to the connections of one proxy while files are copied."""

    proxy = True
    kills = True
    instant = True
    rounds = 40

    def spoil(self, proxy: Proxy, rng: Random) -> int:
        """Does it; returns how many connections that struck."""
        raise NotImplementedError

    def inject(self, bed: Bed, rng: Random) -> int:
        proxy = rng.choice(bed.stations).proxy
        assert proxy is not None
        bed.wait_moment(rng)
        bed.note_kill()
        return self.spoil(proxy, rng)


@register
class ConnectionsReset(ConnectionFault):
    """Both sides see a reset."""

    name = "connections-reset"
    title = "connections cut by a reset"

    def spoil(self, proxy: Proxy, rng: Random) -> int:
        return proxy.cut()


@register
class ConnectionsClosed(ConnectionFault):
    """Both sides see an end of file in the middle."""

    name = "connections-closed"
    title = "connections closed in the middle"

    def spoil(self, proxy: Proxy, rng: Random) -> int:
        return proxy.cut(reset=False)


@register
class ConnectionsHalfClosed(ConnectionFault):
    """One side sees an end of file, the other can still send."""

    name = "connections-half-closed"
    title = "connections closed in one direction"

    def spoil(self, proxy: Proxy, rng: Random) -> int:
        return proxy.half_close(towards_client=rng.random() < 0.5)


@register
class ConnectionsStalled(Fault):
    """Nothing passes for a while; then all goes on."""

    name = "connections-stalled"
    title = "connections stalled for a while"
    proxy = True
    hold = (0.2, 2.0)
    stalled: Proxy

    def inject(self, bed: Bed, rng: Random) -> int:
        proxy = rng.choice(bed.stations).proxy
        assert proxy is not None
        self.stalled = proxy
        held = proxy.hold()
        if not held:
            proxy.release()
        return held

    def heal(self, bed: Bed) -> None:
        self.stalled.release()


@register
class ConnectionsLost(ConnectionFault):
    """Nothing ever passes again and no side is told, as when the detector loses its power."""

    name = "connections-lost"
    title = "connections lost without a word"
    instant = False
    mixes = False
    rounds = 3
    hold = (1.0, 1.0)
    drain = 150.0

    def spoil(self, proxy: Proxy, rng: Random) -> int:
        return proxy.black_hole()
