"""What skarnctl says at night: each common fault, within five seconds, in one sentence with its
cause, in the view, in the metrics, and afterwards in the events.
"""

from __future__ import annotations

import json
import os
import re
import signal
import socket
import subprocess
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

from support import scripted
from support.bed import Bed
from support.consumer import Consumer
from support.control import begin, finish, pids_in_file, skarnctl
from support.daemon import (
    CONFIGURATION,
    FIFO,
    LOG_FILE,
    PASSWORD_FILE,
    Daemon,
    install_password_file,
    write_configuration,
    write_raw_configuration,
)
from support.dead_file_system import dead_file_system
from support.detector import frame_names
from support.rsync_server import PORT
from support.waiting import LIMIT, wait_until

FIGURES = Path("/srv/skarn.prom")
JOURNAL = Path("/var/log/skarn/events")
WITHIN = 5.0 if "SKARN_SLOW" not in os.environ else 30.0


@contextmanager
def observing() -> Iterator[None]:
    """The service that looks each second, writes the figures and notes the events."""
    FIGURES.unlink(missing_ok=True)
    JOURNAL.unlink(missing_ok=True)
    run = begin("metrics", "--write", str(FIGURES))
    try:
        wait_until(FIGURES.exists, "the first look")
        yield
        assert run.poll() is None, run.communicate()
    finally:
        run.terminate()
        ended = finish(run)
    assert (ended.status, ended.output, ended.errors) == (0, "", "")


def first_line(user: int | None = None) -> str:
    """What the plain report begins with; a verdict may take some lines."""
    result = skarnctl("watch", "--once", user=user)
    assert result.status == 0 and result.errors == "", result
    return re.sub(r"\n    ", " ", result.output).splitlines()[0]


def says(pattern: str) -> str:
    """Waits until the verdict matches; a single report looks for two seconds."""
    def matches() -> str | None:
        line = first_line()
        return line if re.search(pattern, line) else None

    begun = time.monotonic()
    found = wait_until(matches, lambda: f"{pattern!r} in: {first_line()}")
    assert found is not None
    # One report that began too early does not count against it.
    assert time.monotonic() - begun < 2 * WITHIN
    return found


def metric(sample: str) -> None:
    """Waits until the figures have this line."""
    wait_until(
        lambda: re.search(f"^{sample}$", FIGURES.read_text(encoding="utf-8"), re.MULTILINE),
        lambda: f"{sample}; there is: {FIGURES.read_text(encoding='utf-8')}",
    )


def event(pattern: str) -> None:
    """Waits until the events have a line with a time and this text."""
    stamped = r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  .*" + pattern
    wait_until(
        lambda: re.search(stamped, skarnctl("events").output, re.MULTILINE),
        lambda: f"{pattern}; there is: {skarnctl('events').output}",
    )


def checked() -> str:
    """What a check of the host finds in that time."""
    begun = time.monotonic()
    result = skarnctl("check")
    assert result.errors == "" and time.monotonic() - begun < WITHIN, result
    return result.output


def test_a_detector_that_refuses_is_named_with_its_reason_and_comes_back() -> None:
    with Bed(2) as bed:
        bed.start()
        with observing():
            bed.simulator.burst(frame_names(3))
            bed.wait_announced(3)
            metric('skarn_detector_state{detector="2",state="unreachable"} 0')
            bed.stations[1].server.kill()
            says(
                r"^NOT KEEPING UP: detector 2 \(127\.0\.0\.2\) can't be listed since "
                r"\d\d:\d\d: Connection refused$"
            )
            metric('skarn_detector_state{detector="2",state="unreachable"} 1')
            metric('skarn_detector_state{detector="1",state="unreachable"} 0')
            assert re.search(r'share of detector "2", .* can.t be listed: .*onnection refused', checked())
            event(r"detector 2 .* can't be listed since .*: Connection refused")
            bed.stations[1].server.start()
            says("^KEEPING UP")
            event(r"over after \d+ s: detector 2 ")


def test_a_detector_whose_listing_hangs_is_named() -> None:
    with Bed(2) as bed:
        bed.stations[1].server.kill()
        with socket.create_server(("127.0.0.2", PORT)), observing():
            bed.start()
            says(
                r"^NOT KEEPING UP: the listing of detector 2 \(127\.0\.0\.2\) has had no answer "
                r"for \d+ s"
            )
            metric('skarn_detector_state{detector="2",state="hanging"} 1')
            metric(r'skarn_no_answer_seconds{detector="2"} [\d.]+')
            event("the listing of detector 2 .* has had no answer")
            assert re.search(r'share of detector "2", .* can.t be listed: no answer within', checked())


