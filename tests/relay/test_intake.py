"""From the pipe into the log: every line once, whatever becomes of the relay in between."""

from __future__ import annotations

import os
import random
import signal
import subprocess
import threading
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

from support.daemon import FIFO, Detector, write_configuration
from support.processes import is_stopped
from support.relay_process import LOG, Relay, announce, make_files
from support.waiting import wait_until

HOOK = Path("/run/stop-after-commit")


@pytest.fixture
def relay() -> Iterator[Relay]:
    one = Relay()
    one.start()
    yield one


@pytest.fixture
def stopping() -> Relay:
    """A relay that stops between the commit and the taking out while the file HOOK is there."""
    one = Relay(binary="SKARN_RELAY_FOR_TESTS_BINARY")
    one.environment = {"SKARN_RELAY_STOP_AFTER_COMMIT": str(HOOK)}
    return one


def wait_until_stopped(relay: Relay) -> None:
    assert relay.process is not None
    pid = relay.process.pid
    wait_until(lambda: is_stopped(pid), "the relay to stop between commit and taking out")


def test_every_line_comes_into_the_log_in_order(relay: Relay) -> None:
    paths = make_files(500)
    announce("usershift: 1 2", *paths)
    relay.wait_for_last(501)
    records = relay.records(kind="file")
    assert [record.path for record in records] == paths
    assert [record.size for record in records] == [6] * 500
    assert relay.records(kind="usershift")[0].path == "usershift: 1 2"


def test_detectors_are_told_by_their_targets(relay: Relay) -> None:
    relay.stop()
    write_configuration(None, [Detector("7", target="/srv/t"), Detector("8", target="/srv/u")])
    relay.start()
    announce(*make_files(1), *make_files(1, "/srv/u"), "/elsewhere/x")
    relay.wait_for_last(3)
    assert [record.detector for record in relay.records()] == ["7", "8", None]


def test_any_bytes_come_through(relay: Relay) -> None:
    odd = bytes(each for each in range(1, 256) if each != 10)
    announce(b"/srv/t/./" + odd, b"", b"\0nothing", b"/srv/nul\0inside")
    relay.wait_for_last(4)
    assert os.fsencode(relay.paths()[0]) == b"/srv/t/./" + odd
    others = [os.fsencode(record.path) for record in relay.records(kind="other")]
    assert others == [b"", b"\0nothing", b"/srv/nul\0inside"]


def test_a_line_longer_than_the_pipe_s_atomic_size(relay: Relay) -> None:
    long = "/srv/t/./" + "/".join(["x" * 200] * 100)
    announce(long, "/srv/t/./after")
    relay.wait_for_last(2)
    assert relay.paths() == [long, "/srv/t/./after"]


def test_a_line_without_end_does_not_stop_the_pipe(relay: Relay) -> None:
    descriptor = os.open(FIFO, os.O_WRONLY)
    os.write(descriptor, b"z" * 100_000)
    relay.wait_for_last(1)
    os.write(descriptor, b"z\n/srv/t/./after\n")
    os.close(descriptor)
    relay.wait_for_last(3)
    others = relay.records(kind="other")
    assert "".join(record.path for record in others) == "z" * 100_001
    assert relay.paths() == ["/srv/t/./after"]


def test_half_a_line_waits_for_its_other_half(relay: Relay) -> None:
    descriptor = os.open(FIFO, os.O_WRONLY)
    os.write(descriptor, b"/srv/t/./whole\n/srv/t/./ha")
    relay.wait_for_last(1)
    time.sleep(0.1)
    assert relay.status()["bytes_waiting"] == 11
    os.write(descriptor, b"lf\n")
    os.close(descriptor)
    relay.wait_for_last(2)
    assert relay.paths() == ["/srv/t/./whole", "/srv/t/./half"]


def test_half_a_line_of_a_writer_that_died_spoils_no_other(relay: Relay) -> None:
    relay.stop()
    write_configuration(None, [Detector("7", target="/srv/t")])
    relay.start()
    descriptor = os.open(FIFO, os.O_WRONLY)
    os.write(descriptor, b"/srv/t/./begun-and-ne")
    os.close(descriptor)
    announce("/srv/t/./whole")
    relay.wait_for_last(2)
    assert relay.paths() == ["/srv/t/./whole"]
    assert [record.path for record in relay.records(kind="other")] == ["/srv/t/./begun-and-ne"]
    assert "/srv/t/./begun-and-ne" in relay.messages()


