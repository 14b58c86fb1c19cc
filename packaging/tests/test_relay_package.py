"""skarn-relay on a fresh machine, as a new user would try it: one story, told in this order."""

from __future__ import annotations

import json
import os
import re
from collections.abc import Iterator
from pathlib import Path

import pytest

from machine import (
    CONFIGURATION,
    Machine,
    fresh_copy,
    install,
    start_detector,
    wait_until,
    write_files,
)

PIPE = "/run/vantrel_orbelin_files"
FILES = 2000  # of one drain
SUBSCRIBERS = ("pipe", "command", "curl")
RELAY = """\
[[subscriber]]
name = "pipe"
type = "pipe"
path = "/run/subscriber"

[[subscriber]]
name = "command"
type = "command"
command = ["/root/program"]
input = "nul"
batch = 100
"""
BROKERS = """\
[[subscriber]]
name = "facility"
type = "amqp"
broker = "amqps://mq.example.org/beamline"
exchange = "skarn"

[[subscriber]]
name = "stream"
type = "kafka"
broker = "k1.example.org:9093"
topic = "files"
options = { "security.protocol" = "ssl" }
"""
# Keeps the paths that it is given; what one that was killed began stands for itself.
PROGRAM = "#!/bin/sh\nprintf '\\0' >>/root/by-command\nexec /root/keeper >>/root/by-command\n"
READER = "exec 3<>/run/subscriber; exec cat <&3 >>/root/by-pipe"
# Subscribes with curl: acknowledges what it has written down, and goes on for ever.
CURL = """\
relay() { curl -sS --fail --max-time 20 --unix-socket /run/skarn-relay/socket "$@"; }
until relay -X PUT 'http://relay/v1/subscribers/curl?start=oldest'; do sleep 0.1; done
while :; do
    relay 'http://relay/v1/subscribers/curl/records?wait=5&limit=100' >/root/page || { sleep 0.1; continue; }
    last=$(sed -n '$s/.*"seq":\\([0-9]*\\).*/\\1/p' /root/page)
    [ -n "$last" ] || continue
    cat /root/page >>/root/by-curl
    relay -X POST "http://relay/v1/subscribers/curl/ack?seq=$last" >/dev/null || true
done
"""


@pytest.fixture(scope="module")
def machine() -> Iterator[Machine]:
    """The machine of the whole story."""
    tree = Path(os.environ["PACKAGE_TREE"])
    root = tree.with_name("relay-machine")
    fresh_copy(tree, root)
    with Machine(root) as booted:
        yield booted


def last_record(machine: Machine) -> int:
    """The number of the last record, as `skarn-relay status` says."""
    return int(json.loads(machine.succeed("skarn-relay status --json"))["last"])


def in_the_log(machine: Machine) -> list[str]:
    """The paths of all files of the log."""
    records = map(json.loads, machine.succeed("skarn-relay records").splitlines())
    return [record["path"] for record in records if record["kind"] == "file"]


def kept_by(machine: Machine, subscriber: str) -> list[str]:
    """The files that a subscriber has got, each where it came first."""
    path = machine.path(f"/root/by-{subscriber}")
    text = path.read_text(encoding="utf-8") if path.exists() else ""
    if subscriber == "curl":
        # The last line may just be being written.
        found = [json.loads(line)["path"] for line in text.splitlines(True) if line.endswith("\n")]
    else:
        found = [part for part in re.split("[\0\n]", text) if part.startswith("/")]
    return list(dict.fromkeys(found))


def check_all_have(machine: Machine, names: set[str]) -> None:
    """Waits until every subscriber has all these files: they are in the log once, and come to each
    in its order.
    """
    for each in SUBSCRIBERS:
        wait_until(lambda: names <= set(kept_by(machine, each)), f"{each} has every file", 120)
    logged = in_the_log(machine)
    assert sorted(logged) == sorted(names)
    for each in SUBSCRIBERS:
        assert kept_by(machine, each) == logged, each


def test_installing_starts_nothing(machine: Machine) -> None:
    install(machine, "skarn", "skarn-confirming-rsync", "skarn-relay")
    units = "skarn-relay.socket skarn-relay.service"
    assert machine.run(f"systemctl is-active {units}").stdout.split() == ["inactive"] * 2
    assert machine.run(f"systemctl is-enabled {units}").stdout.split() == ["disabled"] * 2
    assert not machine.path(PIPE).exists()


def test_the_units_are_sound(machine: Machine) -> None:
    complaints = machine.run("systemd-analyze verify skarn-relay.service skarn-relay.socket").stdout
    assert [line for line in complaints.splitlines() if "Command 'man " not in line] == []
    text = machine.succeed("systemd-analyze security --offline=true skarn-relay.service")
    score = re.search(r"exposure level for \S+: ([0-9.]+)", text)
    assert score and float(score[1]) < 4, text


