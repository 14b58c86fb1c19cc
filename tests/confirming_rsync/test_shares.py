"""Files move from real rsync servers, and each is confirmed exactly when its source is gone."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from confirming_rsync.program import (
    DAEMON_ENVIRONMENT,
    FILE_LIST,
    OPTIONS,
    TARGET,
    URL,
    Program,
    Result,
    names,
    real_binary,
    run,
)
from support import daemon, processes
from support.rsync_server import RsyncServer
from support.waiting import wait_until

SHARE = Path("/srv/share")
STATE = Path("/srv/state")
VERBOSITIES = [2, None]


@pytest.fixture(name="server", params=VERBOSITIES, ids=["reports-removals", "default-verbosity"])
def server_fixture(request: pytest.FixtureRequest) -> Iterator[RsyncServer]:
    """A server that reports what it removes, and one that does not."""
    daemon.install_password_file()
    with RsyncServer("127.0.0.1", SHARE, STATE, max_verbosity=request.param, log=True) as server:
        yield server


@pytest.fixture(name="reporting")
def reporting_fixture() -> Iterator[RsyncServer]:
    """A server that reports what it removes."""
    daemon.install_password_file()
    with RsyncServer("127.0.0.1", SHARE, STATE, log=True) as server:
        yield server


def make(name: str | bytes, size: int = 100) -> None:
    """Puts a file with a content of its own into the share."""
    path = os.path.join(os.fsencode(SHARE), os.fsencode(name))
    os.makedirs(os.path.dirname(path), exist_ok=True)
    seed = os.fsencode(name) + b"\0"
    with open(path, "wb") as file:
        file.write((seed * (size // len(seed) + 1))[:size])


def contents(root: Path) -> dict[str, bytes | str]:
    """All files below a folder: content, or target of a link."""
    found: dict[str, bytes | str] = {}
    for folder, _, files in os.walk(root):
        for name in files:
            path = os.path.join(folder, name)
            relative = os.path.relpath(path, root)
            if os.path.islink(path):
                found[relative] = os.readlink(path)
            else:
                with open(path, "rb") as file:
                    found[relative] = file.read()
    return found


def check(result: Result, before: dict[str, bytes | str]) -> None:
    """Confirmed is exactly what is gone at the source, once each, and all of that has arrived."""
    at_source, arrived = contents(SHARE), contents(TARGET)
    gone = {name for name in before if name not in at_source}
    assert sorted(result.confirmed) == sorted(gone)
    for name in gone:
        assert arrived[name] == before[name]
    # What the daemon would report as lost: announced and not confirmed.
    assert set(result.sent) - gone <= set(at_source)
    positions = {line: index for index, line in enumerate(result.lines)}
    for name in result.sent:
        confirmed = positions.get(f"CONFIRMED: removed {name}")
        assert confirmed is None or positions[f"SENT: {name}"] < confirmed


def test_files_of_all_kinds_move(server: RsyncServer) -> None:
    assert server.pid
    for name in ("a", "sub/b", "sub/deep/c", "two words", "q'u\"o", "empty"):
        make(name, 0 if name == "empty" else 1000)
    (SHARE / "link").symlink_to("a")
    (SHARE / "sub/dangling").symlink_to("nowhere")
    os.link(SHARE / "a", SHARE / "hard")
    os.link(SHARE / "a", SHARE / "sub/harder")
    os.mkfifo(SHARE / "fifo")
    (SHARE / "emptydir").mkdir()
    listed = [
        *("a", "sub/b", "sub/deep/c", "two words", "q'u\"o", "empty", "link", "sub/dangling"),
        *("hard", "sub/harder", "fifo"),
    ]
    names(*listed, "emptydir")
    result = run(real_binary())
    assert result.status == 0
    assert sorted(result.confirmed) == sorted(listed)
    assert sorted(result.sent) == sorted(listed)
    for name in listed:
        assert not os.path.lexists(SHARE / name)
        assert os.path.lexists(TARGET / name)
    assert (TARGET / "a").read_bytes() == (TARGET / "sub/harder").read_bytes() != b""
    assert (TARGET / "a").stat().st_nlink == 3
    assert (TARGET / "emptydir").is_dir() and (SHARE / "emptydir").is_dir()
    for name in listed:
        lines = result.lines
        assert lines.index(f"SENT: {name}") < lines.index(f"CONFIRMED: removed {name}")


def test_part_of_a_set_of_hard_links_moves(server: RsyncServer) -> None:
    assert server.pid
    make("a")
    os.link(SHARE / "a", SHARE / "b")
    before = contents(SHARE)
    for name in ("a", "b"):
        names(name)
        result = run(real_binary())
        assert result.sent == result.confirmed == [name]
    assert contents(TARGET) == before


def test_files_that_are_up_to_date_are_confirmed(server: RsyncServer) -> None:
    assert server.pid
    make("same")
    make("mode")
    make("new")
    (SHARE / "link").symlink_to("same")
    os.link(SHARE / "same", SHARE / "hard")
    before = contents(SHARE)
    TARGET.mkdir()
    subprocess.run(["cp", "-a", *(SHARE / n for n in ("same", "mode", "link")), TARGET], check=True)
    (TARGET / "mode").chmod(0o600)
    names("same", "mode", "new", "link", "hard", "gone")
    result = run(real_binary())
    assert result.status == 23  # for the name that is not there
    check(result, before)
    assert sorted(result.confirmed) == ["hard", "link", "mode", "new", "same"]


def test_vanished_names_are_not_confirmed_even_if_they_are_at_the_target(
    server: RsyncServer,
) -> None:
    assert server.pid
    make("a")
    TARGET.mkdir()
    (TARGET / "old").write_text("of an earlier run", encoding="ascii")
    names("old", "gone", "a")
    result = run(real_binary())
    assert result.confirmed == ["a"]
    assert result.status == 23


def test_run_of_vanished_names_lasts_a_second(server: RsyncServer) -> None:
    make("two words")
    TARGET.mkdir()
    (TARGET / "two").touch()
    names("two", "gone/too")
    result = run(real_binary())
    assert (result.sent, result.confirmed, result.status) == ([], [], 23)
    assert 'link_stat "/two" (in ramdisk) failed: No such file' in result.report.decode()
    assert result.seconds >= 1
    assert server.connections() == 1


def test_names_of_any_bytes(server: RsyncServer) -> None:
    assert server.pid
    raw = [
        b"\xe4\xf6\xfc",
        "gr\u00fc\u00df".encode(),
        b"\x7f",
        b"tab\there",
        b"back\\slash",
        b"#hash",
        b";semi",
        b"-dash",
        b" lead",
        b"trail ",
        b"SENT: x",
        b"sender removed y",
        b"CONFIRMED: removed z",
        b"a -> b",
        b'"quoted"',
        b'" (in ramdisk) failed: No such file or directory (2)',
    ]
    for name in raw:
        make(name)
    before = contents(SHARE)
    names(*raw)
    result = run(real_binary())
    assert result.status == 0
    check(result, before)
    assert sorted(os.fsencode(name) for name in result.confirmed) == sorted(raw)


def test_names_with_control_characters_are_shown_escaped(server: RsyncServer) -> None:
    assert server.pid
    make(b"n\x01l")
    make(b"\\#012")
    names(b"n\x01l", b"\\#012")
    result = run(real_binary())
    assert sorted(result.confirmed) == ["\\#134#012", "n\\#001l"]
    assert contents(SHARE) == {}


@pytest.mark.parametrize(
    "uid, gid, expected",
    [
        ("1234", "567", (1234, 567)),
        ("1234", "", (1234, 4)),
        ("", "567", (3, 567)),
        ("", "", (0, 0)),  # as whoever copies
    ],
)
def test_owner_is_set(
    reporting: RsyncServer, uid: str, gid: str, expected: tuple[int, int]
) -> None:
    assert reporting.pid
    make("a")
    os.chown(SHARE / "a", 3, 4)
    names("a")
    result = run(real_binary(), environment={"RSYNC_UID": uid, "RSYNC_GID": gid})
    assert result.confirmed == ["a"]
    status = (TARGET / "a").stat()
    # What is given is set; if only one is, the other stays as at the source.
    assert (status.st_uid, status.st_gid) == expected


def test_wrong_password_confirms_nothing(reporting: RsyncServer) -> None:
    assert reporting.pid
    daemon.PASSWORD_FILE.write_text("wrong\n", encoding="ascii")
    make("a")
    TARGET.mkdir()
    shutil.copy2(SHARE / "a", TARGET / "a")
    names("a")
    result = run(real_binary())
    assert (result.sent, result.confirmed, result.status) == ([], [], 5)
    assert result.seconds >= 1


def test_no_server_confirms_nothing() -> None:
    daemon.install_password_file()
    names("a")
    result = run(real_binary())
    assert (result.sent, result.confirmed, result.status) == ([], [], 10)
    assert result.seconds >= 1


def test_listing_is_that_of_stock_rsync(reporting: RsyncServer) -> None:
    make(b"\xe4")
    arguments = ["-mrlDHW", "--list-only", f"--password-file={daemon.PASSWORD_FILE}", reporting.url]
    result = Program(real_binary(), arguments).finish()
    assert result.status == 0
    assert result.report == subprocess.run(
        ["/usr/bin/rsync", "-8", *arguments],
        check=True,
        env=DAEMON_ENVIRONMENT,
        stdout=subprocess.PIPE,
    ).stdout
    assert b"\xe4\n" in result.report


def test_directory_below_the_module(server: RsyncServer) -> None:
    """Some servers then look for the file in the wrong directory: what stays is not confirmed."""
    assert server.pid
    make("data/a")
    make("data/sub/b")
    names("a", "sub/b", "gone")
    result = Program(real_binary(), [*OPTIONS, URL + "data/", f"{TARGET}/./"]).finish()
    left = contents(SHARE)
    gone = {name for name in ("a", "sub/b") if f"data/{name}" not in left}
    assert set(result.confirmed) == gone
    assert set(contents(TARGET)) == {"a", "sub/b"}


class TestBreaks:
    """Whatever ends the copy: confirmed is what is gone, and a later run moves the rest."""

    COUNT = 300

    @pytest.fixture(autouse=True)
    def frames(self, server: RsyncServer) -> dict[str, bytes | str]:
        """Files enough that something is under way for a while."""
        assert server.pid
        for number in range(self.COUNT):
            make(f"frame-{number:04}", 20_000)
        names(*(f"frame-{number:04}" for number in range(self.COUNT)))
        return contents(SHARE)

    def start(self) -> Program:
        """A copy that takes a few seconds and is in the middle of it."""
        program = Program(real_binary(), extra=["--bwlimit=2000"])
        program.read_until("SENT: frame-0030\n")
        return program

    def move_the_rest(self, frames: dict[str, bytes | str], confirmed: list[str]) -> None:
        """Runs once more and checks that each file was confirmed once."""
        rest = contents(SHARE)
        names(*rest)
        result = run(real_binary())
        if rest:
            assert result.status == 0
        check(result, rest)
        assert contents(SHARE) == {}
        assert contents(TARGET) == frames
        assert sorted(confirmed + result.confirmed) == sorted(frames)

    def test_connection_breaks(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        program = self.start()
        for pid in server.connection_pids():
            os.kill(pid, signal.SIGKILL)
        result = program.finish()
        assert result.status not in (0, 23)
        assert 0 < len(result.confirmed) < self.COUNT
        check(result, frames)
        self.move_the_rest(frames, result.confirmed)

    def test_server_goes_and_stays_away(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        program = self.start()
        server.kill()
        result = program.finish()
        gone = set(frames) - set(contents(SHARE))
        assert set(result.confirmed) <= gone
        if set(result.sent) - set(result.confirmed):
            assert "rsync_orbelin: cannot ask the source what is still there" in "".join(
                result.lines[-1:]
            )

    def test_program_is_told_to_stop(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        assert server.pid
        program = self.start()
        program.signal(signal.SIGTERM)
        result = program.finish()
        assert result.status == -signal.SIGTERM
        assert 0 < len(result.confirmed) < self.COUNT
        check(result, frames)
        self.no_rsync_is_left(program)
        self.move_the_rest(frames, result.confirmed)

    @pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGABRT])
    def test_program_is_killed(
        self, server: RsyncServer, frames: dict[str, bytes | str], number: signal.Signals
    ) -> None:
        assert server.pid
        program = self.start()
        program.signal(number)
        result = program.finish()
        assert result.status == -number
        self.no_rsync_is_left(program)
        self.wait_for_the_server(server)
        assert set(result.confirmed) <= set(frames) - set(contents(SHARE))
        assert [name for name in contents(TARGET) if name not in frames] == []

    def test_reader_goes_away(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        assert server.pid
        program = self.start()
        program.close_report()
        assert program.finish().status == -signal.SIGPIPE
        self.no_rsync_is_left(program)
        self.wait_for_the_server(server)
        assert len(contents(SHARE)) > 0
        assert [name for name in contents(TARGET) if name not in frames] == []

    def test_files_vanish_while_the_copy_runs(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        assert server.pid
        program = self.start()
        vanished = [f"frame-{number:04}" for number in range(self.COUNT - 50, self.COUNT)]
        for name in vanished:
            (SHARE / name).unlink()
        result = program.finish()
        assert result.status in (0, 23, 24)
        assert sorted(result.confirmed) == sorted(set(frames) - set(vanished))
        assert contents(TARGET).keys() == set(frames) - set(vanished)

    @staticmethod
    def wait_for_the_server(server: RsyncServer) -> None:
        """Waits until the server has noticed that its client is gone."""
        wait_until(lambda: not server.connection_pids(), "the server to end the connection")

    @staticmethod
    def no_rsync_is_left(program: Program) -> None:
        """Waits until no process of the copy is left, whoever its parent is now."""

        def left() -> list[processes.Process]:
            return [
                each
                for each in processes.processes()
                if not each.is_zombie and each.session == program.pid
            ]

        wait_until(lambda: not left(), lambda: f"the processes of the copy to end: {left()}")


@pytest.fixture(name="small_target")
def small_target_fixture() -> Iterator[None]:
    """A target with room for ten files of 20 kB."""
    TARGET.mkdir()
    subprocess.run(
        ["mount", "-n", "-t", "tmpfs", "-o", "size=240k", "tmpfs", TARGET], check=True
    )
    yield
    subprocess.run(["umount", "-n", TARGET], check=True)


def test_full_target(server: RsyncServer, small_target: None) -> None:
    assert server.pid and small_target is None
    for number in range(40):
        make(f"frame-{number:02}", 20_000)
    before = contents(SHARE)
    names(*before)
    result = run(real_binary())
    assert result.status not in (0, 23, 24)
    assert 0 < len(result.confirmed) < 40
    check(result, before)
    assert "No space left on device" in result.report.decode()


def test_list_that_is_missing_is_the_complaint_of_rsync(reporting: RsyncServer) -> None:
    assert reporting.pid
    assert not FILE_LIST.exists()
    result = run(real_binary())
    assert result.status != 0
    assert any(line.startswith("rsync:") for line in result.lines)
    assert result.seconds >= 1
