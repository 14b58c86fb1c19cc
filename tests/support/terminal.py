"""A terminal in which a program runs, seen and typed at through tmux."""

from __future__ import annotations

import os
import re
import shlex
import subprocess
import tempfile
import time
from collections.abc import Mapping, Sequence
from contextlib import suppress
from pathlib import Path
from types import TracebackType

from support.waiting import LIMIT, wait_until

# An escape sequence that sets a colour of the foreground or the background.
COLOUR = re.compile(r"\x1b\[(?:\d+;)*(?:3[0-8]|4[0-8]|9[0-7]|10[0-7])(?:;\d+)*m")


class Terminal:
    """Runs one command in a terminal of its own, in a tmux server of its own.

    The screen stays after the command's end, with its status in the last line and what `stty`
    says of the terminal before and after it in files (`settings`).
    """

    def __init__(self, columns: int = 100, rows: int = 30) -> None:
        self._folder = tempfile.TemporaryDirectory(prefix="terminal-")
        self._socket = Path(self._folder.name, "tmux")
        self._size = (columns, rows)

    def run(self, command: Sequence[str], environment: Mapping[str, str] | None = None) -> None:
        """Starts the command. `environment` is added to a UTF-8 locale, UTC and a search path."""
        before, after = self._settings_file("before"), self._settings_file("after")
        script = (
            # The shell outlives a Ctrl-C, which reaches all that runs in the terminal.
            f"trap : INT; stty -a >{before}; echo 'the screen before'; "
            f"{shlex.join(command)}; echo \"status $?\"; stty -a >{after}; exec sleep 1000"
        )
        variables = {
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
            "LC_ALL": "C.UTF-8",
            "TZ": "UTC",
            "SHELL": "/bin/sh",
            **{name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")},
        }
        inner = [f"{name}={value}" for name, value in (environment or {}).items()]
        columns, rows = self._size
        subprocess.run(
            [
                *("tmux", "-u", "-S", str(self._socket), "-f", "/dev/null"),
                *("new-session", "-d", "-x", str(columns), "-y", str(rows)),
                *("env", *inner, "/bin/sh", "-c", script),
            ],
            check=True,
            env=variables,
            timeout=LIMIT,
        )

    def screen(self) -> list[str]:
        """The lines on the screen, without blanks at their ends."""
        return [line.rstrip() for line in self._tmux("capture-pane", "-p").split("\n")[:-1]]

    def styled(self) -> str:
        """The screen with the escape sequences that style it."""
        return self._tmux("capture-pane", "-e", "-p")

    def text(self) -> str:
        """The screen as one text."""
        return "\n".join(self.screen())

    def wait_for(self, pattern: str, timeout: float = LIMIT) -> list[str]:
        """Waits until a regular expression (multi-line) is found on the screen; returns it."""
        expression = re.compile(pattern, re.MULTILINE)
        seen: list[str] = []

        def found() -> bool:
            time.sleep(0.03)  # each look starts a process
            seen[:] = self.screen()
            return expression.search("\n".join(seen)) is not None

        wait_until(found, lambda: f"{pattern!r} on the screen:\n" + "\n".join(seen), timeout)
        return list(seen)

    def press(self, *keys: str) -> None:
        """Types keys by tmux's names: "q", "C-c", "Down", "Space"."""
        self._tmux("send-keys", *keys)

    def resize(self, columns: int, rows: int) -> None:
        """Gives the terminal another size."""
        self._tmux("resize-window", "-x", str(columns), "-y", str(rows))

    def cursor_is_visible(self) -> bool:
        """Whether the cursor is shown."""
        return self._tmux("display-message", "-p", "#{cursor_flag}").strip() == "1"

    def is_on_second_screen(self) -> bool:
        """Whether the program shows the screen that full-screen programs use."""
        return self._tmux("display-message", "-p", "#{alternate_on}").strip() == "1"

    def settings(self, when: str) -> str:
        """What stty said "before" or "after" the command."""
        return self._settings_file(when).read_text(encoding="ascii")

    def wait_status(self, timeout: float = LIMIT) -> int:
        """The status of the command once it has ended."""
        screen = self.wait_for(r"^status \d+$", timeout)
        wait_until(lambda: self._settings_file("after").exists(), "stty to be asked", timeout)
        wait_until(lambda: self.settings("after").endswith("\n"), "stty's answer", timeout)
        found = re.findall(r"^status (\d+)$", "\n".join(screen), re.MULTILINE)
        return int(found[-1])

    def child(self, name: str) -> int:
        """The process of that name that runs in the terminal; waits for it."""
        shell = int(self._tmux("display-message", "-p", "#{pane_pid}").strip())

        def look() -> int:
            listing = Path(f"/proc/{shell}/task/{shell}/children").read_text(encoding="ascii")
            for pid in map(int, listing.split()):
                with suppress(FileNotFoundError, ProcessLookupError):  # it has ended meanwhile
                    if Path(f"/proc/{pid}/comm").read_text(encoding="utf-8").strip() == name[:15]:
                        return pid
            return 0

        return wait_until(look, f"{name} to run in the terminal")

    def __enter__(self) -> Terminal:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        subprocess.run(
            ["tmux", "-S", str(self._socket), "kill-server"],
            check=False,
            stderr=subprocess.DEVNULL,
            timeout=LIMIT,
        )
        self._folder.cleanup()

    def _settings_file(self, when: str) -> Path:
        return Path(self._folder.name, f"settings-{when}")

    def _tmux(self, *arguments: str) -> str:
        ended = subprocess.run(
            ["tmux", "-u", "-S", str(self._socket), *arguments],
            check=True,
            stdout=subprocess.PIPE,
            timeout=LIMIT,
        )
        return ended.stdout.decode("utf-8", "backslashreplace")
