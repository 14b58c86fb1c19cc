"""A stock rsync that moves no byte any more is ended, and one that is kept waiting is not."""

from __future__ import annotations

import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

from confirming_rsync.program import (
    TARGET,
    Program,
    calls,
    journals,
    names,
    real_binary,
    run,
    script_rsync,
    scripted_binary,
)
from support import daemon, processes
from support.rsync_server import RsyncServer
from support.waiting import wait_until

# What the program that drives the scripted rsync was built with, in seconds.
LIMIT = 6

ENDED = f"rsync_orbelin: rsync has come to a standstill and is ended after {LIMIT} seconds"


def test_a_silent_rsync_is_ended_and_its_names_are_left_to_the_next_listing() -> None:
    names("a")
    TARGET.mkdir()
    (TARGET / "a").touch()
    script_rsync('out("SENT: a\\n")\ntime.sleep(100)', 'missing("/a")\nsys.exit(23)')
    result = run(scripted_binary())
    assert result.lines == ["SENT: a", ENDED]
    (journal,) = journals()
    assert journal.endswith("names\nn a\n")
    assert result.status == 128 + signal.SIGTERM
    assert LIMIT <= result.seconds < 60
    assert processes.process(int(calls()[0]["pid"])) is None


def test_one_that_does_not_end_is_killed() -> None:
    names("a")
    script_rsync("signal.signal(signal.SIGTERM, signal.SIG_IGN)\ntime.sleep(100)")
    result = run(scripted_binary())
    assert ENDED in result.lines
    assert result.status == 128 + signal.SIGKILL
    assert processes.process(int(calls()[0]["pid"])) is None


def test_work_that_is_not_told_is_a_sign_of_life() -> None:
    names("a")
    # A child of rsync moves the bytes, as its receiver does.
    script_rsync(f"""
if os.fork() == 0:
    end = time.monotonic() + 2 * {LIMIT}
    while time.monotonic() < end:
        open("/proc/self/stat").read()
        time.sleep(0.1)
    os._exit(0)
os.wait()
out("SENT: a\\n")
""")
    result = run(scripted_binary())
    assert result.status == 0 and result.sent == ["a"]
    assert ENDED not in result.lines


def test_one_that_waits_for_the_reader_is_let_be() -> None:
    names("a")
    script_rsync('out("x\\n" * 1000000)\nout("SENT: a\\n")')
    program = Program(scripted_binary())
    wait_until(lambda: len(calls()) == 1, "rsync's start")
    time.sleep(2 * LIMIT)
    result = program.finish()
    assert result.status == 0 and result.sent == ["a"]
    assert ENDED not in result.lines


@pytest.mark.parametrize(("created", "renamed"), [(10, 0), (9, 1), (0, 10)])
def test_ten_files_that_could_not_be_put_in_place_leave_little_to_wait_for(
    created: int, renamed: int
) -> None:
    """A target that goes away fails the file that is being renamed, and then the next ones."""
    complaints = [f'rsync: [receiver] mkstemp "/x/.{i}.R4" failed: (2)' for i in range(created)]
    complaints += [f'rsync: [receiver] rename "/x/.{i}.R4" -> "{i}": (2)' for i in range(renamed)]
    names("a")
    script_rsync("\n".join([f"err({line!r} + '\\n')" for line in complaints] + ["time.sleep(100)"]))
    result = run(scripted_binary())
    assert ENDED.replace(f"{LIMIT} seconds", "2 seconds") in result.lines


@pytest.mark.parametrize("size", [20, 200_000])
def test_files_that_cannot_be_created_do_not_hold_the_rest_for_ever(size: int) -> None:
    """Stock rsync then waits for ever, once some of them are under way."""
    share = Path("/srv/share")
    share.mkdir()
    listed = [f"f{index:03}" for index in range(120)]
    for name in listed:
        (share / name).write_bytes(os.urandom(size))
    names(*listed)
    daemon.install_password_file()
    TARGET.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64m", "tmpfs", TARGET], check=True)
    try:
        subprocess.run(["mount", "-o", "remount,ro", TARGET], check=True)
        with RsyncServer("127.0.0.1", share, Path("/srv/state"), max_verbosity=2):
            broken = run(real_binary())
            assert broken.confirmed == []
            assert any("mkstemp" in line for line in broken.lines)
            assert sorted(path.name for path in share.iterdir()) == listed
            subprocess.run(["mount", "-o", "remount,rw", TARGET], check=True)
            assert sorted(run(real_binary()).confirmed) == listed
    finally:
        subprocess.run(["umount", TARGET], check=True)
    assert list(share.iterdir()) == []
