"""What a share says, and what others plant, that must not be believed or passed on as it is."""

from __future__ import annotations

import os
import re
import subprocess
import time
from pathlib import Path

import pytest

from confirming_rsync.disk import ext4
from confirming_rsync.listing import (
    LISTING,
    MOVE,
    RECEIVE,
    called,
    copy,
    cycle,
    journals,
    list_share,
    recovered,
    remarks,
    script,
    strace,
)
from confirming_rsync.program import (
    DAEMON_ENVIRONMENT,
    FILE_LIST,
    TARGET,
    URL,
    Program,
    measures_memory,
    names,
    real_binary,
    run,
    scripted_binary,
)
from support import daemon
from support.rsync_server import RsyncServer

SECRET = Path("/srv/secret")
MEBIBYTE = 1024 * 1024


def plant_link() -> None:
    """At the target, a folder is a link to what is not the share's; as if it had been received."""
    (SECRET / "sub").mkdir(parents=True)
    (SECRET / "key").write_text("of another", "ascii")
    (SECRET / "sub/key").write_text("of another", "ascii")
    TARGET.mkdir(exist_ok=True)
    (TARGET / "d").symlink_to(SECRET)


CLAIMS = {
    "removed": 'out("sender removed d/key\\nsender removed d/sub/key\\n")',
    "sent and removed": 'out("SENT: d/key\\nsender removed d/key\\n")\n'
    'out("SENT: d/sub/key\\nsender removed d/sub/key\\n")',
    "removed and sent": 'out("sender removed d/key\\nsender removed d/sub/key\\n")\n'
    'out("SENT: d/key\\nSENT: d/sub/key\\n")',
    "sent and gone": 'out("SENT: d/key\\nSENT: d/sub/key\\n")',
    "up to date and gone": 'out("receiving file list ... done\\n")',
    "sent, and broken off": 'out("SENT: d/key\\nSENT: d/sub/key\\n")\nsys.exit(12)',
    "already confirmed": 'out("CONFIRMED: removed d/key\\n CONFIRMED: removed d/sub/key\\n")',
}


@pytest.mark.parametrize("claim", CLAIMS)
@pytest.mark.parametrize("on_disk", [False, True], ids=["in-memory", "on-disk"])
def test_nothing_behind_a_link_is_announced(claim: str, on_disk: bool) -> None:
    if on_disk:
        with ext4(TARGET):
            claim_files_behind_a_link(CLAIMS[claim])
    else:
        claim_files_behind_a_link(CLAIMS[claim])


def claim_files_behind_a_link(claim: str) -> None:
    """Has a share claim, in each pass, to have given what is at the target already."""
    plant_link()
    names("d/key", "d/sub/key", "good")
    asked = "for name in mine: missing(name)\nsys.exit(23)"
    script('receive("good")\nremove("good")\n' + claim, removing=claim, asked=asked)
    result = copy().finish()
    assert set(result.confirmed) <= {"good"} and recovered(result) == []
    assert not [line for line in result.lines if re.match(r"\s*CONFIRMED:.*key", line)]
    for _ in range(2):
        assert set(cycle("c").recovered) <= {"good"}
    assert (SECRET / "key").read_text("ascii") == "of another"


@pytest.mark.parametrize("on_disk", [False, True], ids=["in-memory", "on-disk"])
def test_what_is_not_in_place_is_not_announced_whatever_the_share_says(on_disk: bool) -> None:
    def claim() -> None:
        names("nowhere", "folder", "good")
        (TARGET / "folder").mkdir(parents=True)
        lies = 'out("SENT: nowhere\\nsender removed nowhere\\nsender removed folder\\n")\n'
        script(lies + MOVE.replace("*mine", '"good"'), removing=lies + 'remove("good")')
        result = copy().finish()
        assert result.confirmed == ["good"]
        assert cycle("c").recovered == []

    if on_disk:
        with ext4(TARGET):
            claim()
    else:
        claim()


def test_a_removal_that_is_claimed_before_it_was_asked_for_confirms_nothing() -> None:
    with ext4(TARGET):
        names("a", "b")
        script(RECEIVE + '\nout("sender removed a\\n")\nsys.exit(23)', removing="sys.exit(5)")
        result = copy(before=strace("-e", "inject=syncfs:error=EIO")).finish()
        assert result.confirmed == [] and result.sent == []
        assert "sender removed a" in result.lines


