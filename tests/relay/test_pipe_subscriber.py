"""Programs that read a named pipe: the daemon's own lines, counted by what they have taken out."""

from __future__ import annotations

import fcntl
import os
import signal
import struct
import subprocess
import termios
from collections.abc import Iterator
from pathlib import Path

import pytest

from support.consumer import Consumer
from support.daemon import FIFO
from support.relay_process import Relay, announce, make_files
from support.waiting import wait_until

PIPE = Path("/run/old-consumer")
CONFIGURATION = f"""\
[[subscriber]]
name = "old"
type = "pipe"
path = "{PIPE}"
"""


@pytest.fixture
def relay() -> Iterator[Relay]:
    one = Relay(CONFIGURATION)
    one.start()
    yield one


def lag(relay: Relay, name: str = "old") -> int:
    found = [each["lag"] for each in relay.status()["subscribers"] if each["name"] == name]
    return int(found[0])


def take(descriptor: int, count: int) -> bytes:
    """So many bytes of a pipe, once they are there."""
    taken = b""
    while len(taken) < count:
        taken += os.read(descriptor, count - len(taken))
    return taken


def waiting_in(descriptor: int) -> int:
    """How many bytes of a pipe nobody has taken yet."""
    (count,) = struct.unpack("i", fcntl.ioctl(descriptor, termios.FIONREAD, bytes(4)))
    return int(count)


def test_the_lines_come_as_the_daemon_writes_them(relay: Relay) -> None:
    lines = [b"usershift: 1 2", b"/srv/t/./odd\xff\tname", *map(os.fsencode, make_files(300))]
    with Consumer(PIPE) as consumer:
        announce(*lines)
        consumer.wait_for(301)
        assert [os.fsencode(line) for line in consumer.lines()] == lines
        wait_until(lambda: lag(relay) == 0, "all to be acknowledged")


def test_only_what_was_taken_out_counts(relay: Relay) -> None:
    paths = make_files(10)
    size = len(paths[0]) + 1
    announce(*paths)
    relay.wait_for_last(10)
    descriptor = os.open(PIPE, os.O_RDONLY)
    try:
        take(descriptor, 3 * size + 1)
        wait_until(lambda: lag(relay) == 7, "three to be acknowledged")
    finally:
        os.close(descriptor)
    # The reader is gone; what it has not read waits for the next one.
    with Consumer(PIPE) as consumer:
        consumer.wait_for(6)
        wait_until(lambda: lag(relay) == 0, "the rest to be acknowledged")
        assert consumer.lines()[1:] == paths[4:]


def test_a_reader_that_hangs_stops_nobody(relay: Relay) -> None:
    paths = make_files(3000)
    other = relay.client.subscribe("other")
    announce(*paths)
    relay.wait_for_last(3000)
    assert len(other.fetch(limit=10000)) == 3000
    assert lag(relay) == 3000
    with Consumer(PIPE) as consumer:
        consumer.wait_for(3000)
        assert consumer.announced() == paths


def test_a_relay_that_is_killed_goes_on_in_the_middle_of_a_line(relay: Relay) -> None:
    paths = make_files(4000)
    reading = os.open(PIPE, os.O_RDONLY)  # keeps what is in it
    announce(*paths)
    relay.wait_for_last(4000)
    size = len(paths[0]) + 1
    begin = take(reading, 20 * size + 5)
    wait_until(lambda: waiting_in(reading) > 10 * size, "more to be written")
    relay.kill()
    begin += take(reading, 3 * size)
    relay.start()
    # Until it has seen what is in the pipe it can't know what was taken out, and sends it again.
    wait_until(lambda: lag(relay) == 4000 - 23, "what was taken out to be acknowledged")
    rest = take(reading, 4000 * size - len(begin))
    assert (begin + rest).decode().splitlines() == paths
    wait_until(lambda: lag(relay) == 0, "all to be acknowledged")
    os.set_blocking(reading, False)
    with pytest.raises(BlockingIOError):
        os.read(reading, 1)
    os.close(reading)


def test_killed_again_and_again_each_line_comes_whole(relay: Relay) -> None:
    paths = make_files(3000)
    got: list[str] = []
    with Consumer(PIPE, nap=0.01) as consumer:
        for part in range(0, 3000, 200):
            announce(*paths[part : part + 200])
            relay.kill()
            relay.start()
        wait_until(lambda: lag(relay) == 0 and relay.status()["last"] == 3000, "the end")
        got = consumer.announced()
    assert set(got) == set(paths)
    assert list(dict.fromkeys(got)) == paths, "in order, but for what came again"


def test_a_pipe_that_was_replaced_gets_what_its_reader_never_had(relay: Relay) -> None:
    paths = make_files(3)
    announce(*paths)
    wait_until(PIPE.exists, "the pipe")
    relay.wait_for_last(3)
    PIPE.unlink()
    wait_until(PIPE.exists, "a new pipe")
    with Consumer(PIPE) as consumer:
        consumer.wait_for(3)
        assert consumer.lines() == paths


def test_something_else_in_the_pipe_s_place_is_told_and_left_alone() -> None:
    PIPE.write_text("not mine", encoding="ascii")
    relay = Relay(CONFIGURATION)
    relay.start()
    (path,) = make_files(1)
    announce(path)
    wait_until(lambda: f"{PIPE} is no pipe" in relay.messages(), "the complaint")
    assert PIPE.read_text(encoding="ascii") == "not mine"
    PIPE.unlink()
    with Consumer(PIPE) as consumer:
        consumer.wait_for(1)
        assert consumer.lines() == [path]


def test_a_program_that_is_bound_to_the_daemon_s_path_gets_its_own_pipe_there(relay: Relay) -> None:
    """As BindPaths= in its unit does it."""
    (path,) = make_files(1)
    wait_until(PIPE.exists, "the pipe")
    reader = subprocess.Popen(
        ["unshare", "--mount", "/bin/sh", "-c"]
        + [f"mount --bind {PIPE} {FIFO} && exec head -n 1 {FIFO}"],
        stdout=subprocess.PIPE,
        text=True,
    )
    announce(path)
    output, _ = reader.communicate(timeout=30)
    assert output == path + "\n"
    wait_until(lambda: lag(relay) == 0, "it to be acknowledged")
    assert relay.process is not None
    relay.process.send_signal(signal.SIGTERM)
    assert relay.process.wait(30) == 0
