"""What a fault is, and where the bed finds all of them.

To add faults, write a module tests/faults/fault_SUBJECT.py with one class for each:

    @register
    class ServerKilled(Fault):
        name = "server-killed"                      # for the command line and the table
        title = "rsync server killed (SIGKILL)"     # for the reader of the table
        kills = True

        def inject(self, bed: Bed, rng: Random) -> int:
            ...                                     # break it; return how many faults that were
            return 1

        def heal(self, bed: Bed) -> None:
            ...                                     # make it good again

One object serves one run, so it may keep what `heal` needs to know. `inject` returns 0 when there
was nothing to break at this moment: then it is asked again a little later, and `heal` is not
called. Every wait in it must have a limit, and every process is ended by its id.

    scripts/faults.sh --list
    scripts/faults.sh --fault server-killed --seed 7 --rounds 20

What a fault may use of the bed is described in bed.py. What the detector itself does to a file is
told to the ledger before it is done (`will_change`, `will_withdraw`); what nobody could announce is
excused in it (`excuse`). Everything else that differs from the promise is counted against us.
"""

from __future__ import annotations

import importlib
import pkgutil
from random import Random
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from faults.bed import Bed


class Fault:
    """One kind of fault; see the module's description."""

    name = ""
    title = ""
    kills = False  # whether a process dies or a connection breaks: only then two records are right
    proxy = False  # whether it needs the proxy between the daemon and the servers
    relay = False  # whether it needs the relay in the consumer's place; those mix in a run of their own
    mixes = True  # whether it can be one of many in the mixed run
    instant = False  # whether it is over at once, so that it can strike while another one lasts
    alone = False  # whether nothing else may strike while it lasts, for instance because no daemon
    # could be started again then
    rounds = 20  # how many faults a run of the long form injects
    gap = (0.05, 0.6)  # seconds between two faults, from and to
    hold = (0.0, 0.0)  # seconds between injecting and healing, from and to
    drain = 90.0  # seconds after the last fault within which everything has to be right

    def settings(self) -> dict[str, object]:
        """Global keys for the daemon's configuration."""
        return {}

    def prepare(self, bed: Bed) -> None:
        """Called once, when the servers and the consumer are there, before the daemon starts."""

    def inject(self, bed: Bed, rng: Random) -> int:
        """Breaks something. Returns how many faults that were; 0 if nothing could be broken."""
        raise NotImplementedError

    def heal(self, bed: Bed) -> None:
        """Makes good again what `inject` broke."""

    def check(self, bed: Bed) -> None:
        """Called once after the drain, if it struck: complains about what only it knows."""


FAULTS: dict[str, type[Fault]] = {}


def register(kind: type[Fault]) -> type[Fault]:
    """Makes a fault known by its name."""
    assert kind.name and kind.title, f"{kind.__name__} needs a name and a title"
    assert kind.name not in FAULTS, f"two faults are called {kind.name}"
    FAULTS[kind.name] = kind
    return kind


def load() -> dict[str, type[Fault]]:
    """All faults of all modules of this folder, by name, sorted."""
    package = importlib.import_module("faults")
    for module in sorted(found.name for found in pkgutil.iter_modules(package.__path__)):
        if module.startswith("fault_"):
            importlib.import_module(f"faults.{module}")
    return dict(sorted(FAULTS.items()))