def test_only_names_of_the_list_are_confirmed() -> None:
    names("a", "folder")
    script(
        'receive("a", "other", "folder/x")\nremove("a", "other", "folder/x", "../outside", "/etc")'
    )
    result = copy().finish()
    assert result.confirmed == ["a"]
    assert "sender removed other" in result.lines


LINES = {
    "++ RSYNC OUTPUT END": "rsync: ++ RSYNC OUTPUT END",
    "  ++ RSYNC OUTPUT BEGIN": "rsync:   ++ RSYNC OUTPUT BEGIN",
    "\t++": "rsync: \t++",
    "Copied 7 files in the range of:": "rsync: Copied 7 files in the range of:",
    " Copied 1 file": "rsync:  Copied 1 file",
    "CONFIRMED: removed x": "rsync: CONFIRMED: removed x",
    "CONFIRMED: recovered x": "rsync: CONFIRMED: recovered x",
    "Copiedmore": "Copiedmore",
    "a Copied file": "a Copied file",
    "one \x9b2J two\x7f\x80": "one \\#2332J two\\#177\\#200",
}


@pytest.mark.parametrize("stream", ["out", "err"])
def test_lines_that_the_daemon_or_a_terminal_would_take_for_others_are_marked(stream: str) -> None:
    names("a")
    script("".join(f"{stream}({line!r} + '\\n')\n" for line in LINES))
    result = copy().finish()
    expected = [line.encode("latin-1") for line in LINES.values()]
    assert result.report.splitlines() == expected


def test_a_name_keeps_its_bytes() -> None:
    names(b"\x9b2J\xe4\x7f")
    script()
    assert copy().finish().report == b"SENT: \x9b2J\xe4\x7f\nCONFIRMED: removed \x9b2J\xe4\x7f\n"


def test_no_message_of_the_day_is_shown() -> None:
    class Talkative(RsyncServer):
        """Greets every client with lines of a listing."""

        def _write_configuration(self) -> Path:
            message = Path("/srv/motd")
            message.write_text("-rw-r--r-- 9 2024/05/06 07:08:09 d/key\nCopied 3 files\n", "ascii")
            configuration = super()._write_configuration()
            text = configuration.read_text("utf-8")
            configuration.write_text(f"motd file = {message}\n{text}", "utf-8")
            return configuration

    daemon.install_password_file()
    share = Path("/srv/share")
    with Talkative("127.0.0.1", share, Path("/srv/state")):
        (share / "a").write_text("content", "ascii")
        password = f"--password-file={daemon.PASSWORD_FILE}"
        call = [option for option in LISTING if "password" not in option] + [password, URL]
        listing = Program(real_binary(), call).finish()
        assert listing.status == 0
        assert [line.split()[4] for line in listing.lines] == [".", "a"]
        names("a")
        result = run(real_binary())
        assert result.confirmed == ["a"] and "d/key" not in result.report.decode()
        assert "Copied" not in result.report.decode()


def test_of_a_listings_complaints_a_mebibyte_is_passed_on() -> None:
    line = "x" * 999 + "\n"
    script(listing=f"for _ in range(200): err({line!r} * 1000)\nshow('a')\nsys.exit(23)")
    errors, listing = Path("/srv/errors"), Path("/srv/listing")
    with open(errors, "wb") as error_file, open(listing, "wb") as listing_file:
        process = subprocess.run(
            [scripted_binary(), *LISTING, URL],
            env=DAEMON_ENVIRONMENT,
            stdin=subprocess.DEVNULL,
            stdout=listing_file,
            stderr=error_file,
            timeout=60,
            check=False,
        )
    assert process.returncode == 23
    assert errors.stat().st_size == MEBIBYTE
    assert errors.read_bytes() == (line * 1049).encode()[:MEBIBYTE]
    assert listing.read_text("ascii").endswith(" a\n")


def resident(pid: int) -> int:
    """The bytes of memory that a process has."""
    text = Path(f"/proc/{pid}/status").read_text("ascii")
    match = re.search(r"^VmRSS:\s+(\d+) kB$", text, re.MULTILINE)
    assert match
    return int(match[1]) * 1024


def check_that_memory_stays(program: Program, most: int) -> None:
    """Reads so many megabytes of a report without end, and sees that the program keeps none."""
    assert program._pipe is not None
    sizes = []
    for megabytes in (2, most):
        read = 0
        while read < megabytes * MEBIBYTE:
            read += len(os.read(program._pipe, 65536))
        sizes.append(resident(program.pid))
    program.close_report()
    program.process.wait(30)
    if measures_memory():
        assert sizes[1] - sizes[0] < 4 * MEBIBYTE, sizes


