"""Much at a time: long listings and a full share are worked off, and cost memory within bounds.

scripts/scale.sh measures the same for more entries and files.
"""

from __future__ import annotations

import os
from pathlib import Path

import pytest

from scale import measure
from support.daemon import sanitizer_of

ENTRIES = 100_000
FILES = 10_000


@pytest.mark.parametrize("report", measure.REPORTS.values(), ids=measure.REPORTS.keys())
def test_a_long_listing_costs_little_memory(report: list[str]) -> None:
    drain = measure.drain_listing(ENTRIES, report)
    # What an instrumented daemon takes is mostly the sanitizer's.
    if sanitizer_of(Path(os.environ["SKARN_BINARY"])) is None:
        assert drain.bytes_per_entry <= measure.MOST_BYTES_PER_ENTRY, drain


def test_a_share_of_many_files_drains_completely() -> None:
    drain = measure.drain_share(FILES)
    assert drain.agrees, drain
