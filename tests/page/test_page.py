"""What the relay's page shows of what the relay tells, in a real browser."""

from __future__ import annotations

import base64
import io
from collections.abc import Iterator

import pytest
from PIL import Image  # type: ignore[import]

from page.browser import Browser, StandIn
from support.waiting import wait_until

LONG = "a-name-that-is-longer-than-a-phone-is-wide" * 4

# The contrast of each text with its ground, from 1 to 21.
CONTRASTS = """
const light = text => {
  const [r, g, b] = text.match(/[0-9.]+/g).slice(0, 3).map(Number).map(each => each / 255)
    .map(each => each <= 0.03928 ? each / 12.92 : ((each + 0.055) / 1.055) ** 2.4);
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
};
const ground = each => {
  const own = getComputedStyle(each).backgroundColor;
  return own === "rgba(0, 0, 0, 0)" && each.parentElement ? ground(each.parentElement) : own;
};
return [...document.querySelectorAll("body *")].filter(each => each.innerText).map(each => {
  const [one, other] = [light(getComputedStyle(each).color), light(ground(each))];
  return (Math.max(one, other) + 0.05) / (Math.min(one, other) + 0.05);
});
"""


@pytest.fixture(autouse=True)
def empty_sandbox() -> None:
    """Instead of the usual one, which ends after each test whatever runs: here the browser goes on."""


@pytest.fixture(scope="module")
def chromium() -> Iterator[Browser]:
    one = Browser()
    yield one
    one.close()


@pytest.fixture
def browser(chromium: Browser) -> Iterator[Browser]:
    """One for all tests, since its start takes longer than most of them; each finds it as it was."""
    yield chromium
    chromium.reset()


@pytest.fixture
def relay() -> Iterator[StandIn]:
    one = StandIn()
    yield one
    one.stop()


def lightness(browser: Browser, identity: str) -> float:
    """How light a part of the page is on the screen, from 0 to 255."""
    box = browser.run(f"const r = document.getElementById('{identity}').getBoundingClientRect();"
                      "return [r.left, r.top, r.right, r.bottom].map(Math.round)")
    png = browser.tell("Page.captureScreenshot", format="png")["data"]
    picture = Image.open(io.BytesIO(base64.b64decode(png))).convert("L").crop(box)
    values = list(picture.getdata())
    return float(sum(values) / len(values))


def test_all_is_well(browser: Browser, relay: StandIn) -> None:
    browser.open(relay.address)
    assert browser.text("headline") == "✔ All is well"
    assert browser.driver.title == "✔ skarn-relay"
    assert browser.text("reasons") == ""
    assert "Detector 1 ✔ answers, is being copied" in browser.text("detectors")
    assert "Detector 2 ✔ answers, is idle" in browser.text("detectors")
    assert "analysis (http) ✔ has all" in browser.text("subscribers")
    assert "archive (command) ✔ 10 records behind" in browser.text("subscribers")
    assert "scan0041 ✔ complete\n5,000 of 5,000 files, 5,000 MB" in browser.text("runs")
    assert "scan0042 … open\n1,200 files" in browser.text("runs")
    assert browser.text("files-now") == "470"
    assert browser.text("bytes-now") == "470"
    assert "at most 480 files a second" in browser.text("files")
    points = browser.run("return document.querySelector('#files polyline').points.length")
    assert points == 5
    assert browser.console() == []


def test_what_changes_is_shown_without_anybody_touching_it(browser: Browser, relay: StandIn) -> None:
    browser.open(relay.address)
    relay.view["status"]["problem"] = "the database failed: disk I/O error"
    browser.wait_for("headline", "✖ 1 thing wrong")
    assert browser.text("reasons") == (
        "Nothing is taken out of the pipe: the database failed: disk I/O error")
    relay.view["status"]["problem"] = ""
    browser.wait_for("headline", "✔ All is well")
    assert browser.console() == []


def test_the_daemon_is_down(browser: Browser, relay: StandIn) -> None:
    relay.view["look"]["text"] = (
        'skarn_up 0\nskarn_detector_state{detector="1",state="not_served"} 1\n')
    browser.open(relay.address)
    assert "✖" in browser.text("headline")
    assert browser.text("reasons") == "The daemon is down: nothing is copied"
    assert "✖ is not served: no daemon runs" in browser.text("detectors")


def test_detectors_that_do_not_answer(browser: Browser, relay: StandIn) -> None:
    relay.view["look"]["text"] = (
        'skarn_up 1\nskarn_detector_state{detector="1",state="hanging"} 1\n'
        'skarn_no_answer_seconds{detector="1"} 45.2\n'
        'skarn_detector_state{detector="a\\"b",state="unreachable"} 1\n')
    browser.open(relay.address)
    assert browser.text("reasons").splitlines() == [
        "Detector 1 gets no answer for 45 s", 'Detector a"b cannot be reached']


@pytest.mark.parametrize("look", [None, {"age": 600, "text": ""}])
def test_it_is_not_called_well_when_nobody_looks_any_more(
    browser: Browser, relay: StandIn, look: dict[str, object] | None
) -> None:
    relay.view["look"] = look
    browser.open(relay.address)
    if look is None:
        assert "All is well" not in browser.text("headline")
        assert "nobody tells whether the detectors answer" in browser.text("headline")
    else:
        assert "✖" in browser.text("headline")
        assert "It cannot be told whether the detectors answer" in browser.text("reasons")
    assert "none known" in browser.text("detectors")


