"""What a copy program prints without end is kept for the log, at a bounded cost for each byte."""

from __future__ import annotations

import os

from support import expected, processes, scripted
from support.daemon import LOG_FILE, Daemon, Detector, write_configuration

LINE = "words that are no confirmation, again and again\n"
SIZE = 40_000_000  # bytes that one copy process prints

# Peak memory of the daemon for each byte of a report, beyond what it has when idle. The text is
# kept once, and twice while it is made larger.
MOST_FOR_A_BYTE = 3.0


def peak(daemon: Daemon) -> int:
    """The most memory that the daemon has had, in bytes."""
    return int(processes.status_field(daemon.pid, "VmHWM").split()[0]) * 1024


def test_a_very_long_report_is_logged_whole_at_a_bounded_cost(daemon: Daemon) -> None:
    write_configuration(
        {"logfile": LOG_FILE, "logfile_max_size": "1G"}, [Detector("1", minpause=1)]
    )
    daemon.start()
    scripted.wait_for_calls("listing", 2)
    idle = peak(daemon)
    report = scripted.FOLDER / "report"
    report.write_text(LINE * (SIZE // len(LINE)), encoding="ascii")
    scripted.add_copy([f"file {report}", "confirm-all"])
    scripted.add_listing(["a"])
    daemon.wait_for_log("1: Removed file", timeout=120)
    log = daemon.log()
    assert log.count(LINE) == SIZE // len(LINE)
    assert log.count(expected.BLOCK_BEGIN) == 1
    for_a_byte = (peak(daemon) - idle) / SIZE
    print(f"{for_a_byte:.2f} bytes of peak memory for each byte of the report")
    # The memory of a sanitizer, or of valgrind, comes on top.
    if daemon.sanitizer is None and "SKARN_WRAPPER" not in os.environ:
        assert for_a_byte < MOST_FOR_A_BYTE
