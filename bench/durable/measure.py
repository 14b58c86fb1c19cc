"""Takes the numbers of drains and of a stream with the target on a disk's file system.

- As in the drains, but for the target and the journals, which are on a file system on a loop
  device, whose image is in memory. Everything is on the disk when the clock starts.
- skarn's time runs from the start of the daemon to the last line in the pipe: by then each file was
  made durable before it was removed at the source. The script's ends with `sync -f` of the target;
  it has removed every file before that, so it is no way of losing nothing, but the least that
  getting all of it onto the disk costs.
- A round is a drain by each, in another order each time. What is compared is the median of the
  rounds' ratios: other programs on the machine slow both drains of a round alike.
"""

from __future__ import annotations

import os
import subprocess
import time
from dataclasses import asdict
from pathlib import Path
from typing import Any

from drain.measure import BARE
from drain.share import Workload, check, empty, fill, make_station
from drain.stream import stream_by_daemon
from drain.ways import LIMIT, Drain, counted, drain_by_daemon, drain_by_script
from durable.disk import disk, settle
from support.bed import Station
from turns import in_turns

KINDS = ("ext4", "xfs")
WAYS = ("skarn", BARE)
MINPAUSE = 100


def measure(quick: bool) -> dict[str, Any]:
    copy_program = Path(os.environ["CONFIRMING_RSYNC_BINARY"])
    station = make_station(copy_program, minpause=MINPAUSE)
    if quick:
        size, seconds = 400 << 20, 2.0
        workloads = {"small": (Workload(200, 20_000), 1), "large": (Workload(8, 6_000_000), 1)}
    else:
        size, seconds = 4 << 30, 60.0
        workloads = {"small": (Workload(8_000, 20_000), 11), "large": (Workload(200, 6_000_000), 7)}
    drains, streams = {}, {}
    for kind in KINDS:
        with disk(kind, size):
            for name, (workload, rounds) in workloads.items():
                drains[f"{kind} {name}"] = rounds_of(station, kind, workload, rounds)
            if kind == "ext4":
                settle()
                streams[kind] = stream_by_daemon(station, seconds) | {"pause": MINPAUSE / 1000}
    return {"drains": drains, "streams": streams}


def rounds_of(station: Station, kind: str, workload: Workload, rounds: int) -> dict[str, Any]:
    """So many rounds of one workload by both ways, after one that is not counted."""
    results = in_turns(WAYS, rounds, lambda way: asdict(drain_once(station, way, workload)))
    return {"kind": kind, "files": workload.files, "size": workload.size, "rounds": results}


def drain_once(station: Station, way: str, workload: Workload) -> Drain:
    """One drain, from filling the share to the check."""
    empty(station)
    fill(station, workload)
    settle()

    def drain() -> Drain:
        if way == "skarn":
            return drain_by_daemon(station, workload.names())
        return drain_by_script_and_sync(station)

    with counted(station, drain) as result:
        check(station, workload)
    return result


def drain_by_script_and_sync(station: Station) -> Drain:
    result = drain_by_script(BARE, station)
    begin = time.monotonic()
    subprocess.run(["sync", "-f", str(station.target)], check=True, timeout=LIMIT)
    result.wall += time.monotonic() - begin
    return result