def test_a_subscriber_that_hangs(browser: Browser, relay: StandIn) -> None:
    relay.view["status"]["subscribers"][1].update(
        lag=40_000, lag_seconds=600, dead_letters=3, dropped=1, problem="it ran for too long")
    browser.open(relay.address)
    assert browser.text("reasons").splitlines() == [
        f"Subscriber archive: {what}" for what in
        ("it ran for too long", "lags by 10 min", "3 dead letters", "has lost 1 record")]
    assert "(40,000 records behind, 10 min)" in browser.text("subscribers")


def test_runs_with_gaps(browser: Browser, relay: StandIn) -> None:
    missing = [{"detector": "1", "first": 17, "last": 17}, {"detector": "1", "first": 4000, "last": 4001}]
    for run, state in zip(relay.view["runs"], ("ended", "open"), strict=True):
        run.update(state=state, complete=False, why="4997 of 5000 files, 3 indices are missing",
                   missing_count=3, missing=missing)
    browser.open(relay.address)
    assert browser.text("reasons") == (
        "Run scan0041 is incomplete: 4997 of 5000 files, 3 indices are missing")
    assert "missing: 17, 4000–4001" in browser.text("runs")
    assert "missing so far: 17, 4000–4001" in browser.text("runs")
    places = browser.run("return [...document.querySelectorAll('#runs li:first-child .gap')]"
                         ".map(gap => Number(gap.getAttribute('x')))")
    assert places == pytest.approx([3.2, 799.8])
    assert browser.console() == []


def test_a_page_without_runs(browser: Browser, relay: StandIn) -> None:
    relay.view["runs"] = None
    browser.open(relay.address)
    assert browser.text("headline") == "✔ All is well"
    assert not browser.run("return document.getElementById('runs-section').checkVisibility()")


def test_names_are_text_whatever_they_are(browser: Browser, relay: StandIn) -> None:
    evil = "<img src=x onerror=\"document.title='owned'\"><script>document.title='owned'</script>"
    relay.view["runs"][0]["run"] = evil
    relay.view["status"]["subscribers"][0]["problem"] = evil
    relay.view["look"]["text"] = f'skarn_up 1\nskarn_detector_state{{detector="{evil[:8]}",state="idle"}} 1\n'
    browser.open(relay.address)
    assert evil in browser.text("runs")
    assert evil in browser.text("reasons")
    assert browser.run("return document.images.length") == 0
    assert "owned" not in browser.driver.title.replace(evil, "")


def test_the_relay_is_gone_and_comes_back(browser: Browser) -> None:
    relay = StandIn()
    browser.open(relay.address)
    relay.stop()
    browser.wait_for("headline", "✖")
    assert "The relay has not answered for" in browser.text("reasons")
    assert "what stands below is old" in browser.text("reasons")
    assert "analysis" in browser.text("subscribers")


def test_a_phone_needs_not_be_scrolled_sideways(browser: Browser, relay: StandIn) -> None:
    relay.view["runs"][0]["run"] = LONG
    relay.view["status"]["subscribers"][0].update(name=LONG, problem=LONG)
    relay.view["status"]["problem"] = LONG
    browser.width(360)
    browser.open(relay.address)
    assert browser.run("return innerWidth") == 360
    assert browser.run("return document.documentElement.scrollWidth") <= 360
    sizes = browser.run("return [...document.querySelectorAll('body *')]"
                        ".filter(each => each.childNodes.length > 0 && each.offsetParent)"
                        ".map(each => parseFloat(getComputedStyle(each).fontSize))")
    assert min(sizes) >= 16


def test_every_text_stands_out_from_its_ground(browser: Browser, relay: StandIn) -> None:
    relay.view["look"]["text"] += 'skarn_detector_state{detector="3",state="hanging"} 1\n'
    browser.open(relay.address)
    for scheme in ("light", "dark"):
        browser.tell("Emulation.setEmulatedMedia",
                     features=[{"name": "prefers-color-scheme", "value": scheme}])
        ratios = browser.run(CONTRASTS)
        assert len(ratios) > 20
        assert min(ratios) >= 4.5, scheme


def test_wrong_looks_different_to_everybody(browser: Browser, relay: StandIn) -> None:
    def lightnesses() -> dict[str, float]:
        """Of the headline, as those see it who lack that."""
        seen = {}
        for deficiency in ("none", "protanopia", "deuteranopia", "tritanopia", "achromatopsia"):
            browser.tell("Emulation.setEmulatedVisionDeficiency", type=deficiency)
            seen[deficiency] = lightness(browser, "headline")
        return seen

    browser.open(relay.address)
    well = lightnesses()
    relay.view["status"]["problem"] = "no space left"
    browser.wait_for("headline", "✖")
    for deficiency, wrong in lightnesses().items():
        assert wrong < well[deficiency] - 60, deficiency
    signs = browser.run("return [...document.querySelectorAll('.good, .bad')]"
                        ".every(each => /^[✔✖] [^ ]/.test(each.textContent))")
    assert signs
