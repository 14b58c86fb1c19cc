"""A long backlog: what the relay keeps in memory, and how fast a subscriber catches up.

Records a second from the pipe into the log, to a subscriber over HTTP (taken as lines, not parsed) and
to one that reads a pipe, and the largest resident memory.
"""

from __future__ import annotations

import http.client
import json
import os
import socket
import subprocess
import threading
import time
from pathlib import Path

from results import Data


class Connection(http.client.HTTPConnection):
    """HTTP over a Unix socket."""

    def __init__(self, path: Path) -> None:
        super().__init__("relay", timeout=120)
        self._path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.connect(str(self._path))


def ask(path: Path, method: str, target: str) -> tuple[bytes, http.client.HTTPMessage]:
    """One request, and its answer."""
    connection = Connection(path)
    connection.request(method, "/v1/" + target)
    answer = connection.getresponse()
    content = answer.read()
    assert answer.status < 300, content
    connection.close()
    return content, answer.headers


def resident(pid: int) -> float:
    """The largest resident memory so far, in MiB."""
    for line in Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmHWM:"):
            return int(line.split()[1]) / 1024
    raise AssertionError("no VmHWM")


def write(pipe: Path, count: int) -> None:
    """Lines as the daemon writes them, a few hundred with one call to spare the processor."""
    descriptor = os.open(pipe, os.O_WRONLY)
    for first in range(0, count, 100):
        lines = [f"/srv/images/1/./run7/f_{n:09d}.cbf\n" for n in range(first, first + 100)]
        os.write(descriptor, "".join(lines).encode())
    os.close(descriptor)


def catch_up(path: Path, count: int) -> float:
    """Seconds until a subscriber over HTTP has fetched and acknowledged all."""
    ask(path, "PUT", "subscribers/fetcher")
    begin = time.monotonic()
    got = 0
    while got < count:
        lines, headers = ask(path, "GET", "subscribers/fetcher/records?limit=10000")
        got += lines.count(b"\n")
        ask(path, "POST", f"subscribers/fetcher/ack?seq={headers['Skarn-Seen-To']}")
    return time.monotonic() - begin


def read_pipe(pipe: Path, count: int) -> float:
    """Seconds until so many lines have come out of a pipe that waited full."""
    descriptor = os.open(pipe, os.O_RDONLY)
    begin = time.monotonic()
    got = 0
    while got < count:
        got += os.read(descriptor, 1 << 20).count(b"\n")
    os.close(descriptor)
    return time.monotonic() - begin


def measure(relay: str, folder: Path, count: int) -> Data:
    """The figures of one backlog of so many records, a multiple of 100; the log is in the folder."""
    pipe, own, address = folder / "pipe", folder / "own", folder / "socket"
    configuration = folder / "relay.toml"
    configuration.write_text(
        f'[pipe]\npath = "{pipe}"\n[log]\nfolder = "{folder}/log"\n[http]\nsocket = "{address}"\n'
        f'[[subscriber]]\nname = "own"\ntype = "pipe"\npath = "{own}"\n',
        encoding="utf-8",
    )
    program = subprocess.Popen([relay, "run", "--config", str(configuration)])
    try:
        while not (address.exists() and own.exists()):
            assert program.poll() is None
            time.sleep(0.01)
        begin = time.monotonic()
        writer = threading.Thread(target=write, args=(pipe, count))
        writer.start()
        while json.loads(ask(address, "GET", "status")[0])["last"] < count:
            time.sleep(0.2)
        into = time.monotonic() - begin
        writer.join()
        fetched = catch_up(address, count)
        piped = read_pipe(own, count)
        return {
            "records": count,
            "into_log_per_second": round(count / into),
            "http_per_second": round(count / fetched),
            "pipe_per_second": round(count / piped),
            "resident_mib": round(resident(program.pid), 1),
            "log_mib": round(json.loads(ask(address, "GET", "status")[0])["log_bytes"] / 2**20, 1),
        }
    finally:
        program.terminate()
        program.wait()
