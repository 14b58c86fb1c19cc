"""Programs that are run for records: batches, failures, time limits, dead letters."""

from __future__ import annotations

import json
import os
import pwd
import time
from pathlib import Path
from typing import Any

from support.processes import processes
from support.relay_process import Relay, SubscriberStatus, announce, make_files
from support.waiting import wait_until

PROGRAM = Path("/srv/program")
OUTPUT = Path("/srv/output")


def started(script: str, **settings: object) -> Relay:
    """A relay with a command subscriber that runs this script."""
    PROGRAM.write_text("#!/bin/sh\n" + script, encoding="ascii")
    PROGRAM.chmod(0o755)
    OUTPUT.touch()
    OUTPUT.chmod(0o666)
    table: dict[str, object] = {"name": "run", "type": "command", "command": [str(PROGRAM)], **settings}
    lines = [f"{key} = {json.dumps(value)}" for key, value in table.items()]
    relay = Relay("[[subscriber]]\n" + "\n".join(lines) + "\n")
    relay.start()
    return relay


def own(relay: Relay) -> SubscriberStatus:
    return relay.status()["subscribers"][0]


def wait_done(relay: Relay, last: int) -> None:
    wait_until(
        lambda: own(relay)["acknowledged"] >= last,
        lambda: f"all to be acknowledged: {own(relay)} {relay.messages()}",
    )


def output() -> list[str]:
    return OUTPUT.read_bytes().decode(errors="surrogateescape").splitlines()


def dead_letters(relay: Relay) -> list[dict[str, Any]]:
    lines = relay.client.request("GET", "subscribers/run/dead-letters")
    return [json.loads(line) for line in lines.splitlines()]


def test_each_record_as_an_argument_in_order() -> None:
    relay = started(f'printf "%s\\n" "$@" >>{OUTPUT}')
    paths = [*make_files(30), "/srv/t/./b\udcffd; rm -rf $x 'q"]
    announce(*paths)
    wait_done(relay, 31)
    assert output() == paths


def test_batches_on_standard_input() -> None:
    relay = started(f"tr '\\0' '\\n' >>{OUTPUT}; echo . >>{OUTPUT}.runs", batch=100, input="nul")
    paths = make_files(1000)
    announce(*paths)
    wait_done(relay, 1000)
    assert output() == paths
    assert len(Path(f"{OUTPUT}.runs").read_text(encoding="ascii").split()) < 1000


def test_json_lines() -> None:
    relay = started(f"cat >>{OUTPUT}", batch=10, input="json")
    paths = make_files(25)
    announce(*paths)
    wait_done(relay, 25)
    assert [json.loads(line)["path"] for line in output()] == paths


def test_runs_side_by_side() -> None:
    relay = started(f'sleep 0.3; echo "$1" >>{OUTPUT}', concurrency=4)
    begin = time.monotonic()
    paths = make_files(16)
    announce(*paths)
    wait_done(relay, 16)
    assert sorted(output()) == paths
    assert time.monotonic() - begin < 16 * 0.3


def test_a_record_that_fails_for_ever_becomes_a_dead_letter_and_stops_no_other() -> None:
    script = f'case $1 in *3) [ -e /srv/mended ] || {{ echo "no 3s" >&2; exit 7; }};; esac; echo "$1" >>{OUTPUT}'
    relay = started(script, attempts=3, back_off=1, back_off_limit=1)
    paths = make_files(5)
    announce(*paths)
    wait_done(relay, 5)
    assert output() == [paths[n] for n in (0, 1, 2, 4)]
    (letter,) = dead_letters(relay)
    assert (letter["seq"], letter["path"], letter["attempts"]) == (4, paths[3], 3)
    assert letter["reason"] == f"{PROGRAM} ended with status 7: no 3s\\012"
    assert own(relay)["dead_letters"] == 1
    # Tried again in vain, it stays; when it succeeds, it goes.
    relay.client.request("POST", "subscribers/run/dead-letters/retry", [("seq", 4)])
    wait_until(lambda: own(relay)["failures"] == 4, "the fourth failure")
    assert len(dead_letters(relay)) == 1
    Path("/srv/mended").touch()
    relay.client.request("POST", "subscribers/run/dead-letters/retry", [("seq", "all")])
    wait_until(lambda: not dead_letters(relay), "no dead letter")
    assert output()[-1] == paths[3]


