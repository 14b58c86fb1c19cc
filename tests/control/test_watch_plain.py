"""What skarnctl watch says without a full-screen view, beside the real daemon and real files."""

from __future__ import annotations

import json
import os
import re
import signal
import subprocess
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

import pytest

from support import scripted
from support.bed import Bed
from support.consumer import Consumer
from support.daemon import (
    CONFIGURATION,
    FIFO,
    LOG_FILE,
    Daemon,
    Detector,
    install_password_file,
    write_configuration,
    write_raw_configuration,
)
from support.detector import frame_names
from support.scripted import err, gate, out
from support.waiting import LIMIT, wait_until

SKARNCTL = os.environ["SKARNCTL_BINARY"]
DAEMON = os.environ["SKARN_BINARY"]
QUIET = 600_000  # milliseconds: a detector that has found nothing does not list again

# A snapshot as it comes: the tests below are its type check.
Snapshot = dict[str, Any]


def run(*arguments: str, user: int | None = None) -> subprocess.CompletedProcess[str]:
    """Runs skarnctl watch to its end."""
    return subprocess.run(
        [SKARNCTL, "--daemon", DAEMON, "watch", *arguments],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        errors="surrogateescape",
        timeout=LIMIT,
        user=user,
        group=user,
        extra_groups=[] if user is not None else None,
    )


def look() -> Snapshot:
    """What is seen at one moment. (A single report looks for two seconds to tell a rate.)"""
    with subprocess.Popen(
        [SKARNCTL, "--daemon", DAEMON, "watch", "--json", "--interval", "600"],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
    ) as process:
        assert process.stdout is not None
        snapshot: Snapshot = json.loads(process.stdout.readline())
    assert process.returncode == 0, "it ends when nobody reads it any more"
    return snapshot


def report() -> str:
    """The plain report."""
    done = run("--once")
    assert done.returncode == 0 and done.stderr == "", done
    return done.stdout


class Watcher:
    """A skarnctl watch that prints a line of JSON five times a second."""

    def __init__(self) -> None:
        self._process = subprocess.Popen(
            [SKARNCTL, "--daemon", DAEMON, "watch", "--json", "--interval", "0.2"],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self.snapshots: list[Snapshot] = []
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self) -> None:
        assert self._process.stdout is not None
        for line in self._process.stdout:
            self.snapshots.append(json.loads(line))

    def wait_for(self, condition: Callable[[Snapshot], bool], what: str) -> Snapshot:
        """Waits for a snapshot of which the condition holds."""

        def good() -> Snapshot | None:
            last = self.snapshots[-1] if self.snapshots else None
            return last if last is not None and condition(last) else None

        found = wait_until(good, lambda: f"{what}; the last is {self.snapshots[-1:]}")
        assert found is not None
        return found

    def stop(self) -> None:
        """Ends it; it must have been running until then, without a complaint."""
        assert self._process.poll() is None, self._process.communicate()
        self._process.terminate()
        self._process.wait(LIMIT)
        self._thread.join(LIMIT)
        assert self._process.stderr is not None
        complaints = self._process.stderr.read()
        self._process.stderr.close()
        assert complaints == ""


@contextmanager
def watching() -> Iterator[Watcher]:
    watcher = Watcher()
    try:
        yield watcher
    finally:
        watcher.stop()


def detector(snapshot: Snapshot, wanted: str) -> Snapshot:
    """The part of one detector."""
    found = [each for each in snapshot["detectors"] if each["id"] == wanted]
    assert len(found) == 1, snapshot["detectors"]
    part: Snapshot = found[0]
    return part


def has_counted(files: int) -> Callable[[Snapshot], bool]:
    """Whether so many files, or more, were counted."""

    def good(snapshot: Snapshot) -> bool:
        return bool(snapshot["total"]["files"] >= files)

    return good


