"""The page as the relay itself serves it: during a drain, while a subscriber hangs, while the daemon is down."""

from __future__ import annotations

import http.client
import os
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

from page.browser import FIGURES, Browser
from support.relay_process import Relay, announce
from support.waiting import wait_until

ADDRESS = "127.0.0.1:9752"
LOOK = Path("/run/skarn-look/figures")
CONFIGURATION = f"""
[http]
listen = "{ADDRESS}"
[runs]
pattern = '/(?P<run>scan[0-9]+)/img_(?P<index>[0-9]+)$'
[[subscriber]]
name = "archive"
type = "command"
command = ["/bin/sh", "-c", "while test -e /run/hangs; do sleep 0.1; done"]
timeout = 1
back_off = 1
batch = 1000
"""


@pytest.fixture
def relay() -> Iterator[Relay]:
    one = Relay(CONFIGURATION)
    one.start()
    yield one


@pytest.fixture
def browser(held_pipe: None) -> Iterator[Browser]:
    one = Browser()
    yield one
    one.close()


def look(figures: str) -> None:
    """What another program sees of the daemon now."""
    LOOK.parent.mkdir(exist_ok=True)
    LOOK.write_text(figures, encoding="utf-8")


def drain(seconds: float, left_out: frozenset[int] = frozenset()) -> None:
    """Files of a run, a few hundred a second."""
    folder = Path("/srv/t/scan7")
    folder.mkdir(parents=True)
    end = time.monotonic() + seconds
    index = 0
    while time.monotonic() < end:
        lines = []
        for _ in range(20):
            index += 1
            if index not in left_out:
                (folder / f"img_{index}").write_bytes(b"x" * 10_000)
                lines.append(f"/srv/t/./scan7/img_{index}")
        announce(*lines)
        time.sleep(0.1)


def test_a_drain_from_its_first_file_to_the_end_of_its_run(browser: Browser, relay: Relay) -> None:
    look(FIGURES)
    browser.open(f"http://{ADDRESS}/")
    assert browser.text("headline") == "✔ All is well"
    drain(4, frozenset({5, 42}))
    browser.wait_for("runs", "scan7 … open")
    browser.wait_for("runs", "missing so far: 5, 42")
    rates = "return document.querySelector('#files polyline').points.length"
    wait_until(lambda: bool(browser.run(rates) >= 3), "three points of the curve")
    assert "at most 0 files" not in browser.text("files")
    assert "at most 0 MB" not in browser.text("bytes")
    look(FIGURES)
    relay.command("run", "end", "scan7")
    browser.wait_for("runs", "scan7 ✖ incomplete")
    browser.wait_for("reasons", "Run scan7 is incomplete: 2 indices are missing")
    assert browser.run("return document.querySelectorAll('.gap').length") == 2
    assert browser.console() == []


def test_a_subscriber_that_hangs(browser: Browser, relay: Relay) -> None:
    look(FIGURES)
    Path("/run/hangs").touch()
    browser.open(f"http://{ADDRESS}/")
    drain(0.5)
    browser.wait_for("reasons", "Subscriber archive: ")
    browser.wait_for("subscribers", "records behind")
    Path("/run/hangs").unlink()
    browser.wait_for("subscribers", "archive (command) ✔ has all")
    look(FIGURES)
    browser.wait_for("headline", "✔ All is well")


def test_the_daemon_is_down(browser: Browser, relay: Relay) -> None:
    look('skarn_up 0\nskarn_detector_state{detector="1",state="not_served"} 1\n')
    browser.open(f"http://{ADDRESS}/")
    assert browser.text("reasons") == "The daemon is down: nothing is copied"


def test_the_page_is_served_with_nothing_from_elsewhere_allowed(relay: Relay) -> None:
    connection = http.client.HTTPConnection(ADDRESS)
    connection.request("GET", "/")
    answer = connection.getresponse()
    assert answer.status == 200
    assert "default-src 'none'" in (answer.getheader("Content-Security-Policy") or "")
    assert answer.read().decode() == Path(os.environ["SKARN_PAGE"]).read_text(encoding="utf-8")


def test_no_page_of_another_site_changes_anything(relay: Relay) -> None:
    relay.client.subscribe("me")
    connection = http.client.HTTPConnection(ADDRESS)
    connection.request("DELETE", "/v1/subscribers/me", headers={"Origin": "http://elsewhere"})
    assert connection.getresponse().status == 403
    assert [each["name"] for each in relay.status()["subscribers"]] == ["archive", "me"]


def test_a_browser_may_send_the_token_its_own_way(browser: Browser, relay: Relay) -> None:
    relay.stop()
    Path("/run/token").write_text("0123456789abcdef\n", encoding="ascii")
    relay.configuration = CONFIGURATION.replace("[runs]", 'token_file = "/run/token"\n[runs]')
    relay.start()
    connection = http.client.HTTPConnection(ADDRESS)
    connection.request("GET", "/")
    answer = connection.getresponse()
    assert answer.status == 401
    assert answer.getheader("WWW-Authenticate", "").startswith("Basic ")
    look(FIGURES)
    browser.driver.get(f"http://relay:0123456789abcdef@{ADDRESS}/")
    browser.wait_for("headline", "✔ All is well")
