"""The copy program is replaced by one that can't run or does not behave, and put back."""

from __future__ import annotations

import os
import shlex
from pathlib import Path
from random import Random

from faults.bed import Bed
from faults.fault import Fault, register
from support.daemon import COPY_PROGRAM, install_copy_program

# What a bad program makes up; the workload has no such names. The empty one is what the daemon
# makes of a confirmation without a name.
MADE_UP = "made_up_name"

# Lists as the good program does and reads the first two names to be copied; then comes what is bad.
LISTS_WELL = """\
#!/bin/sh
copying= names=
for word; do
    case $word in
        --confirm-files) copying=yes ;;
        --files-from=*) names=${{word#--files-from=}} ;;
    esac
done
[ -n "$copying" ] || exec {good} "$@"
{{ read -r first; read -r second; }} <"$names"
"""


def good_program() -> Path:
    """The copy program that is put back."""
    return Path(os.environ["CONFIRMING_RSYNC_BINARY"])


class BadCopyProgram(Fault):
    """Puts another program in the copy program's place for a while.

    Only copying is bad unless a fault says otherwise: the daemon would otherwise see empty
    listings alone.
    """

    hold = (0.2, 1.5)

    def script(self, rng: Random) -> str:
        """The shell commands that stand for copying; "$first" and "$second" are names to copy."""
        raise NotImplementedError

    def inject(self, bed: Bed, rng: Random) -> int:
        put_in_place(lists_well(self.script(rng)))
        return int(bool(bed.wait_copying(5)))

    def heal(self, bed: Bed) -> None:
        install_copy_program(good_program())


def lists_well(copying: str) -> str:
    """A script that lists as the good program does, and for copying runs these commands."""
    return LISTS_WELL.format(good=shlex.quote(str(good_program()))) + copying


def put_in_place(text: str, mode: int = 0o755) -> None:
    """Makes a script the copy program, in one step."""
    fresh = COPY_PROGRAM.with_name("bad.new")
    fresh.write_text(text, encoding="utf-8")
    fresh.chmod(mode)
    fresh.rename(COPY_PROGRAM)


@register
class CopyProgramMissing(BadCopyProgram):
    """The file is gone; a copy process that was about to start ends at once."""

    name = "program-missing"
    title = "copy program missing for a while"
    alone = True  # a daemon does not start without it

    def inject(self, bed: Bed, rng: Random) -> int:
        COPY_PROGRAM.unlink()
        return 1


@register
class CopyProgramNotExecutable(BadCopyProgram):
    """The file has lost its mode."""

    name = "program-not-executable"
    title = "copy program not executable for a while"
    alone = True

    def inject(self, bed: Bed, rng: Random) -> int:
        COPY_PROGRAM.chmod(0o644)
        return 1


