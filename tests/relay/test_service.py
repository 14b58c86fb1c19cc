"""What a service manager and the relay tell each other: the passed pipe, readiness, signs of life."""

from __future__ import annotations

import os
import re
import shutil
import signal
import socket
import subprocess
from pathlib import Path

import pytest

from support.daemon import FIFO
from support.relay_process import Relay, announce, make_files
from support.waiting import LIMIT, wait_until

NOTIFY = "/run/notify"
PASSED = Path("/run/passed")
UNITS = Path(os.environ["SKARN_DOCS"]).parent / "packaging/systemd"


def start_with_passed_pipe(relay: Relay) -> None:
    """As systemd starts it: the pipe as descriptor 3, and its variables."""
    script = f'export LISTEN_PID=$$ LISTEN_FDS=1; exec "$0" run --config /run/none.toml 3<>{PASSED}'
    Path("/run/none.toml").touch()
    relay.process = subprocess.Popen(
        ["/bin/sh", "-c", script, os.environ["SKARN_RELAY_BINARY"]], env=relay.whole_environment()
    )
    wait_until(relay.answers, "the relay to answer")


def test_the_passed_pipe_is_used_and_outlives_the_relay() -> None:
    os.mkfifo(PASSED)
    held = os.open(PASSED, os.O_RDWR | os.O_NONBLOCK)
    relay = Relay()
    start_with_passed_pipe(relay)
    paths = make_files(3)
    announce(paths[0], fifo=PASSED)
    relay.wait_for_last(1)
    relay.kill()
    announce(*paths[1:], fifo=PASSED)
    start_with_passed_pipe(relay)
    relay.wait_for_last(3)
    assert relay.paths() == paths
    os.close(held)


def test_it_says_when_it_is_up_and_that_it_lives() -> None:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(NOTIFY)
        manager.settimeout(LIMIT)
        relay = Relay()
        relay.environment = {"NOTIFY_SOCKET": NOTIFY}
        relay.start(wait=False)
        assert manager.recv(100) == b"READY=1"
        assert relay.answers(), "it is up when it says so"
        assert manager.recv(100) == b"WATCHDOG=1"
        assert relay.process is not None
        relay.process.send_signal(signal.SIGTERM)
        while (told := manager.recv(100)) == b"WATCHDOG=1":
            pass
        assert told == b"STOPPING=1"
        assert relay.process.wait(LIMIT) == 0


def test_a_relay_that_can_not_start_says_why_and_is_not_ready() -> None:
    os.unlink(FIFO)
    FIFO.write_text("", encoding="ascii")
    relay = Relay()
    relay.start(wait=False)
    assert relay.process is not None and relay.process.wait(LIMIT) == 1
    assert f"{FIFO} is no pipe" in relay.messages()


def test_the_socket_unit_makes_the_daemon_s_pipe() -> None:
    text = (UNITS / "skarn-relay.socket").read_text(encoding="utf-8")
    (pipe,) = re.findall(r"^ListenFIFO=(.*)$", text, re.MULTILINE)
    assert os.path.realpath(FIFO.parent) + "/" + FIFO.name == pipe
    assert re.search(r"^SocketMode=0600$", text, re.MULTILINE)


def test_the_units_are_sound() -> None:
    if not shutil.which("systemd-analyze"):
        pytest.exit("the program 'systemd-analyze' is missing", 77)
    folder = Path("/run/units")
    folder.mkdir()
    service = (UNITS / "skarn-relay.service.in").read_text(encoding="utf-8")
    program = folder / "program"  # a blank in the way to it would part it in two
    program.symlink_to(os.environ["SKARN_RELAY_BINARY"])
    service = service.replace("@CMAKE_INSTALL_FULL_SBINDIR@/skarn-relay", str(program))
    (folder / "skarn-relay.service").write_text(service, encoding="utf-8")
    shutil.copy(UNITS / "skarn-relay.socket", folder)
    done = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", folder / "skarn-relay.service", folder / "skarn-relay.socket"],
        capture_output=True,
        text=True,
        check=False,
    )
    own = [line for line in done.stderr.splitlines() if "skarn-relay" in line]
    assert own == [], own
