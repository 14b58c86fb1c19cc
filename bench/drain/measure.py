"""Takes the numbers of the drains, the streams and the delays.

- Source, target and everything else are in memory, client and server on loopback. There is one
  rsync server, the same for all ways.
- All ways run in turn, in another order each round, after one round that is not counted. The share
  is full before the clock starts. Each result is checked: all files there, none left, all
  announced.
- skarn's time runs from the start of the daemon to the last line in the pipe, a script's from its
  start to its end.
- One rsync that removes files is so slow that it gets the first files of a workload only; what is
  compared then is the time a file.
- In a stream, a file's delay runs from the moment it gets its name at the source to its line in the
  pipe, or, where scripts copy, to the moment it gets its name at the target.
"""

from __future__ import annotations

import os
from dataclasses import asdict
from pathlib import Path
from typing import Any

from drain.share import Workload, check, empty, fill, make_station
from drain.stream import SIZE, stream_by_daemon, stream_by_script
from drain.ways import WAYS, Drain, counted
from support.bed import Station

PLAIN = "plain_loop"
BARE = "eight_at_once"


def rounds_of(
    station: Station, workload: Workload, rounds: int, plain_files: int, plain_rounds: int
) -> dict[str, Any]:
    """So many rounds of one workload by all ways."""
    part = Workload(min(plain_files, workload.files), workload.size)
    results: dict[str, list[dict[str, float]]] = {way: [] for way in WAYS}
    order = list(WAYS)
    for number in range(rounds + 1):
        order = order[1:] + order[:1]
        for way in order:
            if way == PLAIN and number > plain_rounds:
                continue
            load = part if way == PLAIN else workload
            result = drain_once(station, way, load)
            if number > 0:
                results[way].append({"files": load.files, **asdict(result)})
    return {"files": workload.files, "size": workload.size, "rounds": results}


def drain_once(station: Station, way: str, workload: Workload) -> Drain:
    """One drain, from filling the share to the check."""
    empty(station)
    fill(station, workload)
    names = workload.names()
    with counted(station, lambda: WAYS[way](station, names)) as result:
        check(station, workload)
    return result


def measure(quick: bool) -> dict[str, Any]:
    copy_program = Path(os.environ["CONFIRMING_RSYNC_BINARY"])
    station = make_station(copy_program, minpause=100)
    if quick:
        drains = {
            "small": rounds_of(station, Workload(200, 20_000), 1, 50, 1),
            "single": rounds_of(station, Workload(1, 20_000), 1, 1, 1),
        }
        seconds, pauses, bare_rounds = 2.0, [100], 2
    else:
        drains = {
            "small": rounds_of(station, Workload(8_000, 20_000), 9, 1_000, 3),
            "large": rounds_of(station, Workload(200, 6_000_000), 7, 200, 3),
            "tiny": rounds_of(station, Workload(50_000, 1_000), 5, 1_000, 3),
            "single": rounds_of(station, Workload(1, 20_000), 15, 1, 15),
        }
        seconds, pauses, bare_rounds = 60.0, [100, 1_000], 9
    streams: dict[str, Any] = {}
    for pause in pauses:
        station = make_station(copy_program, minpause=pause)
        stream = stream_by_daemon(station, seconds)
        a_cycle = Workload(round(stream["files"] / stream["cycles"]), SIZE)
        streams[f"skarn {pause}"] = stream | {
            "pause": pause / 1000,
            "bare_files": a_cycle.files,
            "bare_rounds": [drain_once(station, BARE, a_cycle).wall for _ in range(bare_rounds)],
        }
    for script, length in ((BARE, seconds), (PLAIN, seconds / 3)):
        streams[script] = stream_by_script(station, script, 0.1, length) | {"pause": 0.1}
    return {"drains": drains, "streams": streams}