@contextmanager
def scripted_daemon(
    detectors: list[Detector], *arguments: str, settings: dict[str, object] | None = None
) -> Iterator[Daemon]:
    """A running daemon whose copy program does what the test has scripted."""
    write_configuration({"logfile": LOG_FILE, **(settings or {})}, detectors)
    install_password_file()
    with Daemon() as daemon:
        started = daemon.start(*arguments)
        assert started.status == 0 and daemon.detached, started
        daemon.wait_for_log("++ Starting copy thread", len(detectors))
        yield daemon


@pytest.fixture(autouse=True)
def scripted_program() -> None:
    scripted.install()


def test_one_detectors_files_are_counted_through_rotations() -> None:
    settings = {"logfile_max_size": "1K", "logfile_max_number": 2}
    with Bed(settings=settings) as bed, watching() as watcher:
        bed.start()
        names = frame_names(120)
        for begin in range(0, len(names), 10):
            bed.simulator.burst(names[begin : begin + 10])
            watcher.wait_for(has_counted(begin + 10), f"{begin + 10} files to be counted")
        bed.finish()
        last = watcher.wait_for(
            lambda seen: bool(seen["total"]["reports"] == seen["total"]["processes"]),
            "all reports to be there",
        )
        assert last["total"]["files"] == len(names)
        assert detector(last, "1")["counts"]["files"] == len(names)
        assert last["log"]["coverage"] == "since_start"
        assert last["log"]["rotations"] > 2 and last["log"]["archives"] == 3
        assert last["log"]["limit"] == 1024
        assert last["last_file"] in names and detector(last, "1")["last_file"] in names
        assert last["total"]["lost"] == last["total"]["complaints"] == 0
        assert last["pipe"]["state"] == "read" and len(last["pipe"]["readers"]) == 1
        assert max(max(seen["rates"]["history"], default=0) for seen in watcher.snapshots) > 0

        # One that comes too late to see the banner counts in the log from now on; the copy program
        # knows all the same how many files there were.
        late = look()
        assert late["log"]["coverage"] == "since_watch"
        assert late["total"]["cycles"] == 0 and late["total"]["files"] == len(names)


def test_files_of_detectors_that_copy_at_once_are_told_apart() -> None:
    with Bed(stations=3) as bed:
        bed.start()
        for number, station in enumerate(bed.stations, 1):
            station.simulator.burst(frame_names(number * 30), number * 1000)
        bed.wait_announced(180)
        bed.finish()
        seen = look()
        for number in (1, 2, 3):
            part = detector(seen, str(number))
            assert part["counts"]["files"] == number * 30
            assert part["counts"]["bytes"] == number * 30 * number * 1000
            assert part["last_file"] in frame_names(90) and part["listed_seconds_ago"] < 60
        assert seen["total"]["files"] == 180 and seen["total"]["bytes"] == 30_000 * (1 + 4 + 9)


def test_what_each_detector_does_is_shown() -> None:
    detectors = [
        Detector("copies", "127.0.0.1", target="/srv/1", minpause=QUIET),
        Detector("idles", "127.0.0.2", target="/srv/2", minpause=QUIET),
        Detector("lists", "127.0.0.3", target="/srv/3", minpause=QUIET),
    ]
    go = gate("go")
    scripted.add_listing(frame_names(250), detectors[0])
    scripted.set_default_copy([f"wait {go}", "confirm-all"])
    scripted.add_listing_script([f"wait {go}"], detectors[2])
    with Consumer(), scripted_daemon(detectors), watching() as watcher:
        scripted.wait_for_calls("copy", 3)
        scripted.wait_for_calls("listing", 3)
        seen = watcher.wait_for(
            lambda now: [(each["state"], each["copy_processes"]) for each in now["detectors"]]
            in (
                [("copying", 3), ("idle", 0), ("listing", 0)],
                [("copying", 3), ("idle", 0), ("hanging", 0)],
            ),
            "the three states",
        )
        assert detector(seen, "copies")["share"] == "rsync://root@127.0.0.1:49371/ramdisk/"
        assert detector(seen, "copies")["target"] == "/srv/1/."
        assert detector(seen, "copies")["counts"]["files"] is None, "it keeps no figures"
        assert detector(seen, "copies")["cycle"]["dealt"] == 250
        assert detector(seen, "copies")["free_bytes"] > 0
        assert seen["daemon"]["process_limit"] == 8
        text = report()
        assert re.search(r"^copies +copying +\S+ 3/8 ", text, re.MULTILINE)
        assert re.search("^idles +idle ", text, re.MULTILINE)
        assert re.search("^lists +(listing|hanging) ", text, re.MULTILINE)
        go.touch()
        watcher.wait_for(
            lambda now: all(each["state"] == "idle" for each in now["detectors"])
            and now["total"]["files"] == 250,
            "the end of all of it",
        )