def test_it_comes_with_what_message_brokers_need(machine: Machine) -> None:
    machine.write("/root/brokers.toml", BROKERS)
    machine.succeed("skarn-relay check /root/brokers.toml")
    machine.write("/root/brokers.toml", BROKERS.replace('"ssl"', '"no such"'))
    refused = machine.run("skarn-relay check /root/brokers.toml")
    assert refused.returncode != 0
    assert "/root/brokers.toml:12: " in refused.stdout, "Kafka's library knows its options"


def test_the_socket_holds_the_pipe(machine: Machine) -> None:
    machine.write("/etc/skarn/relay.toml", RELAY)
    machine.write("/root/program", PROGRAM, 0o755)
    machine.succeed("cp /bin/cat /root/keeper")  # under a name of its own
    machine.succeed("skarn-relay check")
    machine.succeed("systemctl enable --now skarn-relay.socket")
    assert machine.succeed(f"stat -c '%F %a' {PIPE}") == "fifo 600\n"
    assert machine.main_process("skarn-relay.service") == 0


def test_the_daemon_s_first_line_starts_the_relay(machine: Machine) -> None:
    machine.write("/etc/skarn_orbelin.conf", CONFIGURATION)
    machine.write("/usr/local/orbelin/etc/rsyncd.secrets_remote", "of this machine only\n", 0o600)
    start_detector(machine)
    machine.succeed("skarnctl check")
    seen = json.loads(machine.succeed("skarnctl watch --json"))
    assert (seen["pipe"]["state"], seen["relay"]) == ("held", None)
    machine.succeed("systemctl start skarn")
    wait_until(lambda: machine.run("skarn-relay status").returncode == 0, "the relay runs")
    wait_until(lambda: last_record(machine) == 1, "the daemon's first line is in the log")
    seen = json.loads(machine.succeed("skarnctl watch --json"))
    assert seen["pipe"]["state"] == "read" and "skarn-relay" in seen["pipe"]["readers"][0]
    assert seen["relay"]["subscribers"] and seen["relay"]["problem"] is None


def test_whoever_is_killed_in_a_drain_every_subscriber_has_every_file(machine: Machine) -> None:
    machine.start("by-pipe", READER)
    machine.start("by-curl", CURL)
    # All at once, so that the deaths fall into the drain.
    names = write_files(machine, "run1", FILES, 500, at_once=True)
    for _ in range(4):
        for victim in ("skarn-relay", "keeper", "curl"):
            found = f"$(pidof -s {victim})"
            # One that does not run at this moment will.
            machine.succeed(f"for i in $(seq 100); do kill -KILL {found} && break; sleep 0.02; done")
    machine.succeed("systemctl kill --signal=KILL skarn")  # and systemd starts it again
    check_all_have(machine, names)


def test_a_pipe_s_reader_that_was_away_misses_nothing(machine: Machine) -> None:
    # What it has taken out of the pipe is its own, so it dies when it has written all down.
    before = set(in_the_log(machine))
    machine.succeed("systemctl kill --kill-whom=all --signal=KILL by-pipe")
    names = write_files(machine, "run2", FILES, 500, at_once=True)
    wait_until(lambda: names <= set(kept_by(machine, "command")), "the others go on", 120)
    assert not names & set(kept_by(machine, "pipe"))
    machine.start("by-pipe-again", READER)
    check_all_have(machine, before | names)


def test_an_upgrade_lets_the_relay_run(machine: Machine) -> None:
    before = machine.main_process("skarn-relay")
    install(machine, "skarn-relay", later=True)
    assert machine.succeed("dpkg-query -W -f '${Version}' skarn-relay").endswith("+later")
    assert machine.main_process("skarn-relay") == before
    machine.succeed("systemctl restart skarn-relay")
    assert machine.main_process("skarn-relay") != before
    names = write_files(machine, "run3", 50, 500)
    wait_until(lambda: names <= set(kept_by(machine, "curl")), "the new one goes on")


def test_removing_keeps_the_log_and_purging_does_not(machine: Machine) -> None:
    machine.succeed("systemctl stop skarn")
    machine.succeed("apt-get -q -y remove skarn-relay", timeout=300)
    units = "skarn-relay.socket skarn-relay.service"
    assert machine.run(f"systemctl is-active {units}").stdout.split() == ["inactive"] * 2
    assert machine.path("/var/lib/skarn/relay/relay.db").is_file()
    machine.succeed("apt-get -q -y purge skarn-relay skarn-confirming-rsync", timeout=300)
    assert not machine.path("/var/lib/skarn").exists()
    assert machine.path("/etc/skarn/relay.toml").is_file()
    assert machine.path("/data/detector1/run1/f1.dat").is_file()
