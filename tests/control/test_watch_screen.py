"""The live view in a real terminal, beside the real daemon."""

from __future__ import annotations

import os
import re
import shlex
import signal
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

from support import scripted
from support.bed import Bed
from support.consumer import Consumer
from support.daemon import (
    FIFO,
    PID_FILE,
    Daemon,
    Detector,
    install_password_file,
    write_configuration,
    write_raw_configuration,
)
from support.dead_file_system import dead_file_system
from support.terminal import COLOUR, Terminal
from support.waiting import wait_until

SKARNCTL = os.environ["SKARNCTL_BINARY"]
FAST = ("watch", "--interval", "0.2")

# What differs from run to run: numbers, and the bars that are drawn from them.
MASKS = (
    (re.compile(r"[▁▂▃▄▅▆▇█░]+"), "|"),
    (re.compile(r"\d[\d,]*(?:\.\d+)?"), "#"),
    (re.compile(r"\b[KMGTP]iB\b"), "B"),
    (re.compile(r"# (?:s|min|h # min)\b"), "# s"),
    (re.compile(r" +"), " "),
)


def masked(lines: list[str]) -> list[str]:
    """The lines without what differs from run to run, up to the last that has anything."""
    shown = []
    for line in lines:
        for pattern, instead in MASKS:
            line = pattern.sub(instead, line)
        shown.append(line.strip())
    return shown


@contextmanager
def watching(
    columns: int = 100,
    rows: int = 30,
    environment: dict[str, str] | None = None,
    command: tuple[str, ...] = FAST,
) -> Iterator[Terminal]:
    """The view in a terminal, once it has shown itself."""
    with Terminal(columns, rows) as terminal:
        terminal.run([SKARNCTL, *command], environment)
        terminal.wait_for("^.*q quit")
        yield terminal


@contextmanager
def scripted_daemon(detectors: int = 1) -> Iterator[Daemon]:
    """A daemon whose detectors have nothing but what a test scripts, and a consumer."""
    install_password_file()
    scripted.install()
    write_configuration(
        None,
        [
            Detector(f"D{number:02d}", f"127.0.0.{number}", target=f"/srv/images/{number}")
            for number in range(1, detectors + 1)
        ],
    )
    with Consumer(), Daemon() as daemon:
        daemon.start()
        daemon.wait_for_log("++ Starting copy thread", detectors)
        yield daemon


def test_a_drain_is_followed_file_by_file() -> None:
    with Bed(2) as bed:
        bed.start()
        with watching(columns=120) as terminal:
            bed.simulator.burst((f"frame_{number:04d}.raw" for number in range(150)), 500)
            bed.wait_announced(150)
            terminal.wait_for(r"^Files 150[, ]")
            bed.stations[1].simulator.write("the_last.raw")
            bed.wait_announced(151)
            terminal.wait_for(r"^2 +idle .* the_last\.raw$")
            screen = terminal.wait_for(r"^Files 151[, ].* peak ")  # there after the first whole second
        picture = [re.sub("^(# )(listing|idle)", r"\1quiet", line) for line in masked(screen)]
        assert picture[0] == "KEEPING UP: files are coming in"
        assert picture[1] == "Daemon # up # s (since #-#-# #:#:#), no start options"
        assert picture[2] == ""
        assert re.fullmatch(
            r"Files #,? # B since #-# #:# +(?:#/s, #(?:\.#)? MB/s now )?(?:#/s over # s )?\|? ?peak #/s",
            picture[3],
        ), picture[3]
        assert picture[4:7] == [
            "lost # not announced # no pipe # failed starts # failed listings # complaints # "
            "long records # lists left #",
            "",
            "DETECTOR STATE PROCESSES FILES BYTES LAST FILE",
        ]
        assert [re.sub("#,? [kM] inodes", "# inodes", line) for line in picture[7:11]] == [
            "# quiet | #/# # # B frame_#.raw",
            "| # B of # B free, # inodes /srv/images/#/.",
            "# quiet | #/# # # B the_last.raw",
            "| # B of # B free, # inodes /srv/images/#/.",
        ]
        assert re.fullmatch(
            r"Pipe read by .+ \(#\) /var/run/vantrel_orbelin_files", picture[12]
        ), picture
        assert picture[13] == (
            "Log | # B of # B counts since the start # archives, # rotations seen "
            "/srv/log/skarn.log"
        )
        assert re.fullmatch("q quit h help space pause r redraw #:#:#", picture[29])
        bed.check()