def test_a_wrong_password_is_named() -> None:
    with Bed() as bed, observing():
        PASSWORD_FILE.write_text("another\n", encoding="ascii")
        bed.start()
        says(r"^NOT KEEPING UP: detector 1 \(127\.0\.0\.1\) can't be listed .*auth failed")
        metric('skarn_detector_state{detector="1",state="unreachable"} 1')
        event("auth failed")
        assert re.search(r'share of detector "1", .* can.t be listed: .*auth failed', checked())


def test_a_consumer_that_holds_the_pipe_and_does_not_read_is_named() -> None:
    with Bed() as bed, observing():
        bed.consumer.stop()
        reader = os.open(FIFO, os.O_RDWR)
        bed.start()
        # 64 KiB fit into the pipe.
        bed.simulator.burst([f"{number:04d}_{'x' * 180}" for number in range(500)])
        says(r"^NOT KEEPING UP: .* holds the pipe open and has read nothing for \d+ s")
        metric(r"skarn_pipe_write_blocked_seconds [1-9][\d.]*")
        event("holds the pipe open and has read nothing")
        assert f"holds the hand-off pipe {FIFO} open and does not read" in checked()
        bed.consumer.start()
        os.close(reader)
        says("^KEEPING UP")
        event(r"over after \d+ s: .* holds the pipe open and has read nothing")
        bed.finish()


def test_a_pipe_that_was_removed_while_nobody_read_it_is_named() -> None:
    with Bed() as bed, observing():
        bed.consumer.stop()
        bed.start()
        bed.simulator.burst(frame_names(3))
        says("^NOT KEEPING UP: nobody reads the pipe")
        FIFO.unlink()
        bed.consumer.start()
        says("^NOT KEEPING UP: a copy waits for a reader of a pipe that was removed")
        event("a pipe that was removed")
        assert "a copy waits for a reader of a pipe that was removed" in checked()
        bed.daemon.end(signal.SIGKILL)


@pytest.mark.parametrize(
    ("options", "sentence"),
    [
        ("size=2m", "the target of detector 1 is full: no space left on device"),
        ("size=64m,nr_inodes=30", "the target of detector 1 has no free inodes"),
    ],
)
def test_a_full_target_is_named(options: str, sentence: str) -> None:
    with Bed() as bed, observing():
        bed.target.mkdir(parents=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "none", str(bed.target)], check=True)
        bed.start()
        bed.simulator.burst(frame_names(60), 100_000)
        says("^NOT KEEPING UP: .*" + sentence)
        event(sentence)
        assert re.search(r'target of detector "1", .* lies on a file system (that is full|without free inodes)', checked())
        bed.daemon.end(signal.SIGKILL)
        subprocess.run(["umount", "--lazy", str(bed.target)], check=True)


