"""The relay's page in a real browser, and a stand-in for the relay that tells it what a test wants."""

from __future__ import annotations

import copy
import json
import os
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from support.waiting import wait_until

PAGE = Path(os.environ["SKARN_PAGE"])

View = dict[str, Any]

FIGURES = """# HELP skarn_up Whether the daemon runs.
skarn_up 1
skarn_detector_state{detector="1",state="listing"} 0
skarn_detector_state{detector="1",state="copying"} 1
skarn_detector_state{detector="2",state="idle"} 1
"""

# A relay to which nothing has happened that should not.
WELL: View = {
    "now": 1_800_000_000.0,
    "status": {
        "version": 1, "pipe": "/var/run/vantrel_orbelin_files", "problem": "", "records": 12000,
        "repeats": 0, "bytes_waiting": 0, "first": 1, "last": 12000, "log_bytes": 4_000_000,
        "since": 1_799_990_000.0,
        "subscribers": [
            {"name": "analysis", "type": "http", "problem": "", "acknowledged": 12000, "lag": 0,
             "lag_seconds": 0, "dead_letters": 0, "dropped": 0},
            {"name": "archive", "type": "command", "problem": "", "acknowledged": 11990, "lag": 10,
             "lag_seconds": 2.5, "dead_letters": 0, "dropped": 0},
        ],
    },
    "files": [0, 100, 450.5, 480, 470],
    "bytes": [0, 1e8, 4.5e8, 4.8e8, 4.7e8],
    "look": {"age": 0.5, "text": FIGURES},
    "runs": [
        {"run": "scan0041", "state": "ended", "complete": True, "why": "all 5000 files",
         "by": "a command", "files": 5000, "bytes": 5e9, "expected": 5000,
         "first": "1799999000.000000000", "last": "1799999900.000000000",
         "ended": "1799999905.000000000", "reopened": 0, "missing_count": 0, "missing": [],
         "detectors": [{"detector": "1", "indices": 5000, "lowest": 1, "highest": 5000}]},
        {"run": "scan0042", "state": "open", "complete": True,
         "why": "no index is missing below the highest one", "by": "", "files": 1200,
         "bytes": 1.2e9, "expected": None, "first": "1799999950.000000000",
         "last": "1799999999.000000000", "ended": None, "reopened": 0, "missing_count": 0,
         "missing": [],
         "detectors": [{"detector": "1", "indices": 1200, "lowest": 1, "highest": 1200}]},
    ],
}


class StandIn:
    """Serves the page as the relay does, over what a test has set as `view`."""

    def __init__(self) -> None:
        self.view = copy.deepcopy(WELL)
        stand_in = self

        class Handler(BaseHTTPRequestHandler):
            def do_GET(self) -> None:  # noqa: N802
                known = {
                    "/": ("text/html; charset=utf-8", PAGE.read_bytes()),
                    "/v1/view": ("application/json", json.dumps(stand_in.view).encode()),
                }
                kind, body = known.get(self.path, ("text/plain", b"unknown"))
                self.send_response(200 if self.path in known else 404)
                self.send_header("Content-Type", kind)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, format: str, *args: object) -> None:  # noqa: A002
                pass

        self._server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.address = f"http://127.0.0.1:{self._server.server_address[1]}/"
        self._thread = threading.Thread(target=self._server.serve_forever, daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Answers no more."""
        self._server.shutdown()
        self._server.server_close()


class Browser:
    """A headless Chromium with one page open."""

    def __init__(self) -> None:
        options = Options()
        for argument in (
            "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
            "--no-first-run", "--user-data-dir=/tmp/browser", "--window-size=1280,900",
        ):
            options.add_argument(argument)  # type: ignore[no-untyped-call]
        options.binary_location = "/usr/bin/chromium"
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self._mistakes: list[str] = []

    def close(self) -> None:
        """Ends it."""
        self.driver.quit()

    def open(self, address: str) -> None:
        """Goes to the page, and waits until it has shown something."""
        self.console()
        self._mistakes = []
        self.driver.get(address)
        self.wait_for("headline", "well", "wrong")

    def reset(self) -> None:
        """Leaves the page, and takes back what made the browser look like another one."""
        self.driver.get("about:blank")
        self.tell("Emulation.clearDeviceMetricsOverride")
        self.tell("Emulation.setEmulatedMedia", features=[])
        self.tell("Emulation.setEmulatedVisionDeficiency", type="none")

    def width(self, pixels: int, height: int = 800) -> None:
        """Makes the screen that wide, as a phone's is."""
        self.tell("Emulation.setDeviceMetricsOverride",
                  width=pixels, height=height, deviceScaleFactor=1, mobile=True)

    def tell(self, command: str, **parameters: object) -> Any:
        """One command of Chromium's own protocol."""
        return self.driver.execute_cdp_cmd(command, parameters)

    def run(self, script: str) -> Any:
        """What a script in the page returns."""
        return self.driver.execute_script(script)  # type: ignore[no-untyped-call]

    def text(self, identity: str) -> str:
        """What a reader sees of one part of the page."""
        return str(self.driver.find_element(By.ID, identity).text)

    def wait_for(self, identity: str, *any_of: str) -> None:
        """Waits until a part shows one of these texts."""
        wait_until(
            lambda: any(each in self.text(identity) for each in any_of),
            lambda: f"{any_of} in {identity}: {self.text(identity)} {self.console()}",
        )

    def console(self) -> list[str]:
        """All that has been written on the console since the page was opened."""
        messages = [entry["message"] for entry in self.driver.get_log("browser")]  # type: ignore[no-untyped-call]
        # The browser's own first page has something to say about its fonts.
        self._mistakes += [each for each in messages if not each.startswith("chrome://")]
        return self._mistakes