def test_a_daemon_that_dies_is_called_down_at_once() -> None:
    with scripted_daemon() as daemon, watching() as terminal:
        terminal.wait_for("^KEEPING UP")
        terminal.wait_for(r"^D01 +(idle|listing)")
        daemon.end(signal.SIGKILL)
        screen = terminal.wait_for("^DOWN: ")
        assert any(line.startswith("No daemon runs. The counts are") for line in screen)
        terminal.wait_for(r"^D01 +not served")


def test_a_pipe_that_nobody_reads_is_said_in_the_first_line() -> None:
    with scripted_daemon() as daemon:
        os.rename(FIFO, str(FIFO) + ".read")
        os.mkfifo(FIFO)
        with watching() as terminal:
            screen = terminal.wait_for("^NOT KEEPING UP: nobody reads the pipe " + str(FIFO))
            assert screen[0].startswith("NOT KEEPING UP")
            assert any(line.startswith("Pipe no reader!") for line in screen)
        assert daemon.is_running()


def test_losses_and_complaints_are_shown_without_steering_the_terminal() -> None:
    with scripted_daemon() as daemon:
        detector = Detector("D01", "127.0.0.1", target="/srv/images/1")
        with watching() as terminal:
            scripted.add_copy(
                [
                    scripted.out("SENT: gone\n"),
                    scripted.out("SENT: kept\nCONFIRMED: x kept\x1b]0;t\x07\x1b[2J\n"),
                    scripted.err("rsync: \x1b[31mred\x1b[0m \x9b2J failed\n"),
                ],
                detector,
            )
            scripted.add_listing(["gone", "kept"], detector)
            daemon.wait_for_log("RSYNC OUTPUT END")
            terminal.wait_for(r"^KEEPING UP, BUT: \d files? w")
            screen = terminal.wait_for("^Last complaint")  # which is drawn after all the rest
            text = "\n".join(screen)
            assert "rsync: \\033[31mred\\033[0m" in text and "\\233" in text, text
            assert "kept\\033]0;t\\007\\033[2J" in text, text
            assert re.search(r"lost \d!", text), text


def test_help_comes_and_goes() -> None:
    with scripted_daemon(), watching(80, 24) as terminal:
        terminal.press("h")
        screen = terminal.wait_for("^Keys$")
        assert screen[0] == "Keys"
        terminal.wait_for("j more")
        terminal.press("NPage", "NPage", "NPage", "NPage")
        terminal.wait_for("k back up")
        terminal.press("?")
        terminal.wait_for("^DETECTOR")
        terminal.press("h")
        terminal.wait_for("k back up")  # where one was
        terminal.press("Home")
        terminal.wait_for("^Keys$")
        terminal.press("Escape")
        terminal.wait_for("^DETECTOR")


def test_detectors_scroll() -> None:
    with scripted_daemon(12), watching(80, 24) as terminal:
        screen = terminal.wait_for(r"1-\d+ of 12 \(j/k\)")
        assert any(line.startswith("D01 ") for line in screen)
        assert not any(line.startswith("D12 ") for line in screen)
        for keys in (["j"], ["Down"]):
            terminal.press(*keys)
        screen = terminal.wait_for(r" 3-\d+ of 12")
        assert not any(line.startswith("D02 ") for line in screen)
        terminal.press("k", "Up", "Up", "Up")
        terminal.wait_for(r" 1-\d+ of 12")
        terminal.press("End")
        terminal.wait_for(r"^D12 ")
        terminal.press("j", "j", "k")
        terminal.wait_for(r"-11 of 12")
        terminal.press("PPage", "PPage", "PPage")
        terminal.wait_for(r" 1-\d+ of 12")


def test_any_size_is_used() -> None:
    with scripted_daemon(6), watching() as terminal:
        for columns, rows in ((40, 10), (150, 40), (20, 3), (1, 1), (80, 24)):
            terminal.resize(columns, rows)
            if rows >= 10:
                screen = terminal.wait_for(
                    "LAST FILE" if columns > 60 else r"^\d of 6 \(j/k\)"
                )
                assert len(screen) == rows
                assert "KEEPING UP" in screen[0]
        assert "q quit" in terminal.wait_for(r"q quit .*\d\d:\d\d:\d\d$")[-1]


def test_space_stops_the_screen_and_lets_it_go_on() -> None:
    with scripted_daemon() as daemon, watching() as terminal:
        terminal.wait_for("^KEEPING UP")
        terminal.press("Space")
        terminal.wait_for(r"^PAUSED at \d\d:\d\d:\d\d")
        daemon.end(signal.SIGKILL)
        time.sleep(1)  # what must not happen has this long to happen
        assert terminal.screen()[0].startswith("KEEPING UP")
        terminal.press("Space")
        terminal.wait_for("^DOWN: ")


