"""Waiting for a condition, with a limit."""

from __future__ import annotations

import time
from collections.abc import Callable
from typing import TypeVar

Value = TypeVar("Value")

# Far above what a slow, instrumented build on a busy machine needs; only a failure waits this long.
LIMIT = 30.0
INTERVAL = 0.005


def wait_until(
    condition: Callable[[], Value],
    what: str | Callable[[], str],
    timeout: float = LIMIT,
) -> Value:
    """Returns the first true value of `condition`, polled every few milliseconds.

    Raises AssertionError with `what` (a text, or a function that makes one when it is needed) when
    `timeout` seconds have passed without one.
    """
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            text = what if isinstance(what, str) else what()
            raise AssertionError(f"waited {timeout:g} s in vain for {text}")
        time.sleep(INTERVAL)
