"""The daemon's log texts and command lines, byte for byte, as functions of what varies."""

from __future__ import annotations

import re
from collections.abc import Iterable

from support.daemon import COPY_PROGRAM, LOG_FILE, PASSWORD_FILE, VERSION

# "Sun Nov 21 05:05:05 2026"
DATE = (
    r"(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun) "
    r"(?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123]\d \d\d:\d\d:\d\d \d{4}"
)
SEPARATOR = "+" * 60 + "\n ++++\n"
BLOCK_BEGIN = "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n"
BLOCK_END = "++ RSYNC OUTPUT END ++++++++++++++++++++\n"
NO_FIFO = "++ Warning: No pipe to VANTREL\n"

USAGE = (
    "Usage: \n"
    "      skarn ( start | restart ) [start options] | stop | status\n"
    "            Start options:\n"
    "            -u, --user UID:GID\n"
    "                  Set uid (gid) of the copied files to UID (GID).\n"
    "            -d, --detector DETECTOR_ID:SOURCE:TARGET\n"
    "                  Set source (target) of the detector DETECTOR_ID\n"
    "                  to SOURCE (TARGET).\n"
)


def banner(date: str) -> str:
    """The start banner; `date` as asctime gives it, without its line feed."""
    rule = "+" * 78
    return (
        f"\n\n\n\n{rule}\n\n++ skarn {VERSION} started\n++ on {date}\n\n{rule}\n\n\n\n\n++\n"
    )


def settings(
    logfile: object = LOG_FILE, max_size: int = 10485760, max_number: int = 10
) -> str:
    """The settings block behind the banner."""
    return (
        "++ settings:\n++ ---------\n++\n"
        f"++ logfile: {logfile}\n"
        f"++    max size of logfile: {max_size}\n"
        f"++    max # of backuped logfiles: {max_number}\n"
        "\n++ current directory: /\n++\n++\n"
    )


def starting_thread(detector: str) -> str:
    """The main thread's line for one detector."""
    return f"++ Starting copy thread for detector {detector}\n"


def starting(detector: str, processes: int) -> str:
    """The worker's line before it starts copy processes."""
    return f"{detector} Starting {processes} copy processes\n"


def url(address: str = "127.0.0.1", source: str = "/") -> str:
    """A share's URL."""
    return f"rsync://root@{address}:49371/ramdisk{source}"


def copy_command(file_list: str, share: str, target: str) -> str:
    """The copy command as the log shows it; `target` as the daemon stores it."""
    return (
        f"{COPY_PROGRAM} -vthlDHW  --remove-source-files --numeric-ids --confirm-files"
        f" --out-format='SENT: %n' --password-file={PASSWORD_FILE}"
        f" --files-from={file_list} {share} {target}/"
    )


def copy_arguments(file_list: str, share: str, target: str) -> list[str]:
    """The copy command as the copy program gets it."""
    return [
        str(COPY_PROGRAM),
        "-vthlDHW",
        "--remove-source-files",
        "--numeric-ids",
        "--confirm-files",
        "--out-format=SENT: %n",
        f"--password-file={PASSWORD_FILE}",
        f"--files-from={file_list}",
        share,
        f"{target}/",
    ]


def listing_arguments(share: str) -> list[str]:
    """The listing command as the copy program gets it."""
    return [
        str(COPY_PROGRAM),
        "-mrlDHW",
        "--list-only",
        "--exclude=**.tmp",
        f"--password-file={PASSWORD_FILE}",
        share,
    ]


def rsync_call(detector: str, command: str) -> str:
    """The worker's line before one copy process."""
    return f"{detector}: rsync call: {command}\n"


def ended(detector: str, pid: int) -> str:
    """The worker's line for a copy process that ended."""
    return f"{detector}: Child process {pid} terminated \n"


def removed(detector: str, file_list: str) -> str:
    """The worker's line for a file list that it removed."""
    return f"{detector}: Removed file {file_list}\n"


def summary(names: list[str]) -> str:
    """The summary of the names that were confirmed, in their order; none without names."""
    if not names:
        return ""
    return f"Copied {len(names)} files in the range of: {names[0]} ... {names[-1]}\n"


def block(output: str = "", confirmed: Iterable[str] = (), lost: Iterable[str] = ()) -> str:
    """What an evaluator logs at the end of a report."""
    return (
        "".join(f"Error: Lost {name}\n" for name in lost)
        + BLOCK_BEGIN
        + output
        + summary(list(confirmed))
        + BLOCK_END
    )


def date_in(log: str) -> str:
    """The date of the only banner in a log."""
    found: list[str] = re.findall(rf"^\+\+ on ({DATE})$", log, re.MULTILINE)
    assert len(found) == 1, log
    return found[0]
