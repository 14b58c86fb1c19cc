"""The demonstration with the relay, in small: it comes to its end, and says that all have all."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

SHOW = Path(__file__).parents[2] / "scripts/demo/show.py"


def test_the_subscriber_that_dies_has_every_file_at_last() -> None:
    place = Path("/srv/demo")
    place.mkdir()
    done = subprocess.run(
        [
            *(sys.executable, SHOW, "--relay", "--files", "150", "--rate", "150"),
            *("--skarn", os.environ["SKARN_BINARY"], "--log", place / "skarn.log"),
            *("--copy-program", os.environ["CONFIRMING_RSYNC_BINARY"]),
            *("--relay-program", os.environ["SKARN_RELAY_BINARY"]),
        ],
        capture_output=True,
        text=True,
        timeout=120,
        check=False,
    )
    assert done.returncode == 0, done.stdout + done.stderr
    assert "and has all 300 now" in done.stdout
    assert "none lost, none altered, each announced once" in done.stdout
