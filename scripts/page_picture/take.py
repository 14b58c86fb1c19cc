"""Takes the pictures of the relay's page: files come, a run lacks three of them, a detector and a subscriber hang.

Called by scripts/page-picture.sh, which builds the relay and makes the sandbox.
"""

from __future__ import annotations

import base64
import io
import math
import os
import sys
import threading
import time
from pathlib import Path

from PIL import Image  # type: ignore[import]

from page.browser import Browser
from support.daemon import FIFO
from support.relay_process import Relay, announce

ADDRESS = "127.0.0.1:9752"
WITHHELD = frozenset({17, 2500, 2501})
LAG = 60  # seconds, above which the page calls it wrong
CONFIGURATION = f"""
[http]
listen = "{ADDRESS}"
[runs]
pattern = '/(?P<run>scan[0-9]+)/img_(?P<index>[0-9]+)$'
[[subscriber]]
name = "analysis"
type = "command"
command = ["/bin/true"]
batch = 1000
[[subscriber]]
name = "archive"
type = "command"
command = ["/bin/sh", "-c", "sleep 600"]
timeout = 10
batch = 1000
"""


def look() -> None:
    """Writes down once a second what is seen of a daemon whose second detector is off."""
    figures = Path("/run/skarn-look/figures")
    figures.parent.mkdir()
    since = time.time() - 170
    while True:
        new = figures.with_suffix(".new")
        new.write_text(
            'skarn_up 1\nskarn_detector_state{detector="1",state="copying"} 1\n'
            'skarn_detector_state{detector="2",state="unreachable"} 1\n'
            f'skarn_listing_failing_since_seconds{{detector="2"}} {since}\n', encoding="ascii")
        new.replace(figures)
        time.sleep(1)


def drain(run: str, files: int, left_out: frozenset[int] = frozenset()) -> None:
    """Files of a run, some hundred a second."""
    folder = Path("/srv/t", run)
    folder.mkdir(parents=True)
    begin = time.monotonic()
    index = 0
    while index < files:
        passed = time.monotonic() - begin
        wanted = min(files, int(150 * passed + 200 * (1 - math.cos(passed / 5))))
        came = [each for each in range(index + 1, wanted + 1) if each not in left_out]
        for each in came:
            (folder / f"img_{each:06d}").write_bytes(bytes(24_500))
        announce(*(f"/srv/t/./{run}/img_{each:06d}" for each in came))
        index = max(index, wanted)
        time.sleep(0.05)


def picture(browser: Browser, file: Path) -> None:
    """All of the page as it is now, in few colours."""
    png = browser.tell("Page.captureScreenshot", format="png", captureBeyondViewport=True)["data"]
    Image.open(io.BytesIO(base64.b64decode(png))).convert("P", palette=Image.ADAPTIVE).save(file, optimize=True)


def main() -> None:
    pictures = Path(sys.argv[1])
    os.mkfifo(FIFO, 0o600)
    os.open(FIFO, os.O_RDWR | os.O_NONBLOCK)  # held open until the end
    threading.Thread(target=look, daemon=True).start()
    relay = Relay(CONFIGURATION)
    relay.start()
    begin = time.monotonic()
    drain("scan7", 5000, WITHHELD)
    relay.wait_for_last(5000 - len(WITHHELD))
    relay.command("run", "end", "scan7", "--expect", "5000")
    background = threading.Thread(target=drain, args=("scan8", 100_000), daemon=True)
    background.start()
    time.sleep(max(0.0, begin + LAG - time.monotonic()))
    browser = Browser()
    browser.open(f"http://{ADDRESS}/")
    browser.wait_for("reasons", "Subscriber archive: lags by")
    picture(browser, pictures / "page.png")
    browser.width(360)
    picture(browser, pictures / "phone.png")
    browser.close()
    relay.stop()


main()
