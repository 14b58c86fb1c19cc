"""The demonstration's second part: the relay in the consumer's place, with two subscribers.

`vantrel` reads a pipe, as ever. `analysis`, a program of a few lines (analysis.py), subscribes over
the relay's socket; it is killed when a third of the files has been handed off, and starts again
when two thirds have.
"""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path
from types import TracebackType

from support.consumer import Consumer
from support.waiting import wait_until

CONFIGURATION = Path("/run/relay.toml")
PIPE = Path("/run/vantrel_files")
OUTPUT = Path("/run/analysis")
MESSAGES = Path("/run/relay.messages")
SOCKET = Path("/run/skarn-relay/socket")
SETTINGS = f"""\
[[subscriber]]
name = "vantrel"
type = "pipe"
path = "{PIPE}"
"""


class BehindRelay:
    """The relay and its subscribers, as long as the `with` block lasts."""

    def __init__(self, binary: Path, total: int) -> None:
        self.consumer = Consumer(PIPE)
        self._binary = binary
        self._total = total
        self._relay: subprocess.Popen[bytes] | None = None
        self._analysis: subprocess.Popen[bytes] | None = None
        self._had = -1  # when it was killed; -1 before
        self._came_back_at = -1

    def __enter__(self) -> BehindRelay:
        CONFIGURATION.write_text(SETTINGS, encoding="utf-8")
        OUTPUT.touch()
        with MESSAGES.open("wb") as messages:
            command = [str(self._binary), "run", "--config", str(CONFIGURATION)]
            self._relay = subprocess.Popen(command, stderr=messages)
        wait_until(SOCKET.exists, "the relay's socket")
        self.consumer.start()
        self._start_analysis()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        for process in (self._analysis, self._relay):
            if process is not None:
                process.kill()
                process.wait()
        self.consumer.stop()

    def _start_analysis(self) -> None:
        program = Path(__file__).with_name("analysis.py")
        self._analysis = subprocess.Popen([sys.executable, str(program), str(OUTPUT)])

    def follow(self, handed_off: int) -> None:
        """Lets the second subscriber die and come back when it is time to."""
        assert self._analysis is not None
        if self._had < 0 and handed_off >= self._total // 3:
            self._analysis.kill()
            self._analysis.wait()
            self._had = len(self._got())
            print(f"\nThe subscriber `analysis` is killed. It has had {self._had} files.")
        elif self._had >= 0 > self._came_back_at and handed_off >= self._total * 2 // 3:
            self._came_back_at = handed_off
            print(f"\nIt starts again. Meanwhile `vantrel` has had {handed_off} files.")
            self._start_analysis()

    def _got(self) -> list[str]:
        return OUTPUT.read_text(encoding="utf-8").splitlines()

    def conclude(self) -> tuple[bool, str]:
        """Whether the second subscriber has all that the first one had, and a sentence on it."""
        wanted = set(self.consumer.announced())
        try:
            wait_until(lambda: wanted <= set(self._got()), "the second subscriber to have all", 60)
        except AssertionError:
            missing = len(wanted - set(self._got()))
            messages = MESSAGES.read_text(encoding="utf-8", errors="replace")[-2000:]
            return False, f"`analysis` lacks {missing} files. The relay's messages:\n{messages}"
        again = len(self._got()) - len(set(self._got()))
        return self._came_back_at >= 0, (
            f"`analysis` was dead while {self._came_back_at - self._had} files were handed on, and has "
            f"all {len(wanted)} now, {again} of them twice."
        )