@register
class CopyProgramCutOff(BadCopyProgram):
    """The file is executable and no program: what a copy onto a full disk leaves.

    Empty, one byte of it, or so much that its beginning is loaded: what lies between, a shell
    would run as a script.
    """

    name = "program-cut-off"
    title = "copy program cut off or empty"

    def inject(self, bed: Bed, rng: Random) -> int:
        whole = good_program().read_bytes()
        fresh = COPY_PROGRAM.with_name("bad.new")
        fresh.write_bytes(whole[: rng.choice((0, 1, len(whole) * 2 // 3))])
        fresh.chmod(0o755)
        fresh.rename(COPY_PROGRAM)
        return 1


@register
class CopyProgramSilent(BadCopyProgram):
    """It says and does nothing, and ends well or badly."""

    name = "program-silent"
    title = "copy program prints nothing"

    def script(self, rng: Random) -> str:
        return f"exit {rng.choice((0, 0, 1, 127))}\n"


@register
class CopyProgramTalksNonsense(BadCopyProgram):
    """Binary data, NUL bytes, half lines, and lines that look like confirmations and are none.

    What is exactly a confirmation is handed off, as it has to be: these carry a name of the
    program's own. The others carry names that are to be copied, so that a daemon which takes one
    of them for a confirmation is found out.
    """

    name = "program-garbage"
    title = "copy program prints garbage"

    def prepare(self, bed: Bed) -> None:
        for station in bed.stations:
            station.ledger.made_up |= {MADE_UP, ""}

    def script(self, rng: Random) -> str:
        none_of_them = [
            # Two fields before the name, or one: whichever a careless reader would pass over.
            "printf 'CONFIRMED:x x %s\\nCONFIRMED:x %s\\n' \"$first\" \"$first\"",
            "printf 'xCONFIRMED: x %s\\n' \"$first\"",
            "printf 'CONFIRMED : x %s\\nCONFIRMED x %s\\n' \"$second\" \"$second\"",
            "printf 'confirmed: x %s\\n' \"$second\"",
            "printf 'CONFIRMED\\n: x %s\\n' \"$first\"",
            "printf 'CONFIRMED:\\0 x %s\\n' \"$first\"",
            "printf '\\0CONFIRMED: x %s\\n' \"$first\"",
            "printf 'a\\0\\nb\\0CONFIRMED: x %s\\n' \"$second\"",
            "printf '.CONFIRMED: x %s\\n' \"$second\"",
            "printf 'x CONFIRMED: x %s\\n' \"$second\" >&2",
            "printf 'SENT:%s\\nSENT CONFIRMED: x %s\\n' \"$first\" \"$second\"",
            "printf 'SENT: %s\\n' \"$first\" \"$second\" \"$first\"",
            "printf 'SENT:\\n SENT: %s more words\\n' \"$second\"",
            f"printf 'CONFIRMED: {MADE_UP}\\n'",
            "head -c 5000 /dev/urandom; echo",
            "head -c 3000 /dev/zero; echo",
            "head -c 3000 /dev/zero | tr '\\0' x; echo",
            "printf '\\n\\n \\t\\r\\v\\f\\n\\r'; echo",
            f"printf 'CONFIRMED: x {MADE_UP}\\n'",
            "printf 'CONFIRMED:\\n'",
        ]
        rng.shuffle(none_of_them)
        some = none_of_them[: rng.randint(3, len(none_of_them))]
        # Not every report ends with a line's end, and not with a word's.
        end = rng.choice(("printf 'CONFIRMED: x'", "printf 'half'", "printf CONFIRM", ":"))
        return "\n".join([*some, end, f"exit {rng.choice((0, 23))}\n"])


@register
class CopyProgramListsNonsense(BadCopyProgram):
    """Listings too are garbage: names that no share has, and that no shell may see."""

    name = "program-garbage-listing"
    title = "copy program prints garbage as a listing"

    def inject(self, bed: Bed, rng: Random) -> int:
        lines = [
            "-rw-r--r-- 1 2024/05/06 07:08:09 ../../../etc/passwd",
            "-rw-r--r-- 1 2024/05/06 07:08:09 $(touch${IFS}/srv/a_command_was_run)",
            "-rw-r--r-- 1 2024/05/06 07:08:09 `touch${IFS}/srv/a_command_was_run`",
            "-rw-r--r-- 1 2024/05/06 07:08:09 ;touch${IFS}/srv/a_command_was_run;",
            "-rw-r--r-- 1 2024/05/06 07:08:09 --rsh=/srv/a_command_was_run",
            "-rw-r--r-- 1 2024/05/06 07:08:09 /etc/passwd",
            "-rw-r--r-- 1",
            "     ",
            "a b c d .hidden",
            "a b c d " + "x" * 5000,
        ]
        text = rng.sample(lines, rng.randint(1, len(lines)))
        garbage = "".join(f"echo {shlex.quote(line)}\n" for line in text)
        put_in_place(
            "#!/bin/sh\nfor word; do\n"
            f'    [ "$word" != --confirm-files ] || exec {shlex.quote(str(good_program()))} "$@"\n'
            f"done\nhead -c {rng.randint(0, 4000)} /dev/urandom\necho\n{garbage}"
        )
        return 1

    def check(self, bed: Bed) -> None:
        if Path("/srv/a_command_was_run").exists():
            bed.ledger.complain("a name from a listing was run as a command")


@register
class CopyProgramEndless(BadCopyProgram):
    """It prints until it has printed some megabytes, all of which the daemon keeps for its log."""

    name = "program-endless"
    title = "copy program prints without end (some MB each time)"
    rounds = 10

    def script(self, rng: Random) -> str:
        size = rng.randint(500_000, 4_000_000)
        line = rng.choice(("words without an end", "CONFIRMED : x y", "x" * 4000, ""))
        return f"exec yes {shlex.quote(line)} | head -c {size}\n"


@register
class CopyProgramClosesOutput(BadCopyProgram):
    """It closes its report early and lives on; the worker waits for its end."""

    name = "program-closes-output"
    title = "copy program closes its output and lives on"
    hold = (0.1, 0.6)

    def script(self, rng: Random) -> str:
        words = rng.choice((":", "echo some words", "printf 'half a line'"))
        return f"{words}\nexec >&- 2>&-\nexec sleep {rng.uniform(0.2, 1.5):.2f}\n"


@register
class CopyProgramLeavesGrandchild(BadCopyProgram):
    """A process that it started keeps the report open after its own end."""

    name = "program-leaves-grandchild"
    title = "a grandchild keeps the report open after the copy process"
    hold = (0.1, 0.6)

    def script(self, rng: Random) -> str:
        seconds = f"{rng.uniform(0.2, 1.5):.2f}"
        # The grandchild goes into a session of its own: nothing that ends the copy process ends it.
        return rng.choice(
            (
                f"setsid sleep {seconds} &\nexit 0\n",
                f"(setsid sleep {seconds}; echo 'the last word') &\nexit 1\n",
            )
        )
