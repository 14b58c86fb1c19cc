"""The commands of skarn-relay, and every mistake in its configuration by its line."""

from __future__ import annotations

import json
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from support.relay_process import CONFIGURATION, Relay, announce, make_files
from support.waiting import wait_until


@pytest.fixture
def relay() -> Iterator[Relay]:
    one = Relay()
    one.start()
    yield one


def lines(relay: Relay, *words: str) -> list[str]:
    done = relay.command(*words)
    assert done.returncode == 0, done.stderr
    return done.stdout.splitlines()


def test_status(relay: Relay) -> None:
    relay.client.subscribe("me")
    announce(*make_files(2))
    relay.wait_for_last(2)
    text = lines(relay, "status")
    assert text[0] == "taking records from /var/run/vantrel_orbelin_files"
    assert text[1] == "2 records and 0 repeats since the start, 0 bytes wait in the pipe"
    assert text[3].startswith("me (http): 2 records behind, the oldest ")
    assert json.loads("\n".join(lines(relay, "status", "--json")))["last"] == 2


def test_records(relay: Relay) -> None:
    paths = make_files(3)
    announce("usershift: 1 2", *paths)
    relay.wait_for_last(4)
    assert [json.loads(line)["path"] for line in lines(relay, "records")] == paths
    assert [json.loads(line)["seq"] for line in lines(relay, "records", "--since", "4")] == [4]
    found = lines(relay, "records", "--path", "*f00001", "--path", "*f00002")
    assert [json.loads(line)["seq"] for line in found] == [3, 4]
    assert len(lines(relay, "records", "--kind", "usershift")) == 1
    assert relay.command("records", "--since", "soon").returncode == 1


def test_following(relay: Relay) -> None:
    paths = make_files(2)
    announce(paths[0])
    relay.wait_for_last(1)
    follower = subprocess.Popen(
        [relay._binary, "records", "--follow"], stdout=subprocess.PIPE, text=True
    )
    assert follower.stdout is not None
    assert json.loads(follower.stdout.readline())["path"] == paths[0]
    announce(paths[1])
    assert json.loads(follower.stdout.readline())["path"] == paths[1]
    follower.kill()
    follower.wait()


def test_subscribers(relay: Relay) -> None:
    announce(*make_files(5))
    relay.wait_for_last(5)
    assert lines(relay, "subscribers", "add", "me", "--start", "3") == ['{"acknowledged":2}']
    assert lines(relay, "subscribers", "reset", "me", "--start", "now") == ['{"acknowledged":5}']
    lines(relay, "subscribers", "remove", "me")
    assert relay.status()["subscribers"] == []
    done = relay.command("subscribers", "remove", "me")
    assert done.returncode == 1 and done.stderr == "skarn-relay: there is no subscriber me\n"


def test_one_that_is_configured_is_removed_there_first(relay: Relay) -> None:
    relay.stop()
    relay.configuration = '[[subscriber]]\nname = "fixed"\ntype = "http"\n'
    relay.start()
    done = relay.command("subscribers", "remove", "fixed")
    assert done.returncode == 1 and "take it out there first" in done.stderr
    relay.stop()
    relay.configuration = ""
    relay.start()
    lines(relay, "subscribers", "remove", "fixed")


def test_dead_letters(relay: Relay) -> None:
    relay.stop()
    relay.configuration = """\
[[subscriber]]
name = "run"
type = "command"
command = ["/bin/false"]
attempts = 1
"""
    relay.start()
    announce(*make_files(3))
    wait_until(lambda: relay.status()["subscribers"][0]["dead_letters"] == 3, "dead letters")
    assert [json.loads(line)["seq"] for line in lines(relay, "dead-letters", "run")] == [1, 2, 3]
    assert lines(relay, "dead-letters", "run", "--drop", "2") == ['{"count":1}']
    assert lines(relay, "dead-letters", "run", "--retry", "all") == ['{"count":2}']
    assert lines(relay, "dead-letters", "run", "--drop", "all") == ['{"count":2}']
    assert relay.command("dead-letters", "none").returncode == 1


def test_without_a_relay_that_is_said() -> None:
    done = Relay().command("status")
    assert done.returncode == 1
    assert "no relay answers at /run/skarn-relay/socket" in done.stderr


def test_bad_usage() -> None:
    for line in ("", "nothing", "status --nothing", "subscribers"):
        assert Relay().command(*line.split()).returncode == 2


MISTAKES = """\
[pipe]
path = "relative"
mode = "0999"
size = "1"
colour = "red"
[log]
keep = "soon"
keep_size = true
[http]
group = "no-such-group"
listen = "0.0.0.0:9752"
[[subscriber]]
name = "bad name"
type = "carrier pigeon"
[[subscriber]]
name = "one"
type = "pipe"
kinds = ["frame"]
[[subscriber]]
name = "one"
type = "command"
command = ["relative"]
start = "soon"
batch = 0
user = "no-such-user"
[others]
"""
EXPECTED = [2, 3, 4, 5, 7, 8, 10, 11, 13, 14, 15, 18, 20, 22, 23, 24, 25, 26]


def test_every_mistake_is_named_with_its_line() -> None:
    CONFIGURATION.write_text(MISTAKES, encoding="ascii")
    for words in (["check", str(CONFIGURATION)], ["run", "--config", str(CONFIGURATION)]):
        done = Relay().command(*words)
        assert done.returncode != 0
        found = done.stderr.splitlines()
        assert all(line.startswith(f"{CONFIGURATION}:") for line in found)
        assert [int(line.split(":")[1]) for line in found] == EXPECTED, done.stderr


def test_a_file_that_is_no_toml() -> None:
    CONFIGURATION.write_text("[pipe]\npath = \n", encoding="ascii")
    done = Relay().command("check", str(CONFIGURATION))
    assert done.returncode == 1 and done.stderr.startswith(f"{CONFIGURATION}:2: ")
    done = Relay().command("check", "/run/none")
    assert done.returncode == 1 and "cannot be read: No such file or directory" in done.stderr


def test_a_file_without_mistakes() -> None:
    CONFIGURATION.write_text('[[subscriber]]\nname = "a"\ntype = "http"\n', encoding="ascii")
    done = Relay().command("check", str(CONFIGURATION))
    assert (done.returncode, done.stdout) == (0, "no mistakes; 1 subscribers\n")
    assert not Path("/var/lib/skarn/relay").exists()
