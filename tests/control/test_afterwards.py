"""What skarnctl tells and mends afterwards: files that nobody was told of, and the log, readable."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest

from support import scripted
from support.bed import Bed
from support.consumer import Consumer
from support.control import PATIENCE, skarnctl
from support.daemon import (
    FIFO,
    Daemon,
    Detector,
    install_password_file,
    write_configuration,
    write_raw_configuration,
)
from support.dead_file_system import dead_file_system
from support.scripted import err, out

JOURNAL = Path("/var/lib/skarn/journal")
TARGET = Path("/srv/images/1")
OLD = Path("/srv/old")
ANNOUNCED = Path("/var/log/skarn/announced")
QUIET = 600_000


def leave_journal(share: str, target: str, lines: str, name: str = "unannounced") -> Path:
    """A file of the copy program's journals."""
    def encoded(text: str) -> str:
        return re.sub(r"[^A-Za-z0-9._:@-]", lambda found: f"%{ord(found[0]):02X}", text)

    folder = JOURNAL / encoded(share) / encoded(target)
    folder.mkdir(mode=0o700, parents=True)
    path = folder / name
    path.write_text(
        f"skarn left names 1\nsource {share}\ndestination {target}\nnames\n{lines}"
    )
    return path


@pytest.fixture(autouse=True)
def host() -> None:
    install_password_file()
    scripted.install()
    write_configuration(None, [Detector("1", target=str(TARGET), minpause=QUIET)])
    TARGET.mkdir(parents=True, exist_ok=True)
    Path("/srv/log").mkdir(exist_ok=True)


def test_nothing_is_left_on_a_healthy_host() -> None:
    result = skarnctl("unannounced")
    assert (result.status, result.errors) == (0, "")
    assert result.output == "no file is known that was copied and not announced\n"


def test_names_left_under_another_target_are_announced_and_forgotten() -> None:
    OLD.mkdir()
    for name in ("a", "b", "sub"):
        (OLD / name).touch()
    os.symlink("/etc", OLD / "link")
    left = leave_journal(
        "rsync://root@127.0.0.9:49371/ramdisk/",
        f"{OLD}/./",
        "gone a\nthere 2 c\ngone missing\ngone link/passwd\ngone b\n",
    )
    serving = leave_journal(
        "rsync://root@127.0.0.1:49371/ramdisk/", f"{TARGET}/./", "gone mine\n", "left"
    )
    listed = skarnctl("unannounced")
    assert listed.status == 0 and listed.output.splitlines() == [
        f"{OLD}/./a: left open under another target",
        f"{OLD}/./missing: left open under another target; it is not there",
        f"{OLD}/./link/passwd: left open under another target; it is not there",
        f"{OLD}/./b: left open under another target",
    ]
    os.mkfifo(FIFO)
    nobody = skarnctl("unannounced", "--announce")
    assert nobody.status == 1
    assert nobody.complaint == f"nobody reads the pipe {FIFO}; nothing was announced"
    with Consumer() as consumer:
        done = skarnctl("unannounced", "--announce")
        assert done.status == 0, done
        consumer.wait_for(2)
        assert consumer.lines() == [f"{OLD}/./a", f"{OLD}/./b"]
    rest = left.read_text()
    assert rest.endswith("there 2 c\ngone missing\ngone link/passwd\n") and "gone a\n" not in rest
    assert serving.read_text().endswith("gone mine\n"), "the next copy announces it"
    assert "2 files announced by hand" in skarnctl("events", "--since", "1h").output
    left.write_text(left.read_text().replace("there 2 c\n", "").replace("gone link/passwd\n", ""))
    (OLD / "missing").touch()
    with Consumer():
        assert skarnctl("unannounced", "--announce").status == 0
    assert not left.exists(), "nothing is open there any more"


def test_names_that_the_pipe_did_not_take_are_announced_once() -> None:
    scripted.add_listing(["a", "b"])
    (TARGET / "a").touch()
    FIFO.mkdir()  # opens for nobody who wants to write
    with Daemon() as daemon:
        daemon.start()
        daemon.wait_for_log("1: Removed file")
        FIFO.rmdir()
        listed = skarnctl("unannounced").output
        assert listed == f"{TARGET}/./a: the pipe did not take it\n", "b is not there"
        with Consumer() as consumer:
            assert skarnctl("unannounced", "--announce").status == 0
            consumer.wait_for(1)
            assert consumer.announced() == [f"{TARGET}/./a"]
            daemon.end(signal.SIGKILL)
    assert "no file is known" in skarnctl("unannounced").output


