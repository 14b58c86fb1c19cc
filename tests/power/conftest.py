"""What the tests of the power bed need of the machine."""

from __future__ import annotations

import pytest

from power import crash_points, disk


@pytest.fixture(autouse=True)
def machine(request: pytest.FixtureRequest, empty_sandbox: None) -> None:
    """Ends with the status of a skipped test where this machine lacks something, and says what."""
    lack = ""
    if request.path.stem.endswith("points"):
        lack = crash_points.lack()
    if request.path.stem not in ("test_copy_points", "test_listing_points"):
        lack = lack or disk.missing()
    if lack:
        pytest.exit(f"skipped: {lack}", returncode=77)