@pytest.mark.parametrize("kind", ["copy", "listing"])
def test_memory_does_not_grow_with_the_report(kind: str) -> None:
    flood = "line = b'x' * 999 + b'\\n'\nwhile True: out(line * 8)"
    names("a")
    script(flood, listing=flood)
    program = copy() if kind == "copy" else Program(scripted_binary(), [*LISTING, URL])
    check_that_memory_stays(program, 60)


def test_memory_does_not_grow_with_the_complaints() -> None:
    names("a", "b")
    script("number = 0\nwhile True:\n    number += 1\n    missing('%0900d' % number)")
    program = copy()
    check_that_memory_stays(program, 20)


def not_used(reason: str) -> str:
    """What is said of a list that is not used."""
    return f"rsync_orbelin: the list {FILE_LIST} is not used: {reason}"


FOREIGN = "others than its user may have written it"


@pytest.mark.parametrize(
    "what, reason",
    [
        ("missing", "No such file or directory"),
        ("link", "it is a link"),
        ("dangling link", "it is a link"),
        ("second hard link", FOREIGN),
        ("foreign owner", FOREIGN),
        ("writable by others", FOREIGN),
        ("fifo", FOREIGN),
        ("folder", FOREIGN),
    ],
)
def test_a_list_that_others_could_have_made_is_not_used(what: str, reason: str) -> None:
    other = Path("/tmp/other")
    if what == "dangling link":
        FILE_LIST.symlink_to(other)
    elif what == "fifo":
        os.mkfifo(FILE_LIST, 0o600)
    elif what == "folder":
        FILE_LIST.mkdir()
    elif what != "missing":
        names("a")
    if what == "link":
        FILE_LIST.rename(other)
        FILE_LIST.symlink_to(other)
    elif what == "second hard link":
        os.link(FILE_LIST, other)
    elif what == "foreign owner":
        os.chown(FILE_LIST, 1234, 1234)
    elif what == "writable by others":
        FILE_LIST.chmod(0o666)
    script()
    result = copy().finish()
    assert result.lines == [not_used(reason)] and result.status == 3 and result.seconds >= 1
    assert called() == [] and journals() == []


@pytest.mark.parametrize(
    "call, error, reason",
    [
        ("openat", "EMFILE", "Too many open files"),
        ("openat", "ENFILE", "Too many open files in system"),
        ("openat", "ENOMEM", "Cannot allocate memory"),
        ("read", "EIO", "Input/output error"),
        ("read", "ENOMEM", "Cannot allocate memory"),
        ("fstat,newfstatat", "EIO", "Input/output error"),
    ],
)
def test_a_list_that_cannot_be_read_is_not_used(call: str, error: str, reason: str) -> None:
    names("a")
    script()
    inject = strace("-P", str(FILE_LIST), "-e", f"inject={call}:error={error}")
    result = copy(before=inject).finish()
    assert result.lines == [not_used(reason)] and result.status == 3
    assert called() == [] and journals() == []
    assert copy().finish().confirmed == ["a"]


def test_a_list_whose_second_part_cannot_be_read_is_not_used() -> None:
    names(*(f"{index:0900}" for index in range(200)))
    script()
    inject = strace("-P", str(FILE_LIST), "-e", "inject=read:error=EIO:when=2")
    assert copy(before=inject).finish().lines == [not_used("Input/output error")]
    assert called() == []


def test_a_list_that_appears_after_the_look_for_it_is_never_used() -> None:
    script()
    program = copy(before=strace("-P", str(FILE_LIST), "-e", "inject=openat:delay_exit=500000"))
    time.sleep(0.3)
    names("a")
    result = program.finish()
    assert result.lines == [not_used("No such file or directory")] and called() == []


def test_an_empty_list_starts_no_rsync() -> None:
    for content in (b"", b"\n\n", b"../x\nfolder/\n.\n"):
        FILE_LIST.write_bytes(content)
        script()
        result = copy().finish()
        assert result.status == 0 and result.confirmed == [] and called() == []
        assert len(remarks(result)) == (1 if b"x" in content else 0)


def test_a_share_that_lists_the_reminder_itself_gains_nothing() -> None:
    script(listing='show("/rsync_orbelin:recovery", "/etc/passwd")')
    assert list_share().status == 0
    names("/rsync_orbelin:recovery", "/etc/passwd")
    result = copy().finish()
    # An absolute name is one below the source.
    assert [call["input"] for call in called("copying")] == ["etc/passwd\0"]
    assert result.confirmed == ["etc/passwd"] and recovered(result) == []
