"""A part of the relay's crash points, another one each time: see crash_points.py."""

from __future__ import annotations

import os
import random

import pytest

from crash_points import try_points
from power.crash_points import STRACE

PARTS = 40


def test_some_of_the_points() -> None:
    if not os.access(STRACE, os.X_OK):
        pytest.exit("the program 'strace' is missing", 77)
    os.unlink("/run/vantrel_orbelin_files")
    part = random.randrange(PARTS) + 1
    outcome = try_points(part, PARTS)
    assert outcome.injected > 5
    assert not outcome.broken, f"part {part}/{PARTS}: {outcome.broken}"
