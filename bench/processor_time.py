"""Processor seconds: of a process itself, of its children, and of those that have ended."""

from __future__ import annotations

import os
import time
from pathlib import Path


def of_process(pid: int) -> float:
    """Those of a process itself, threads that have ended included, children not."""
    return time.clock_gettime((~pid << 3) | 2)


def of_children(pid: int) -> float:
    """Those of the children that a process has waited for, and of theirs."""
    fields = statistics_of(pid)
    return (int(fields[13]) + int(fields[14])) / os.sysconf("SC_CLK_TCK")


def of_ended() -> float:
    """Those of all children that this process has waited for, and of theirs."""
    times = os.times()
    return times.children_user + times.children_system


def statistics_of(pid: int) -> list[str]:
    """What the kernel counts of a process, from its state on."""
    return Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()