def test_a_target_that_is_nearly_full_is_told() -> None:
    with Bed() as bed, observing():
        bed.target.mkdir(parents=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=120m", "none", str(bed.target)], check=True)
        bed.start()
        says("^KEEPING UP$")
        filler = bed.target / "filler"
        filler.write_bytes(bytes(118 * 1024 * 1024))
        sentence = r"the target of detector 1 is nearly full: 2\.\d MiB"
        says("^KEEPING UP, BUT: .*" + sentence)
        event(sentence)
        metric(r'skarn_target_free_bytes\{detector="1"\} 2\d{6}')
        filler.unlink()
        event("over after .*: the target of detector 1 is nearly full")
        bed.finish()
        subprocess.run(["umount", "--lazy", str(bed.target)], check=True)


def test_a_user_without_root_is_told_what_he_can_know() -> None:
    with Bed() as bed:
        bed.start()
        line = first_line(user=65534)
        pid = bed.daemon.pid
        assert re.match(
            rf"KEEPING UP, BUT: skarn seems to run: process {pid}, skarn, since .*; only root can "
            "be sure",
            line,
        ), line
        result = skarnctl("status", user=65534)
        assert result.status == 5 and f"seems to run: process {pid}" in result.output


def test_what_is_over_is_history() -> None:
    with Bed(settings={"logfile_max_size": "1K", "logfile_max_number": 1}) as bed:
        bed.start()
        for number in range(12):
            bed.simulator.write(f"file_{number}")
            bed.wait_announced(number + 1)
        assert first_line().partition(":")[0] == "KEEPING UP", "the banner is rotated away by now"
        bed.finish()


def test_a_daemon_that_died_is_told_with_its_time() -> None:
    with Bed() as bed, observing():
        bed.start()
        event(r"the daemon (started|runs) \(process")
        bed.daemon.end(signal.SIGKILL)
        event(r"the daemon ended \(process")
        ended = begin("events", "--ended", variables={"EXIT_CODE": "killed", "EXIT_STATUS": "PIPE"})
        assert finish(ended).status == 0
        event("the daemon ended by SIGPIPE, says systemd")
        bed.start()
        line = says("^KEEPING UP, BUT: the daemon died 1 time in the last 24 h")
        assert re.search(r"the last time at \d\d:\d\d by SIGPIPE$", line), line
        metric("skarn_daemon_deaths_last_day 1")


def test_a_stop_that_was_asked_for_is_no_death() -> None:
    with Bed() as bed, observing():
        bed.start()
        event(r"the daemon (started|runs) \(process")
        assert skarnctl("stop").status == 0
        event("the daemon is told to end")
        event(r"the daemon ended \(process")
        metric("skarn_daemon_deaths_last_day 0")


def test_two_daemons_are_told() -> None:
    with Bed() as bed:
        bed.start()
        subprocess.run([str(bed.daemon.binary)], check=True)
        line = says(r"^NOT KEEPING UP: another daemon runs beside it \(process \d+\)")
        assert "they spoil each other's work, stop ends them all" in skarnctl("status").output
        other = re.search(r"beside it \(process (\d+)\)", line)
        assert other is not None
        for pid in (int(other[1]), pids_in_file()[0]):
            os.kill(pid, signal.SIGKILL)


def test_a_configuration_that_is_changed_does_not_blind_a_running_look() -> None:
    with Bed() as bed, observing():
        bed.start()
        metric("skarn_up 1")
        metric("skarn_config_changed 0")
        write_configuration({"logfile": "/srv/elsewhere.log"}, [])
        os.utime("/etc/skarn_orbelin.conf", (time.time() + 30, time.time() + 30))
        metric("skarn_config_changed 1")
        bed.simulator.burst(frame_names(3))
        bed.wait_announced(3)
        metric('skarn_files_copied_total{detector="1"} 3')
        metric('skarn_log_coverage{coverage="none"} 0')


def test_a_file_system_that_does_not_answer_holds_up_nothing() -> None:
    """Anybody's process may claim to open a path on it; root's too."""
    with Bed() as bed:
        bed.start()
        with dead_file_system() as dead:
            hanging = subprocess.Popen(["/bin/cat", str(dead / "file")])
            begun = time.monotonic()
            assert first_line().startswith("KEEPING UP")
            assert time.monotonic() - begun < 2 * WITHIN
            hanging.kill()
        hanging.wait(LIMIT)


def test_a_log_and_a_target_that_do_not_answer_hold_up_nothing() -> None:
    with Bed() as bed:
        bed.start()
        bed.simulator.burst(frame_names(3))
        bed.wait_announced(3)
        with dead_file_system() as dead:
            # Another look is led there, not the daemon, which would stand still, too.
            other = Path("/srv/elsewhere.conf")
            text = CONFIGURATION.read_text(encoding="utf-8")
            text = re.sub(r"(?m)^(logfile|target).*$", rf"\1 {dead}/below", text)
            other.write_text(text, encoding="utf-8")
            begun = time.monotonic()
            report = skarnctl("watch", "--once", "--config", str(other))
            silent = f"the log {dead}/below can't be read: its file system does not answer"
            assert report.status == 0 and silent in re.sub(r"\n *", " ", report.output), report
            assert f"{dead}/below" in report.output
            figures = skarnctl("metrics", "--once", "--config", str(other))
            assert figures.status == 0 and 'skarn_log_coverage{coverage="none"} 1' in figures.output
            assert 'skarn_target_silent{detector="1"} 1' in figures.output, figures.output
            assert time.monotonic() - begun < 4 * WITHIN
        bed.finish()


def test_no_json_steers_a_terminal() -> None:
    """Not by an identifier, a path or a complaint with bytes that some terminals heed."""
    scripted.install()
    install_password_file()
    odd = b"a\xc2\x9b31m\x9b\x1b[2J\xff"
    LOG_FILE.parent.mkdir(parents=True, exist_ok=True)
    write_raw_configuration(
        b"logfile %s\nbad%s 1\ndetectorID %s\nremoteIP 127.0.0.1\nsource /\ntarget /srv/%s\n"
        % (bytes(LOG_FILE), odd, odd, odd)
    )
    with Consumer(), Daemon() as daemon:
        daemon.start("-d", os.fsdecode(odd + b":" + odd + b":/srv/" + odd))
        daemon.wait_for_log("++ Starting copy thread")
        for words in (["watch", "--json"], ["check", "--no-network", "--json"], ["status", "--json"]):
            ended = subprocess.run(
                [os.environ["SKARNCTL_BINARY"], *words], check=False, capture_output=True, timeout=LIMIT
            )
            assert b"31m" in ended.stdout and b"detector" in ended.stdout or words[0] == "status"
            assert json.loads(ended.stdout)
            assert re.fullmatch(rb"[\n -~]*", ended.stdout), ended.stdout
            assert ended.stderr == b""
