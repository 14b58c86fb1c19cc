"""What skarnctl shows of the relay."""

from __future__ import annotations

import json
import os
import signal
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


def subscribers() -> dict[str, Any]:
    """What it tells of each, by name, once the relay has answered it and has all in its log."""
    relay = seen()["relay"] or {"records": 0, "subscribers": []}
    return {each["name"]: each for each in relay["subscribers"] if relay["records"] == 5}


def test_subscribers_and_their_lag_are_shown_while_a_relay_runs() -> None:
    write_configuration(None, [Detector("1")])
    assert "elay" not in watch("--once")
    relay = Relay(CONFIGURATION)
    relay.start()
    announce(*map(os.fsencode, make_files(5)))
    wait_until(
        lambda: (told := subscribers())
        and told["good"]["lag"] == 0
        and told["bad"]["lag"] == 5
        and told["bad"]["lag_seconds"] > 0
        and told["bad"]["problem"],
        lambda: f"all to be delivered to one, and nothing to the other: {seen()}",
    )
    shown = wait_until(
        lambda: shown if "Relay " in (shown := watch("--once")) else "", "the relay to be shown"
    )
    assert "Relay 5 records, " in shown and "good has all" in shown and "bad 5 behind for" in shown
    assert "the relay's subscriber bad is 5 records behind: " in shown
    relay.stop()
    assert seen()["relay"] is None


def test_a_relay_that_hangs_does_not_pass_for_none() -> None:
    write_configuration(None, [Detector("1")])
    relay = Relay()
    relay.start()
    assert relay.process is not None
    relay.process.send_signal(signal.SIGSTOP)
    hanging = seen()
    assert hanging["relay"] is None
    assert "the relay does not answer" in hanging["verdict"]["reasons"]
    relay.process.send_signal(signal.SIGCONT)
    wait_until(lambda: bool(seen()["relay"]), "it to answer")
