#!/usr/bin/python3
"""A copy program that does in the simplest way what the power bed asks for, to try the bed with.

It copies, flushes and removes, and keeps the names of each copy in a file that is flushed with
them; after a start with another boot identity it announces those that are here and no longer at
the source. Installed with one of these words between the quotes below, it is a bad one that the bed
has to find out: removes-first, never-announces-again.
"""

import os
import subprocess
import sys
from pathlib import Path

MISTAKE = ""

RSYNC = "/usr/bin/rsync"
NOTES = Path("/var/lib/skarn/journal/stand_in")
REMINDER = "-rw-r--r-- 0 1970/01/01 00:00:00 /reminder"
ENVIRONMENT = {"PATH": "/usr/bin:/bin", "LC_ALL": "C"}


def lines_of(arguments: list[str]) -> list[str]:
    """What stock rsync prints."""
    done = subprocess.run([RSYNC, *arguments], capture_output=True, env=ENVIRONMENT, check=False)
    return os.fsdecode(done.stdout).splitlines()


def notes_of_other_boots(boot: str) -> list[Path]:
    """The files of names that copies before the last boot have left."""
    return [path for path in sorted(NOTES.glob("names-*")) if f"names-{boot}-" not in path.name]


def announce_old(boot: str, password: str, url: str, target: Path) -> None:
    """Announces what copies before the last boot moved."""
    old: list[str] = []
    for path in notes_of_other_boots(boot):
        mine = path.with_name(f"taken-{os.getpid()}")
        try:
            path.rename(mine)  # eight of them may begin at once
        except FileNotFoundError:
            continue
        old += os.fsdecode(mine.read_bytes()).splitlines()
        mine.unlink()
    if not old or MISTAKE == "never-announces-again":
        return
    announce_gone(old, "recovered", password, url, target)


def announce_gone(names: list[str], word: str, password: str, url: str, target: Path) -> None:
    """Announces those of the names that are here and no longer at the source."""
    listed = lines_of(["-r", "--list-only", "-8", password, url])
    still_there = {line.split(None, 4)[-1] for line in listed}
    for name in names:
        if name not in still_there and (target / name).exists():
            print(f"CONFIRMED: {word} {name}", flush=True)


def copy(arguments: list[str], boot: str) -> None:
    """Copies the names of a list, and announces them when they are safe."""
    words = [word for word in arguments if word != "--confirm-files"]
    listed = next(word for word in words if word.startswith("--files-from="))
    password = next(word for word in words if word.startswith("--password-file="))
    url, target = words[-2:]
    names = [name for name in Path(listed[13:]).read_text("utf-8").splitlines() if name]
    names = [name for name in names if not name.startswith("/")]
    NOTES.mkdir(parents=True, exist_ok=True)
    announce_old(boot, password, url, Path(target))
    notes = NOTES / f"names-{boot}-{os.getpid()}"
    notes.write_bytes(os.fsencode("".join(f"{name}\n" for name in names)))
    own = ["-8", "--sockopts=TCP_NODELAY", "--modify-window=-1"]
    if MISTAKE != "removes-first":
        # All anew: what is here may be what a cut has left, which looks right and is empty.
        copying = [word for word in words if word != "--remove-source-files"]
        lines_of([*own, "--ignore-times", *copying])
        subprocess.run(["/usr/bin/sync", "-f", target, str(notes)], env=ENVIRONMENT, check=True)
    lines_of([*own, *words])
    announce_gone(names, "x", password, url, Path(target))


def main() -> None:
    """Lists or copies."""
    boot = Path("/proc/sys/kernel/random/boot_id").read_text("ascii").strip()
    arguments = sys.argv[1:]
    if "--confirm-files" in arguments:
        copy(arguments, boot)
        return
    if notes_of_other_boots(boot):
        print(REMINDER, flush=True)
    os.execve(RSYNC, [RSYNC, "-8", *arguments], ENVIRONMENT)


if __name__ == "__main__":
    main()
