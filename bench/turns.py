"""Rounds in which several ways take turns, so that what slows the machine slows all of them."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import TypeVar

from results import Data

Way = TypeVar("Way")


def in_turns(
    ways: Sequence[Way], rounds: int, take: Callable[[Way], Data]
) -> list[dict[Way, Data]]:
    """What each way took in so many rounds, the order turned each time, after one that is not
    counted.
    """
    taken = []
    for number in range(rounds + 1):
        taken.append({way: take(way) for way in (ways if number % 2 == 0 else ways[::-1])})
    return taken[1:]
