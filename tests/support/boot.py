"""The machine's next start, as far as the kernel tells of it; in the sandbox alone."""

from __future__ import annotations

import os
import re
import subprocess
import time
from pathlib import Path

IDENTITY = Path("/proc/sys/kernel/random/boot_id")
STATISTICS = Path("/proc/stat")  # has the second of the start, by the wall clock


def pretend(identity: str) -> None:
    """The machine has started in this very second, and this boot has that identity."""
    began = f"btime {int(time.time())}"
    _put(IDENTITY, f"{identity}\n")
    _put(STATISTICS, re.sub(r"(?m)^btime \d+$", began, STATISTICS.read_text("ascii")))


def end_pretence() -> None:
    """The real start is seen again."""
    for path in (IDENTITY, STATISTICS):
        subprocess.run(["umount", "-n", path], check=True)


def _put(path: Path, text: str) -> None:
    if not os.path.ismount(path):
        file = Path("/srv") / f"pretended_{path.name}"
        file.touch()
        subprocess.run(["mount", "-n", "--bind", file, path], check=True)
    path.write_text(text, "ascii")