def test_a_daemon_that_is_killed_and_started_again_counts_anew() -> None:
    scripted.add_listing(["a", "b"])
    # There from the beginning: a watch that finds no configuration has nothing to show, and ends.
    write_configuration(None, [Detector("1", minpause=QUIET)])
    with Consumer(), watching() as watcher:
        with scripted_daemon([Detector("1", minpause=QUIET)]) as daemon:
            first = watcher.wait_for(lambda now: bool(now["total"]["files"] == 2), "two files")
            assert first["daemon"]["state"] == "running" and first["daemon"]["pid"] == daemon.pid
            assert abs(first["daemon"]["up_since"] - time.time()) < 600
            daemon.end(signal.SIGKILL)
            dead = watcher.wait_for(lambda now: bool(now["daemon"]["state"] == "dead"), "the death")
            assert dead["daemon"]["pid"] is None and dead["verdict"]["level"] == "down"
            assert dead["total"]["files"] == 2, "what the log holds stays known"
            assert detector(dead, "1")["state"] == "not_served"
        scripted.add_listing(["c"])
        with scripted_daemon([Detector("1", minpause=QUIET)], "-u", "12:34"):
            again = watcher.wait_for(lambda now: bool(now["total"]["files"] == 1), "one file")
            assert again["daemon"]["state"] == "running"
            assert again["daemon"]["start_options"] == ["-u", "12:34"]
            assert again["log"]["coverage"] == "since_start"


def test_a_daemon_that_never_ran_is_shown_too() -> None:
    write_configuration(None, [Detector("1")])
    done = run("--json")
    assert done.returncode == 0 and done.stderr == "", done
    seen = json.loads(done.stdout)
    assert seen["daemon"]["state"] == "not_running" and seen["daemon"]["pid"] is None
    assert detector(seen, "1")["state"] == "not_served"
    assert seen["log"]["coverage"] == "none"
    assert seen["log"]["problem"] == f"there is no {LOG_FILE}"
    assert seen["pipe"]["state"] == "absent"
    assert seen["rates"]["last_seconds"] == 0
    assert re.search("^1 +not served ", report(), re.MULTILINE)


def test_losses_complaints_and_a_missing_pipe_are_counted() -> None:
    scripted.add_listing(["a", "b", "c"])
    scripted.add_copy(
        [
            out("SENT: a\nSENT: b\nSENT: c\nCONFIRMED: removed c\n"),
            err("rsync: \x1b[2Jno \x9b\u009broom\n"),
            out("receiving file list ... done\n"),
        ]
    )
    with scripted_daemon([Detector("1", minpause=QUIET)]) as daemon:
        daemon.wait_for_log("1: Removed file")
        seen = look()
        counts = seen["total"]
        assert (counts["files"], counts["lost"], counts["complaints"]) == (1, 2, 1)
        assert (counts["without_pipe"], counts["failed_handoffs"]) == (1, 0)
        assert seen["pipe"]["state"] == "absent" and seen["pipe"]["readers"] == []
        assert seen["last_file"] == "c"
        text = report()
        assert "lost 2!" in text and "no pipe 1!" in text
        assert "Last complaint rsync: \\033[2Jno " in text
        assert "\x1b" not in text and "\x9b" not in text and "\udc9b" not in text