def test_dead_letters_outlive_the_relay_and_can_be_dropped() -> None:
    relay = started("exit 1", attempts=1)
    announce(*make_files(3))
    wait_done(relay, 3)
    relay.kill()
    relay.start()
    assert [letter["seq"] for letter in dead_letters(relay)] == [1, 2, 3]
    relay.client.request("POST", "subscribers/run/dead-letters/drop", [("seq", 2)])
    assert [letter["seq"] for letter in dead_letters(relay)] == [1, 3]


def test_a_bad_record_in_a_batch_takes_no_other_with_it() -> None:
    script = f'for p; do case $p in *5) exit 1;; esac; done; printf "%s\\n" "$@" >>{OUTPUT}'
    relay = started(script, batch=10, attempts=1)
    paths = make_files(10)
    announce(*paths)
    wait_done(relay, 10)
    assert [letter["path"] for letter in dead_letters(relay)] == [paths[5]]
    assert sorted(set(output())) == [path for path in paths if path != paths[5]]


def test_a_program_that_hangs_is_ended_with_its_children() -> None:
    relay = started("trap '' TERM; sleep 1000 & sleep 1000", timeout=1, attempts=1)
    announce(*make_files(1))
    wait_done(relay, 1)
    assert "was ended after 1 seconds" in dead_letters(relay)[0]["reason"]
    assert not [each for each in processes() if each.name == "sleep" and not each.is_zombie]


def test_it_runs_as_another_user_without_the_relay_s_descriptors() -> None:
    script = f'(id -un; echo "$HOME"; ls /proc/self/fd | tr "\\n" " ") >>{OUTPUT}'
    relay = started(script, user="nobody")
    OUTPUT.parent.chmod(0o755)
    announce(*make_files(1))
    wait_done(relay, 1)
    assert not dead_letters(relay), dead_letters(relay)
    assert output() == ["nobody", pwd.getpwnam("nobody").pw_dir, "0 1 2 3 "]


def test_a_program_that_is_not_there_is_told() -> None:
    relay = started("exit 0", command=["/srv/nothing"], attempts=1)
    announce(*make_files(1))
    wait_done(relay, 1)
    assert "No such file or directory" in dead_letters(relay)[0]["reason"]
    assert "No such file or directory" in relay.messages()


def test_a_relay_killed_during_a_run_runs_it_again() -> None:
    relay = started(f'echo "$1" >>{OUTPUT}; [ -e /srv/go ] || exec sleep 1000')
    (path,) = make_files(1)
    announce(path)
    wait_until(lambda: output() == [path], "the first run")
    relay.kill()
    wait_until(
        lambda: not [each for each in processes() if each.name == "sleep" and not each.is_zombie],
        "the program to die with the relay",
    )
    Path("/srv/go").touch()
    relay.start()
    wait_done(relay, 1)
    assert output() == [path, path]


def test_a_stop_waits_for_no_program_and_is_no_failure_of_a_record() -> None:
    relay = started(f'[ -e /srv/go ] || sleep 1000; echo "$1" >>{OUTPUT}', attempts=1)
    (path,) = make_files(1)
    announce(path)
    wait_until(lambda: own(relay)["attempts"] == 1, "the run")
    begin = time.monotonic()
    assert relay.stop() == 0
    assert time.monotonic() - begin < 10
    Path("/srv/go").touch()
    relay.start()
    wait_done(relay, 1)
    assert output() == [path] and not dead_letters(relay)


def test_many_arguments_fit(tmp_path: Path) -> None:
    relay = started(f'echo "$#" >>{OUTPUT}', batch=10000)
    paths = make_files(10000, "/srv/t/" + "d" * 200)
    announce(*paths)
    wait_done(relay, 10000)
    assert sum(map(int, output())) == 10000
    assert os.path.exists(paths[0])
