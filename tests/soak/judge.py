"""Whether what was measured during a soak stayed flat: pure functions on the samples."""

from __future__ import annotations

import statistics
from collections.abc import Callable, Sequence
from dataclasses import dataclass

SEPARATOR_BYTES = 67  # of the two lines that an idle cycle leaves in its worker's memory

# Memory is given out in pages and arenas, so that it is never still to the byte.
RISE_LIMIT = 256  # kB by which the fitted line may rise over the second half
EXCESS_LIMIT = 1024  # kB by which the highest sample of the second half may exceed the median


@dataclass(frozen=True)
class Sample:
    """What the daemon held at one moment. Times in seconds since the first sample, memory in kB."""

    time: float
    phase: str  # "full" while files are produced, else "idle"
    cycles: int  # ended so far, all detectors together
    files: int  # announced so far
    separators: int  # of idle cycles, waiting in the workers' memory
    resident: int
    descriptors: int
    threads: int
    zombies: int
    tmp_files: int
    journal_files: int

    @property
    def separators_kb(self) -> float:
        """The memory that the waiting separators take."""
        return self.separators * SEPARATOR_BYTES / 1024

    @property
    def resident_apart(self) -> float:
        """The resident memory without the waiting separators."""
        return self.resident - self.separators_kb


@dataclass(frozen=True)
class Verdict:
    """One criterion: what was looked at, whether it holds, and the numbers."""

    subject: str
    holds: bool
    numbers: str


# The counted things: idle, the daemon must hold as many of each as it did before.
COUNTED: list[tuple[str, Callable[[Sample], int]]] = [
    ("open descriptors", lambda sample: sample.descriptors),
    ("threads", lambda sample: sample.threads),
    ("zombies", lambda sample: sample.zombies),
    ("files in /tmp", lambda sample: sample.tmp_files),
    ("files in the journal's folder", lambda sample: sample.journal_files),
]


def rise(times: Sequence[float], values: Sequence[float]) -> float:
    """By how much the straight line fitted to the values rises from the first time to the last."""
    if len(set(times)) < 2:
        return 0.0
    return statistics.linear_regression(times, values).slope * (times[-1] - times[0])


def judge_memory(samples: Sequence[Sample]) -> Verdict:
    """Memory is flat when, while the daemon was busy in the second half of the run, the line fitted
    to it rises by at most RISE_LIMIT and no sample exceeds the median by more than EXCESS_LIMIT.

    Only while it is busy, for then next to no separators wait. Part of the memory in which those of
    a long idle time waited stays with the process and serves the next such time.
    """
    busy = [sample for sample in part(samples, 1 / 2, 1) if sample.phase == "full"]
    assert busy, "half a run without a busy moment says nothing"
    values = [sample.resident_apart for sample in busy]
    slope = rise([sample.time for sample in busy], values)
    median = statistics.median(values)
    excess = max(values) - median
    return Verdict(
        "resident memory",
        slope <= RISE_LIMIT and excess <= EXCESS_LIMIT,
        f"while busy in the second half: median {median:.0f} kB, highest {excess:.0f} kB above it, "
        f"rise {slope:+.0f} kB",
    )


def judge_count(
    subject: str, value: Callable[[Sample], int], samples: Sequence[Sample]
) -> Verdict:
    """A count is flat when its usual value while idle, the median, is not higher in the last
    quarter of the run than it was in the second.

    While files are copied it goes up and down with the copy processes. The first quarter is left
    out: the daemon is still warming up.
    """
    before = usual_when_idle(value, part(samples, 1 / 4, 2 / 4))
    after = usual_when_idle(value, part(samples, 3 / 4, 1))
    highest = max(value(sample) for sample in samples)
    return Verdict(
        subject,
        after <= before,
        f"while idle {before} in the second quarter, {after} in the last; highest ever {highest}",
    )


def usual_when_idle(value: Callable[[Sample], int], samples: Sequence[Sample]) -> int:
    """The median of the samples that were taken while nothing was produced."""
    idle = [value(sample) for sample in samples if sample.phase == "idle"]
    assert idle, "a quarter of the run without an idle moment says nothing"
    return statistics.median_low(idle)


def judge(samples: Sequence[Sample]) -> list[Verdict]:
    """The verdicts on everything that must be flat. Each quarter must have seen idle moments."""
    return [
        judge_memory(samples),
        *(judge_count(subject, value, samples) for subject, value in COUNTED),
    ]


def part(samples: Sequence[Sample], begin: float, end: float) -> Sequence[Sample]:
    """The samples of a part of the time; 0 is the beginning of the run, 1 its end."""
    first, length = samples[0].time, samples[-1].time - samples[0].time
    return [each for each in samples if begin * length <= each.time - first <= end * length]
