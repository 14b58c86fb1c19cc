"""Runs from outside: when they end, what is missing of them, and what is told of it to whom."""

from __future__ import annotations

import hashlib
import json
import os
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from support.relay_process import Relay, announce
from support.waiting import wait_until

RUNS = """
[runs]
pattern = '/(?P<run>scan[0-9]+)/img_(?P<index>[0-9]+)$'
settle = 1
"""


@pytest.fixture
def relay() -> Iterator[Relay]:
    one = Relay(RUNS)
    one.start()
    yield one


def make(run: str, indices: list[int], size: int = 10) -> list[str]:
    """Files of a run, and their paths as the daemon announces them."""
    folder = Path("/srv/t", run)
    folder.mkdir(parents=True, exist_ok=True)
    for index in indices:
        (folder / f"img_{index:06d}").write_bytes(b"x" * size)
    return [f"/srv/t/./{run}/img_{index:06d}" for index in indices]


def told(relay: Relay) -> list[dict[str, Any]]:
    """The records of runs, in order."""
    lines = [record.path for record in relay.records(kind="run")]
    assert all(line.startswith("run: ") for line in lines)
    return [json.loads(line.removeprefix("run: ")) for line in lines]


def shown(relay: Relay, run: str) -> dict[str, Any]:
    """What the relay says of one run."""
    done = relay.command("runs", run)
    assert done.returncode == 0, done.stderr
    answer: dict[str, Any] = json.loads(done.stdout)
    return answer


def test_a_run_of_thousands_of_which_three_are_missing(relay: Relay) -> None:
    withheld = [17, 2500, 5000]
    announce(*make("scan1", [index for index in range(1, 5001) if index not in withheld]))
    relay.wait_for_last(4997)
    ended = relay.command("run", "end", "scan1", "--expect", "5000")
    assert ended.returncode == 0, ended.stderr
    (record,) = told(relay)
    assert record["event"] == "ended" and record["by"] == "a command"
    assert record["complete"] is False and record["files"] == 4997 and record["bytes"] == 49970
    assert [(span["first"], span["last"]) for span in record["missing"]] == [
        (index, index) for index in withheld]
    assert relay.records(kind="run")[0].seq > max(each.seq for each in relay.records(kind="file"))
    waited = relay.command("wait", "scan1", "--timeout", "1")
    assert waited.returncode == 3 and json.loads(waited.stdout)["missing_count"] == 3
    announce(*make("scan1", withheld))
    wait_until(lambda: shown(relay, "scan1")["complete"] is True, lambda: str(shown(relay, "scan1")))
    assert [each["event"] for each in told(relay)] == ["ended", "reopened", "ended"]
    assert told(relay)[-1]["why"] == "all 5000 files"
    assert relay.command("wait", "scan1").returncode == 0


def test_all_subscribers_are_told(relay: Relay) -> None:
    relay.stop()
    relay.configuration = RUNS + """
[[subscriber]]
name = "pipe"
type = "pipe"
path = "/run/lines"
[[subscriber]]
name = "command"
type = "command"
command = ["/bin/sh", "-c", "cat >> /tmp/told"]
input = "json"
"""
    relay.start()
    web = relay.client.subscribe("web")
    announce(*make("scan1", [1, 2]))
    relay.wait_for_last(2)
    assert relay.command("run", "end", "scan1").returncode == 0
    assert [record.kind for record in web.fetch(wait=10)] == ["file", "file", "run"]
    with open("/run/lines", "rb", buffering=0) as pipe:
        lines = b""
        while lines.count(b"\n") < 3:
            lines += pipe.read(65536)
    assert lines.splitlines()[2].startswith(b'run: {"event":"ended","run":"scan1"')
    wait_until(lambda: Path("/tmp/told").exists() and "scan1" in Path("/tmp/told").read_text()
               and '"kind":"run"' in Path("/tmp/told").read_text(), lambda: relay.messages())


def test_what_a_script_that_waits_is_told(relay: Relay) -> None:
    assert relay.command("wait", "scan1", "--timeout", "0.2").returncode == 4
    announce(*make("scan1", [1, 2]))
    assert relay.command("wait", "scan1", "--timeout", "1").returncode == 4
    assert relay.command("wait", "scan1", "--expect", "2", "--timeout", "20").returncode == 0
    waiting = subprocess.Popen(
        [os.environ["SKARN_RELAY_BINARY"], "wait", "scan1"], stdout=subprocess.PIPE)
    time.sleep(0.5)
    assert waiting.poll() is None
    relay.command("run", "end", "scan1")
    assert waiting.wait(20) == 0
    assert relay.command("run", "end", "scan9").returncode == 1
    assert "no file of a run" in relay.command("run", "end", "scan9").stderr
    assert relay.command("run", "end", "scan9", "--expect", "1").returncode == 0
    assert relay.command("wait", "scan9").returncode == 3
    assert relay.command("wait").returncode == 2


