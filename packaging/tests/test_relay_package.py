"""skarn-relay on a fresh machine, as a new user would try it: one story, told in this order."""

from __future__ import annotations

import json
import os
import re
from collections.abc import Iterator
from pathlib import Path

import pytest

from machine import Machine, fresh_copy, wait_until

PIPE = "/run/vantrel_orbelin_files"


@pytest.fixture(scope="module")
def machine() -> Iterator[Machine]:
    """The machine of the whole story."""
    tree = Path(os.environ["PACKAGE_TREE"])
    root = tree.with_name("relay-machine")
    fresh_copy(tree, root)
    with Machine(root) as booted:
        yield booted


def status(machine: Machine) -> dict[str, int]:
    """What `skarn-relay status` says."""
    found: dict[str, int] = json.loads(machine.succeed("skarn-relay status --json"))
    return found


def test_installing_starts_nothing(machine: Machine) -> None:
    (package,) = (
        path.name
        for path in machine.path("/root/packages").glob("skarn-relay_*.deb")
        if "_later_" not in path.name
    )
    machine.succeed(
        "DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends "
        f"install /root/packages/{package}",
        timeout=300,
    )
    active = machine.run("systemctl is-active skarn-relay.socket skarn-relay.service").stdout
    assert active.split() == ["inactive"] * 2
    assert not machine.path(PIPE).exists()


def test_the_units_are_sound(machine: Machine) -> None:
    complaints = machine.run("systemd-analyze verify skarn-relay.service skarn-relay.socket").stdout
    assert [line for line in complaints.splitlines() if "Command 'man " not in line] == []
    text = machine.succeed("systemd-analyze security --offline=true skarn-relay.service")
    score = re.search(r"exposure level for \S+: ([0-9.]+)", text)
    assert score and float(score[1]) < 4, text


def test_the_socket_holds_the_pipe(machine: Machine) -> None:
    machine.succeed("systemctl enable --now skarn-relay.socket")
    assert machine.succeed(f"stat -c '%F %a' {PIPE}") == "fifo 600\n"
    # What is written starts the relay.
    machine.succeed(f"mkdir -p /data/1 && touch /data/1/a && echo /data/1/./a >{PIPE}")
    wait_until(lambda: machine.run("skarn-relay status").returncode == 0, "the relay runs")
    wait_until(lambda: status(machine)["last"] == 1, "the record is in the log")


def test_killed_and_stopped_it_loses_nothing(machine: Machine) -> None:
    machine.succeed(
        f"(for i in $(seq 500); do touch /data/1/f$i; echo /data/1/./f$i; sleep 0.002; done) >{PIPE} & "
        "for i in 1 2 3 4 5; do sleep 0.3; systemctl kill -s KILL skarn-relay; done; "
        "systemctl stop skarn-relay; wait; true"
    )
    machine.succeed("systemctl start skarn-relay")
    wait_until(lambda: status(machine)["last"] == 501, "all records are in the log")
    records = machine.succeed("skarn-relay records").splitlines()
    paths = [json.loads(line)["path"] for line in records]
    assert paths == ["/data/1/./a", *(f"/data/1/./f{i}" for i in range(1, 501))]


def test_removing_keeps_the_log(machine: Machine) -> None:
    machine.succeed("apt-get -q -y remove skarn-relay", timeout=300)
    assert machine.run("systemctl is-active skarn-relay.socket").stdout == "inactive\n"
    assert machine.path("/var/lib/skarn/relay/relay.db").is_file()