@pytest.mark.parametrize(
    ("how", "status"),
    [("q", 0), ("C-c", 0), (signal.SIGTERM, 143), (signal.SIGHUP, 129), (signal.SIGUSR1, 138)],
)
def test_every_way_out_restores_the_terminal(how: str | int, status: int) -> None:
    with scripted_daemon() as daemon, watching() as terminal:
        assert terminal.is_on_second_screen() and not terminal.cursor_is_visible()
        if isinstance(how, str):
            terminal.press(how)
        else:
            os.kill(terminal.child("skarnctl"), how)
        assert terminal.wait_status() == status
        assert terminal.settings("before") == terminal.settings("after")
        assert terminal.screen()[0] == "the screen before"
        assert terminal.cursor_is_visible() and not terminal.is_on_second_screen()
        assert daemon.is_running()


@pytest.mark.parametrize(("how", "status"), [(signal.SIGTERM, 143), (signal.SIGHUP, 129)])
def test_it_can_be_ended_during_its_first_look(how: int, status: int) -> None:
    with dead_file_system() as dead, Terminal(100, 30) as terminal:
        # For seconds no answer comes from there.
        write_raw_configuration(
            f"logfile {dead}/log\ndetectorID 1\nremoteIP 127.0.0.1\nsource /\ntarget /srv/1\n"
        )
        terminal.run([SKARNCTL, *FAST])
        pid = terminal.child("skarnctl")
        wait_until(
            lambda: len(os.listdir(f"/proc/{pid}/task")) > 1, "the look at the log to have begun"
        )
        assert not terminal.is_on_second_screen()
        begun = time.monotonic()
        os.kill(pid, how)
        assert terminal.wait_status() == status
        assert time.monotonic() - begun < 1.5
        assert terminal.settings("before") == terminal.settings("after")


def test_it_can_be_stopped_and_continued() -> None:
    with scripted_daemon(), watching() as terminal:
        pid = terminal.child("skarnctl")
        os.kill(pid, signal.SIGSTOP)
        os.kill(pid, signal.SIGCONT)
        terminal.press("h")
        terminal.wait_for("^Keys$")


def test_colours_are_left_out_where_they_are_not_wanted() -> None:
    with scripted_daemon():
        with watching() as terminal:
            terminal.wait_for("^KEEPING UP")
            assert COLOUR.search(terminal.styled())
        with watching(environment={"NO_COLOR": "1"}) as terminal:
            terminal.wait_for("^KEEPING UP")
            assert not COLOUR.search(terminal.styled())
            assert "\x1b[1m" in terminal.styled()
        with watching(environment={"NO_COLOR": ""}) as terminal:
            terminal.wait_for("^KEEPING UP")
            assert COLOUR.search(terminal.styled())
        with watching(environment={"TERM": "vt100"}) as terminal:
            terminal.wait_for("^KEEPING UP")
            assert not COLOUR.search(terminal.styled())


def test_a_locale_without_utf8_gets_ascii() -> None:
    with scripted_daemon(), watching(environment={"LC_ALL": "C"}) as terminal:
        screen = terminal.wait_for(r"^D01 +\w+ +[#.]{8} \d/8 ")
        assert all(line.isascii() for line in screen)


@pytest.mark.parametrize("name", ["", "dumb", "no-such-terminal"])
def test_a_terminal_that_cannot_be_drawn_on_is_refused(name: str) -> None:
    with Terminal(200, 10) as terminal:
        terminal.run([SKARNCTL, "watch"], {"TERM": name})
        assert terminal.wait_status() == 1
        complaint = [line for line in terminal.screen() if line.startswith("skarnctl: ")]
        assert len(complaint) == 1 and "TERM" in complaint[0]
        assert terminal.settings("before") == terminal.settings("after")


def test_without_a_terminal_to_type_at_it_says_what_to_do() -> None:
    with Terminal(200, 10) as terminal:
        terminal.run(["/bin/sh", "-c", f"{shlex.quote(SKARNCTL)} watch </dev/null"])
        assert terminal.wait_status() == 1
        assert (
            "skarnctl: the live view needs a terminal; --once or --json show the same without one"
            in terminal.screen()
        )


def test_nothing_at_all_is_there_to_be_watched() -> None:
    assert not PID_FILE.exists() and not Path("/etc/skarn_orbelin.conf").exists()
    with watching() as terminal:
        screen = terminal.wait_for("^DOWN: ")
        assert "there is no configuration file" in "\n".join(screen)