def test_what_was_announced_is_noted_as_long_as_the_log_names_it() -> None:
    ANNOUNCED.parent.mkdir(parents=True, exist_ok=True)
    long_ago = "".join(f"{TARGET}/./old-{number}\n" for number in range(1000))
    ANNOUNCED.write_text(f"{long_ago}{TARGET}/./c\n", encoding="utf-8")
    scripted.add_listing(["c", "d"])
    (TARGET / "c").touch()
    (TARGET / "d").touch()
    FIFO.mkdir()  # opens for nobody who wants to write
    with Daemon() as daemon:
        daemon.start()
        daemon.wait_for_log("1: Removed file")
        FIFO.rmdir()
        with Consumer() as consumer:
            assert skarnctl("unannounced", "--announce").status == 0
            consumer.wait_for(1)
            assert consumer.announced() == [f"{TARGET}/./d"], "c was announced before"
            daemon.end(signal.SIGKILL)
    assert ANNOUNCED.read_text(encoding="utf-8") == f"{TARGET}/./c\n{TARGET}/./d\n"


def test_a_file_system_that_does_not_answer_holds_up_nothing() -> None:
    with dead_file_system() as dead:
        block = f"detectorID 1\nremoteIP 127.0.0.1\nsource /\ntarget {TARGET}\n"
        write_raw_configuration(f"logfile {dead}/log\n{block}")
        leave_journal("rsync://root@127.0.0.8:49371/ramdisk/", f"{dead}/./", "gone a\ngone b\n")
        silent = f"the log {dead}/log can't be read: its file system does not answer"
        begun = time.monotonic()
        log = skarnctl("log")
        assert (log.status, log.output, log.complaint) == (1, "", silent)
        listed = skarnctl("unannounced")
        assert (listed.status, listed.complaint) == (1, silent)
        assert listed.output == "".join(
            f"{dead}/./{name}: left open under another target; "
            "the file system of its target does not answer\n"
            for name in ("a", "b")
        )
        assert time.monotonic() - begun < PATIENCE


def test_the_log_is_readable_and_explained() -> None:
    scripted.add_listing(["gone", "here"])
    scripted.add_copy(
        [
            out("SENT: gone\nSENT: here\nCONFIRMED: x here\n"),
            err("rsync: [receiver] write failed on \"/x\": No space left on device (28)\n"),
            err("rsync error: \x1b[31m error in file IO (code 11) at receiver.c(374)\n"),
        ]
    )
    with Consumer(), Daemon() as daemon:
        daemon.start()
        daemon.wait_for_log("1: Removed file")
        text = skarnctl("log").output
        assert "++ skarn 3.7.1 started\n" in text and "1 Starting 1 copy processes\n" in text
        assert "RSYNC OUTPUT" not in text and "++++++" not in text and "\x1b" not in text
        assert (
            "Copied 1 files in the range of: here ... here\n"
            '    rsync: [receiver] write failed on "/x": No space left on device (28)\n'
            "    rsync error: \\033[31m error in file IO (code 11) at receiver.c(374)\n"
        ) in text
        explained = skarnctl("log", "--explain").output
        assert re.search(
            r"No space left on device \(28\)\n +The target is full\. .*\n +Cure: Make room; ", explained
        ), explained
        assert re.search(r"^Error: Lost gone\n +Sent, but not confirmed: ", explained, re.MULTILINE)
        other = skarnctl("log", "2").output
        assert "1 Starting" not in other and "Copied 1 files" in other, "a block bears no name"


def test_the_log_is_followed() -> None:
    with Bed() as bed:
        bed.start()
        with subprocess.Popen(
            [os.environ["SKARNCTL_BINARY"], "log", "-f"], stdout=subprocess.PIPE, text=True
        ) as follower:
            assert follower.stdout is not None
            bed.simulator.write("one")
            for line in follower.stdout:
                if line.startswith("Copied 1 files in the range of: one"):
                    break
            follower.terminate()
        bed.finish()


@pytest.mark.parametrize("words", [["log", "--x"], ["events", "--since", "soon"], ["unannounced", "x"]])
def test_a_wrong_command_line_gets_one_line(words: list[str]) -> None:
    Path("/var/log/skarn").mkdir(parents=True, exist_ok=True)
    Path("/var/log/skarn/events").touch()
    result = skarnctl(*words)
    assert result.status == 2 and result.output == "" and result.complaint


def test_only_root_looks_into_the_journals() -> None:
    JOURNAL.mkdir(mode=0o700, parents=True, exist_ok=True)
    result = skarnctl("unannounced", user=65534)
    assert result.status == 4 and result.complaint.startswith("only root may look into ")