def test_failed_handoffs_are_counted() -> None:
    scripted.add_listing(["a", "b"])
    FIFO.mkdir()  # opens for nobody who wants to write
    with scripted_daemon([Detector("1", minpause=QUIET)]) as daemon:
        daemon.wait_for_log("1: Removed file")
        seen = look()
        assert seen["total"]["failed_handoffs"] == seen["total"]["files"] == 2
        assert seen["pipe"]["state"] == "not_a_pipe"


def test_a_pipe_that_nobody_reads_is_seen() -> None:
    os.mkfifo(FIFO)
    scripted.add_listing(["a"])
    with scripted_daemon([Detector("1", minpause=QUIET)]), watching() as watcher:
        scripted.wait_for_calls("copy", 1)
        # The copy process may have ended: its report waits for a reader of the pipe.
        seen = watcher.wait_for(
            lambda now: bool(now["total"]["processes"] == 1 and now["pipe"]["open_blocked_seconds"]),
            "the copy process to wait for a reader",
        )
        assert seen["pipe"]["state"] == "no_reader"
        assert seen["total"]["files"] == 0
        with Consumer():
            watcher.wait_for(lambda now: bool(now["total"]["files"] == 1), "the file")


def test_start_options_and_a_changed_configuration_are_told() -> None:
    with scripted_daemon([Detector("1"), Detector("2")], "-d", "1:other:/srv/elsewhere"):
        seen = look()
        assert detector(seen, "1")["share"] == "rsync://root@127.0.0.1:49371/ramdisk/other/"
        assert detector(seen, "1")["target"] == "/srv/elsewhere/."
        assert not seen["configuration"]["changed_since_start"]

        write_configuration({"logfile": LOG_FILE}, [Detector("2"), Detector("3")])
        later = time.time() + 30
        os.utime(CONFIGURATION, (later, later))
        seen = look()
        assert seen["configuration"]["changed_since_start"]
        assert "detectorID 1" in seen["configuration"]["problem"]
        assert [each["id"] for each in seen["detectors"]] == ["2", "3"]
        assert "the configuration" in report() or "detectorID 1" in report()


@pytest.mark.parametrize("log", ["/dev/null", "/srv", str(FIFO), "/nowhere/skarn.log"])
def test_a_log_that_keeps_nothing_is_told(log: str) -> None:
    os.mkfifo(FIFO)
    write_raw_configuration(f"logfile {log}\ndetectorID 1\nremoteIP 127.0.0.1\ntarget /srv/1\n")
    seen = look()
    assert seen["log"]["coverage"] == "none" and seen["log"]["path"] == log
    assert log in seen["log"]["problem"] and "\n" not in seen["log"]["problem"]


def test_the_banner_of_a_long_log_is_found() -> None:
    """60 MB behind it; the program's memory stays small."""
    write_configuration(None, [Detector("1")])
    block = (
        "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n"
        + "rsync: some complaint about a file of which there are many\n" * 100
        + "Copied 3 files in the range of: a ... b\n++ RSYNC OUTPUT END ++++++++++++++++++++\n"
    )
    count = 10_000
    with LOG_FILE.open("w", encoding="ascii") as log:
        log.write(block)
        log.write("+" * 78 + "\n\n++ skarn 3.7.1 started\n++ on Sat Nov 21 11:59:28 2026\n\n")
        for _ in range(count):
            log.write(block)
    code = (
        "import resource, subprocess, sys\n"
        "subprocess.run(sys.argv[1:], check=True)\n"
        "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, file=sys.stderr)\n"
    )
    done = subprocess.run(
        ["/usr/bin/python3", "-c", code, SKARNCTL, "--daemon", DAEMON, "watch", "--json"],
        capture_output=True,
        text=True,
        timeout=LIMIT,
        check=True,
    )
    seen = json.loads(done.stdout)
    assert seen["total"]["files"] == 3 * count and seen["total"]["complaints"] == 100 * count
    if Daemon().sanitizer is None:
        assert int(done.stderr) < 30_000, "kilobytes at most"