def test_the_same_file_again_is_a_repeat_and_a_new_one_of_the_name_is_not(relay: Relay) -> None:
    (path,) = make_files(1)
    announce(path, path)
    relay.wait_for_last(1)
    announce(path)
    wait_until(lambda: relay.status()["repeats"] == 2, "two repeats")
    assert relay.records()[0].fields["repeats"] == 2
    Path(path).unlink()
    announce(path)  # its consumer has moved it
    wait_until(lambda: relay.status()["repeats"] == 3, "a repeat of a file that is gone")
    Path(path).write_text("another", encoding="ascii")
    announce(path)
    relay.wait_for_last(2)
    assert relay.paths() == [path, path]


def test_no_link_below_the_target_is_followed(relay: Relay) -> None:
    (plain,) = make_files(1)
    Path("/srv/secret").mkdir()
    Path("/srv/secret/f").write_text("12345678", encoding="ascii")
    Path("/srv/t/out").symlink_to("/srv/secret")
    Path("/srv/t/last").symlink_to("/srv/secret/f")
    announce(plain, "/srv/t/./out/f", "/srv/t/./last", "/srv/t/./../secret/f")
    relay.wait_for_last(4)
    records = [record.fields for record in relay.records()]
    assert [record.get("link_free") for record in records] == [True, False, True, False]
    assert [record["type"] for record in records] == ["file", "unknown", "link", "unknown"]
    assert records[1].get("size") is None and records[3].get("size") is None


def test_killed_between_commit_and_taking_out_nothing_doubles(stopping: Relay) -> None:
    stopping.start()
    paths = make_files(50)
    HOOK.touch()
    announce("usershift: 1 2", *paths[:30])
    wait_until_stopped(stopping)
    announce(*paths[30:])
    stopping.kill()
    HOOK.unlink()
    stopping.start()
    stopping.wait_for_last(51)
    time.sleep(0.1)
    assert stopping.paths() == paths
    assert len(stopping.records(kind="usershift")) == 1
    assert stopping.status()["repeats"] == 0


def test_what_came_again_since_the_kill_is_not_taken_for_what_was_logged(stopping: Relay) -> None:
    """The very same line, for a new file of the old name, right where the logged one stood."""
    stopping.start()
    (path,) = make_files(1)
    HOOK.touch()
    announce(path)
    wait_until_stopped(stopping)
    stopping.kill()
    HOOK.unlink()
    reader = os.open(FIFO, os.O_RDONLY | os.O_NONBLOCK)
    assert os.read(reader, 1000) == os.fsencode(path) + b"\n"  # as if it had been taken out
    os.close(reader)
    Path(path).unlink()
    Path(path).write_text("a new file", encoding="ascii")
    announce(path)
    stopping.start()
    stopping.wait_for_last(2)
    assert stopping.paths() == [path, path]


def test_killed_at_random_every_line_is_there_once(relay: Relay) -> None:
    count, kills, seed = 6000, 25, random.randrange(2**32)
    rng = random.Random(seed)
    paths = make_files(count)

    def write() -> None:
        descriptor = os.open(FIFO, os.O_WRONLY)
        for path in paths:
            os.write(descriptor, os.fsencode(path) + b"\n")
            time.sleep(0.0001)
        os.close(descriptor)

    writer = threading.Thread(target=write, daemon=True)
    writer.start()
    for _ in range(kills):
        time.sleep(rng.random() * 0.06)
        relay.kill()
        relay.start()
    writer.join()
    relay.wait_for_last(count)
    assert relay.paths() == paths, f"seed {seed}"
    assert relay.status()["last"] == count


def test_a_second_relay_is_refused(relay: Relay) -> None:
    second = Relay()
    second.start(wait=False)
    assert second.process is not None
    assert second.process.wait(30) == 1
    assert f"another skarn-relay works in {LOG}" in relay.messages()
    assert relay.answers()


def test_no_writer_is_ended_by_a_relay_that_is_killed(relay: Relay) -> None:
    writer = subprocess.Popen(
        ["/bin/sh", "-c", f"exec 3>{FIFO}; while :; do echo /srv/t/./x >&3; sleep 0.01; done"]
    )
    relay.wait_for_last(1)
    relay.kill()
    time.sleep(0.1)
    relay.start()
    assert writer.poll() is None
    writer.send_signal(signal.SIGKILL)
    writer.wait()