def test_nobody_knows_whether_a_run_without_indices_is_complete(relay: Relay) -> None:
    relay.stop()
    relay.configuration = "[runs]\npattern = '/(?P<run>scan[0-9]+)/'\nend_quiet = 1\n"
    relay.start()
    announce(*make("scan1", [1, 2]))
    assert relay.command("wait", "scan1", "--timeout", "20").returncode == 5
    (record,) = told(relay)
    assert record["by"] == "quiet" and record["complete"] is None


def test_a_sentinel_and_the_next_run_end_a_run(relay: Relay) -> None:
    relay.stop()
    relay.configuration = RUNS + "end_sentinel = '/(?P<run>scan[0-9]+)/DONE$'\nend_next = true\n"
    relay.start()
    (first,) = make("scan1", [1])
    announce(first)
    Path("/srv/t/scan1/DONE").touch()
    announce("/srv/t/./scan1/DONE", *make("scan1", [2]))
    assert relay.command("wait", "scan1", "--timeout", "20").returncode == 0
    announce(*make("scan2", [1, 2]))
    relay.wait_for_last(6)
    announce(*make("scan3", [1]))
    assert relay.command("wait", "scan2", "--timeout", "20").returncode == 0
    assert [(each["run"], each["by"]) for each in told(relay)] == [
        ("scan1", "a sentinel file"), ("scan2", "the next run")]
    listed = relay.command("runs").stdout.splitlines()
    assert [line.split(":")[0] for line in listed] == ["scan3", "scan2", "scan1"]


@pytest.mark.parametrize("method", ["xxh3", "sha256"])
def test_a_manifest_has_every_file_with_its_digest(relay: Relay, method: str) -> None:
    relay.stop()
    relay.configuration = RUNS + f'checksum = "{method}"\nchecksum_rate = "100K"\n'
    relay.start()
    announce(*make("scan1", [1, 2, 3], size=40_000))
    relay.wait_for_last(3)  # delivered, before its digests are there
    relay.command("run", "end", "scan1")
    assert relay.command("manifest", "scan1", "--timeout", "0").returncode == 4
    done = relay.command("manifest", "scan1")
    assert done.returncode == 0, done.stderr
    lines = [json.loads(line) for line in done.stdout.splitlines()]
    assert [line["path"] for line in lines] == [f"/srv/t/./scan1/img_{n:06d}" for n in (1, 2, 3)]
    assert all(line["size"] == 40_000 and line["index"] == n for n, line in enumerate(lines, 1))
    if method == "sha256":
        expected = hashlib.sha256(b"x" * 40_000).hexdigest()
    else:
        tool = subprocess.run(["xxh128sum", "/srv/t/scan1/img_000001"], capture_output=True, text=True, check=True)
        expected = tool.stdout.split()[0]
    assert {line["digest"] for line in lines} == {f"{method}:{expected}"}


def test_nothing_is_counted_twice_however_often_the_relay_is_killed(relay: Relay) -> None:
    paths = make("scan1", list(range(1, 2001)))
    for begin in range(0, 2000, 100):
        announce(*paths[begin : begin + 100])
        relay.kill()
        relay.start()
    relay.wait_for_last(2000)
    assert relay.command("run", "end", "scan1", "--expect", "2000").returncode == 0
    (record,) = told(relay)
    assert record["complete"] is True and record["files"] == 2000 and record["bytes"] == 20_000


def test_names_that_belong_to_no_run_are_delivered_as_ever(relay: Relay) -> None:
    Path("/srv/t").mkdir(parents=True)
    Path("/srv/t/notes").touch()
    announce("/srv/t/./notes", *make("scan1", [1]))
    relay.wait_for_last(2)
    assert relay.paths() == ["/srv/t/./notes", "/srv/t/./scan1/img_000001"]
    relay.command("run", "end", "scan1")
    assert told(relay)[0]["files"] == 1


def test_without_runs_there_are_none(relay: Relay) -> None:
    relay.stop()
    relay.configuration = ""
    relay.start()
    done = relay.command("runs")
    assert done.returncode == 1 and "no runs are configured" in done.stderr
