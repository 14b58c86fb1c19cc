"""What skarnctl shows of the relay."""

from __future__ import annotations

import json
import os
import subprocess
from typing import Any

from support.daemon import Detector, write_configuration
from support.relay_process import Relay, announce, make_files
from support.waiting import wait_until

CONFIGURATION = """\
[[subscriber]]
name = "good"
type = "command"
command = ["/bin/true"]

[[subscriber]]
name = "bad"
type = "command"
command = ["/bin/false"]
"""


def watch(*words: str) -> str:
    """What `skarnctl watch` prints once; no daemon runs, so its status is no success."""
    words = (os.environ["SKARNCTL_BINARY"], "watch", *words)
    return subprocess.run(words, stdout=subprocess.PIPE, text=True, check=False).stdout


def seen() -> Any:
    """The same for programs."""
    return json.loads(watch("--json"))


def subscriber(name: str) -> Any:
    """What it tells of one."""
    return next(each for each in seen()["relay"]["subscribers"] if each["name"] == name)


def test_subscribers_and_their_lag_are_shown_while_a_relay_runs() -> None:
    write_configuration(None, [Detector("1")])
    assert seen()["relay"] is None and "Relay" not in watch("--once")
    relay = Relay(CONFIGURATION)
    relay.start()
    announce(*map(os.fsencode, make_files(5)))
    wait_until(lambda: bool(subscriber("good")["lag"] == 0), "all is delivered")
    wait_until(lambda: bool(subscriber("bad")["problem"]), "the failing one is named")
    assert seen()["relay"]["records"] == 5
    assert subscriber("bad")["lag"] == 5 and subscriber("bad")["lag_seconds"] > 0
    shown = watch("--once")
    assert "Relay 5 records, " in shown and "good has all" in shown and "bad 5 behind for" in shown
    assert "the relay's subscriber bad is 5 records behind: " in shown
    relay.stop()
    assert seen()["relay"] is None
