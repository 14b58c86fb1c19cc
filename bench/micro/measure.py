"""Runs the micro-benchmarks and takes down every repetition.

skarn_micro_bench measures each piece of the daemon's work, and beside it the least that it could
cost, in repetitions that follow each other in random order. What is compared is the processor time
of the measuring thread: the threads at the other ends of its pipes do not count, and what other
programs take of the machine hardly does. The first repetition, in which the program also finds out
how often it has to run, is not counted.
"""

from __future__ import annotations

import json
import os
import subprocess
import tempfile
from typing import Any

from results import Data

LIMIT = 600.0


def measure(quick: bool) -> Data:
    """Every repetition of every benchmark: nanoseconds of the processor and of the clock for each
    item, or bytes a name.
    """
    repetitions, seconds = (2, 0.001) if quick else (13, 0.1)
    # In the sandbox that is in memory.
    with tempfile.TemporaryDirectory() as folder:
        ended = subprocess.run(
            [
                os.environ["SKARN_MICRO_BINARY"],
                f"--folder={folder}",
                f"--benchmark_repetitions={repetitions}",
                f"--benchmark_min_time={seconds}",
                "--benchmark_enable_random_interleaving=true",
                "--benchmark_format=json",
            ],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            check=True,
            timeout=LIMIT,
        )
    runs: dict[str, dict[str, list[float]]] = {}
    for run in json.loads(ended.stdout)["benchmarks"]:
        assert not run.get("error_occurred"), run
        if run["run_type"] == "iteration" and run["repetition_index"] > 0:
            figures = runs.setdefault(run["run_name"], {})
            for name, value in figures_of(run).items():
                figures.setdefault(name, []).append(value)
    return {"repetitions": repetitions - 1, "runs": runs}


def figures_of(run: dict[str, Any]) -> dict[str, float]:
    """What one repetition gave."""
    if "peak_bytes_a_name" in run:
        return {name: run[f"{name}_bytes_a_name"] for name in ("peak", "retained")}
    assert run["time_unit"] == "ns", run
    processor = 1e9 / run["items_per_second"]
    return {"processor": processor, "clock": processor * run["real_time"] / run["cpu_time"]}