def test_without_a_terminal_there_is_a_plain_report() -> None:
    write_configuration(None, [Detector("1")])
    done = run()
    assert done.returncode == 0 and done.stderr == ""
    assert done.stdout.startswith("DOWN") and "\n1 " in done.stdout


def test_another_configuration_file_can_be_shown() -> None:
    write_configuration(None, [Detector("1")])
    other = CONFIGURATION.with_name("skarn_orbelin_other.conf")
    write_configuration({"logfile": LOG_FILE}, [Detector("other")], other)
    done = run("--json", "--config", str(other))
    assert [each["id"] for each in json.loads(done.stdout)["detectors"]] == ["other"]


@pytest.mark.parametrize(
    "arguments",
    [
        ["--interval", "0.1", "--json"],
        ["--interval", "3601", "--json"],
        ["--interval", "-1", "--json"],
        ["--interval", "nan", "--json"],
        ["--interval", "1s", "--json"],
        ["--interval", "", "--json"],
        ["--interval"],
        ["--config"],
        ["--once", "--interval", "2"],
        ["--nothing"],
        ["\x1b[2J\n"],
    ],
)
def test_a_wrong_command_line_gets_one_line(arguments: list[str]) -> None:
    write_configuration(None, [Detector("1")])
    done = run(*arguments)
    assert done.returncode == 2 and done.stdout == ""
    assert done.stderr.startswith("skarnctl: ") and done.stderr.count("\n") == 1
    assert "\x1b" not in done.stderr


@pytest.mark.parametrize("arguments", [[], ["--once"], ["--json"], ["--json", "--interval", "1"]])
def test_without_any_configuration_there_is_nothing_to_show(arguments: list[str]) -> None:
    done = run(*arguments)
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.startswith("skarnctl: there is no configuration file")
    assert done.stderr.count("\n") == 1


def test_lines_end_quietly_when_their_reader_goes_away() -> None:
    write_configuration(None, [Detector("1")])
    watcher = subprocess.Popen(
        [SKARNCTL, "watch", "--json", "--interval", "600"],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    assert watcher.stdout is not None and watcher.stderr is not None
    assert json.loads(watcher.stdout.readline())["time"] > 0
    watcher.stdout.close()
    assert watcher.wait(LIMIT) == 0
    assert watcher.stderr.read() == b""
    watcher.stderr.close()


@pytest.mark.parametrize("arguments", [["--once"], ["--json"], ["--json", "--interval", "0.2"]])
def test_a_full_disk_is_told(arguments: list[str]) -> None:
    write_configuration(None, [Detector("1")])
    with open("/dev/full", "w", encoding="ascii") as full:
        done = subprocess.run(
            [SKARNCTL, "watch", *arguments],
            stdout=full,
            stderr=subprocess.PIPE,
            text=True,
            timeout=LIMIT,
        )
    assert done.returncode == 1
    assert done.stderr == "skarnctl: cannot write: No space left on device\n"


def test_another_user_is_told_what_it_cannot_see() -> None:
    scripted.add_listing(["a"])
    os.mkfifo(FIFO, 0o600)
    with scripted_daemon([Detector("1", minpause=QUIET)]), Consumer():
        with watching() as watcher:
            watcher.wait_for(lambda now: bool(now["total"]["files"] == 1), "the file")
        done = run("--once", user=65534)
        assert done.returncode == 0 and done.stderr == "", done
        assert "\nFiles 1 " in done.stdout, "everybody may read the log"
        assert "reader unknown: only root can see it" in done.stdout
