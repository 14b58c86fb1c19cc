"""Files move from real rsync servers, and each is confirmed exactly when its source is gone."""

from __future__ import annotations

import os
import re
import shutil
import signal
import subprocess
from collections.abc import Collection, Iterator
from pathlib import Path

import pytest

from confirming_rsync.program import (
    DAEMON_ENVIRONMENT,
    FILE_LIST,
    LISTING,
    OPTIONS,
    REMINDER,
    REMINDER_LINE,
    TARGET,
    URL,
    Program,
    Result,
    list_share,
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


def contents(root: Path, skipped: Collection[str] = ()) -> dict[str, bytes | str]:
    """All files below a folder, but those of the skipped names: content, or target of a link."""
    found: dict[str, bytes | str] = {}
    for folder, _, files in os.walk(root):
        for name in set(files).difference(skipped):
            path = os.path.join(folder, name)
            relative = os.path.relpath(path, root)
            if os.path.islink(path):
                found[relative] = os.readlink(path)
            else:
                with open(path, "rb") as file:
                    found[relative] = file.read()
    return found


def contents_of(root: Path, listed: list[str]) -> dict[str, bytes | str]:
    """The same of these alone; a pipe has none."""
    return {
        name: content
        for name, content in contents(root, skipped={"fifo"}).items()
        if name in listed
    }


def printed(name: bytes) -> bytes:
    """A name as rsync prints it."""
    escaped = re.sub(rb"\\(?=#[0-9]{3})", rb"\\#134", name)
    return re.sub(rb"[\x00-\x08\x0a-\x1f]", lambda found: b"\\#%03o" % found[0][0], escaped)


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


@pytest.fixture(name="below", params=VERBOSITIES, ids=["reports-removals", "default-verbosity"])
def below_fixture(request: pytest.FixtureRequest, chroot: bool) -> Iterator[RsyncServer]:
    """Servers of all four kinds, with a module whose files are to stay but for exp/run7."""
    daemon.install_password_file()
    with RsyncServer(
        "127.0.0.1", SHARE, STATE, max_verbosity=request.param, log=True, chroot=chroot
    ) as server:
        yield server


@pytest.mark.parametrize("chroot", [True, False], ids=["chroot", "no-chroot"])
class TestBelowTheModulesRoot:
    """A source below the module's root: its files move, and no others of the same name."""

    SOURCE = URL + "exp/run7/"

    @staticmethod
    def make_with_doubles(*made: str | bytes) -> dict[str, bytes | str]:
        """Makes files in exp/run7, others of the same name elsewhere; returns what has to stay."""
        for name in made:
            for folder in (b"", b"exp/", b"exp/run8/", b"exp/run7/exp/run7/"):
                make(folder + os.fsencode(name))
        stays = contents(SHARE)
        for name in made:
            make(b"exp/run7/" + os.fsencode(name))
        return stays

    def test_files_of_all_kinds_move(self, below: RsyncServer) -> None:
        run7 = SHARE / "exp/run7"
        listed = ["a", "sub/b", "sub/deep/c", "two words", "q'u\"o"]
        stays = self.make_with_doubles(*listed)
        (run7 / "link").symlink_to("a")
        (run7 / "sub/dangling").symlink_to("nowhere")
        os.link(run7 / "a", run7 / "hard")
        os.link(run7 / "a", run7 / "sub/harder")
        os.mkfifo(run7 / "fifo")
        (run7 / "emptydir").mkdir()
        listed += ["link", "sub/dangling", "hard", "sub/harder", "fifo"]
        before = contents_of(run7, listed)
        names(*listed, "emptydir")
        result = Program(real_binary(), [*OPTIONS, self.SOURCE, f"{TARGET}/./"]).finish()
        assert result.status == 0
        assert sorted(result.confirmed) == sorted(listed)
        assert sorted(result.sent) == sorted(listed)
        for name in listed:
            assert result.lines.index(f"SENT: {name}") < result.lines.index(
                f"CONFIRMED: removed {name}"
            )
        assert contents(SHARE) == stays
        assert contents_of(TARGET, listed) == before
        assert (TARGET / "a").stat().st_nlink == 3
        assert (TARGET / "emptydir").is_dir() and (run7 / "emptydir").is_dir()
        assert sorted(path.name for path in TARGET.iterdir()) == sorted(
            {name.partition("/")[0] for name in [*listed, "emptydir"]}
        )
        assert below.connections() >= 1

    def test_names_of_any_byte_move(self, below: RsyncServer) -> None:
        # A line of a list has no line ends in it, and a name no slash.
        carried = [byte for byte in range(1, 256) if bytes([byte]) not in (b"\n", b"\r", b"/")]
        raw = [b"x%cy" % byte for byte in carried]
        raw += [b" lead", b"trail ", b"-dash", b"#", b";", b"\\#012", b"a -> b", b"SENT: x"]
        raw += [b"sub dir\\#101/\xe4", b"exp/run9/a", b"exp/run9/exp/run7"]
        stays = self.make_with_doubles(*raw)
        names(*raw)
        result = Program(real_binary(), [*OPTIONS, self.SOURCE, f"{TARGET}/"]).finish()
        assert result.status == 0
        assert sorted(os.fsencode(name) for name in result.confirmed) == sorted(map(printed, raw))
        assert contents(SHARE) == stays
        assert sorted(os.fsencode(name) for name in contents(TARGET)) == sorted(raw)
        for name in raw:
            with open(os.path.join(os.fsencode(TARGET), name), "rb") as file:
                assert file.read().startswith(b"exp/run7/" + name + b"\0")
        assert below.connections() >= 1

    def test_names_that_are_gone_or_were_up_to_date(self, below: RsyncServer) -> None:
        stays = self.make_with_doubles("a", "same")
        for name in ("gone", "exp/gone"):
            make(name)
        stays.update(contents_of(SHARE, ["gone", "exp/gone"]))
        TARGET.mkdir()
        (TARGET / "gone").write_text("of an earlier run", encoding="ascii")
        shutil.copy2(SHARE / "exp/run7/same", TARGET)
        names("a", "gone", "same")
        result = Program(real_binary(), [*OPTIONS, self.SOURCE, f"{TARGET}/"]).finish()
        assert result.status == 23
        assert sorted(result.confirmed) == ["a", "same"] and result.sent == ["a"]
        assert contents(SHARE) == stays
        assert below.connections() >= 1

    def test_what_a_killed_run_left_is_announced(self, below: RsyncServer) -> None:
        listed = [f"frame-{number:04}" for number in range(300)]
        stays = self.make_with_doubles(*listed)
        names(*listed)
        program = Program(real_binary(), [*OPTIONS, "--bwlimit=20", self.SOURCE, f"{TARGET}/"])
        program.read_until("SENT: frame-0030\n")
        program.signal(signal.SIGKILL)
        killed = program.finish()
        wait_until(lambda: not below.connection_pids(), "the server to end the connection")
        left = {path.name for path in (SHARE / "exp/run7").iterdir() if path.is_file()}
        assert 0 < len(left) < len(listed)
        assert set(killed.confirmed) <= set(listed) - left

        FILE_LIST.unlink()
        listing = Program(
            real_binary(),
            [*LISTING, f"--password-file={daemon.PASSWORD_FILE}", self.SOURCE],
            closed=[],
        ).finish()
        assert listing.lines[-1] == REMINDER_LINE
        names(*sorted(left), REMINDER)
        result = Program(real_binary(), [*OPTIONS, self.SOURCE, f"{TARGET}/"]).finish()
        assert sorted(result.confirmed) == sorted(left)
        assert {*killed.confirmed, *result.recovered} == set(listed) - left
        assert contents(SHARE) == stays


class TestBreaks:
    """Whatever ends the copy: confirmed is what is gone, and a later run moves the rest."""

    COUNT = 300
    confirmed: list[str] = []  # by the run that broke off

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

    def move_the_rest(self, frames: dict[str, bytes | str], *, once: bool = True) -> None:
        """Lists, runs once more, and checks that each file was announced, once if that is sure."""
        FILE_LIST.unlink()
        listing = list_share(real_binary())
        rest = contents(SHARE)
        left = sorted(set(frames) - set(rest) - set(self.confirmed))
        if left:
            assert listing.lines[-1] == REMINDER_LINE
        names(*sorted(rest), *([REMINDER] if REMINDER_LINE in listing.lines else []))
        result = run(real_binary())
        if rest:
            assert result.status == 0
        assert sorted(result.confirmed) == sorted(rest)
        if once:
            assert sorted(result.recovered) == left
        else:
            assert set(result.recovered) >= set(left)
            assert set(result.recovered).isdisjoint(rest)
        assert contents(SHARE) == {}
        assert contents(TARGET) == frames

    def check_break(self, result: Result, server: RsyncServer) -> None:
        """Of a run that broke off: it confirmed some of what is gone, if the server told it."""
        self.wait_for_the_server(server)
        self.confirmed = result.confirmed
        gone = {f"frame-{number:04}" for number in range(self.COUNT)} - set(contents(SHARE))
        assert set(result.confirmed) <= gone and 0 < len(gone) < self.COUNT
        assert len(set(result.confirmed)) == len(result.confirmed)
        assert bool(result.confirmed) == (server.max_verbosity == 2)
        positions = {line: index for index, line in enumerate(result.lines)}
        for name in result.confirmed:
            assert positions[f"SENT: {name}"] < positions[f"CONFIRMED: removed {name}"]
        assert "cannot ask" not in result.report.decode(), "nothing is asked after a break"

    def test_connection_breaks(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        program = self.start()
        for pid in server.connection_pids():
            os.kill(pid, signal.SIGKILL)
        result = program.finish()
        assert result.status not in (0, 23)
        self.check_break(result, server)
        self.move_the_rest(frames)

    def test_server_goes_and_stays_away(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        program = self.start()
        server.kill()
        result = program.finish()
        assert result.status not in (0, 23)
        self.check_break(result, server)
        FILE_LIST.unlink()
        broken = list_share(real_binary())
        assert broken.status == 10 and REMINDER_LINE not in broken.lines
        server.start()
        names("any")
        self.move_the_rest(frames)

    def test_program_is_told_to_stop(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        program = self.start()
        program.signal(signal.SIGTERM)
        result = program.finish()
        assert result.status == -signal.SIGTERM
        self.no_rsync_is_left(program)
        self.check_break(result, server)
        self.move_the_rest(frames)

    @pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGABRT])
    def test_program_is_killed(
        self, server: RsyncServer, frames: dict[str, bytes | str], number: signal.Signals
    ) -> None:
        program = self.start()
        program.signal(number)
        result = program.finish()
        assert result.status == -number
        self.no_rsync_is_left(program)
        assert [name for name in contents(TARGET) if name not in frames] == []
        self.check_break(result, server)
        # It may have died between a confirmation and its record.
        self.move_the_rest(frames, once=False)

    def test_reader_goes_away(
        self, server: RsyncServer, frames: dict[str, bytes | str]
    ) -> None:
        program = self.start()
        program.leave_report()
        result = program.finish()
        assert result.status == -signal.SIGPIPE
        self.no_rsync_is_left(program)
        self.check_break(result, server)
        assert [name for name in contents(TARGET) if name not in frames] == []
        self.move_the_rest(frames, once=False)

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
    assert "No space left on device" in result.report.decode()
    gone = set(before) - set(contents(SHARE))
    assert set(result.confirmed) <= gone and 0 < len(gone) < 40
    assert bool(result.confirmed) == (server.max_verbosity == 2)
    # What the run could not tell is told by a listing and the next run, which has no room either.
    FILE_LIST.unlink()
    open_names = sorted(gone - set(result.confirmed))
    listing = list_share(real_binary())
    assert (REMINDER_LINE in listing.lines) == bool(open_names)
    names(REMINDER)
    assert sorted(run(real_binary()).recovered) == open_names
    assert contents_of(TARGET, sorted(gone)) == {name: before[name] for name in gone}


def test_nothing_moves_without_a_list(reporting: RsyncServer) -> None:
    make("a")
    assert not FILE_LIST.exists()
    result = run(real_binary())
    assert result.lines == [
        f"rsync_orbelin: the list {FILE_LIST} is not used: No such file or directory"
    ]
    assert result.status == 3 and result.seconds >= 1
    assert list(contents(SHARE)) == ["a"] and contents(TARGET) == {}
    assert reporting.connections() == 0
