"""How the program calls stock rsync, and what it makes of how that ends. rsync is scripted."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

from confirming_rsync.program import (
    ACCESS,
    ADDED,
    FILE_LIST,
    KEPT,
    OPTIONS,
    REMINDER,
    TARGET,
    URL,
    Program,
    calls,
    names,
    run,
    script_rsync,
    scripted_binary,
    scripted_rsync,
)
from support.folders import remove

LISTING = ["-mrlDHW", "--list-only", "--exclude=**.tmp", "--password-file=/p", URL]
CONFIRM = 'out("SENT: a\\nsender removed a\\n")'


@pytest.fixture(autouse=True)
def one_name() -> None:
    """A list, without which nothing is copied."""
    names("a")


def test_listing_is_that_of_stock_rsync() -> None:
    script_rsync("", 'print("listing by", os.getppid(), flush=True); sys.exit(5)')
    program = Program(scripted_binary(), LISTING, closed=[])
    result = program.finish()
    assert result.report.decode() == f"listing by {program.pid}\n"
    assert result.status == 5
    (call,) = calls()
    assert call["arguments"] == [str(scripted_rsync()), *ACCESS, "--timeout=60", *LISTING]
    assert call["environment"] == {"RSYNC_UID": "", "RSYNC_GID": ""}


def test_what_is_no_call_of_a_share_becomes_stock_rsync() -> None:
    script_rsync("", 'print("listing of", os.getpid(), flush=True); sys.exit(5)')
    program = Program(scripted_binary(), ["--list-only", "/srv/"], closed=[])
    result = program.finish()
    assert result.report.decode() == f"listing of {program.pid}\n"
    assert result.status == 5
    (call,) = calls()
    assert call["arguments"] == [str(scripted_rsync()), "--8-bit-output", "--list-only", "/srv/"]
    assert call["environment"] == {"RSYNC_UID": "", "RSYNC_GID": ""}


@pytest.mark.parametrize("closed", [[0], [0, 2], [0, 1, 2], [1]])
def test_listing_has_standard_descriptors(closed: list[int]) -> None:
    script_rsync("", "sys.exit(0)")
    assert Program(scripted_binary(), LISTING, closed=closed).finish().status == 0
    (call,) = calls()
    descriptors = call["descriptors"]
    assert sorted(descriptors) == ["0", "1", "2"]
    assert descriptors["0"] == "/dev/null"
    assert descriptors["1"].startswith("pipe:")
    assert descriptors["2"].startswith("pipe:")
    assert descriptors["1"] != descriptors["2"]


@pytest.mark.parametrize("closed", [[0], [0, 2], [0, 1, 2], [1]])
def test_what_becomes_stock_rsync_has_standard_descriptors(closed: list[int]) -> None:
    script_rsync("", "sys.exit(0)")
    call_of_no_share = ["--list-only", "/srv/"]
    assert Program(scripted_binary(), call_of_no_share, closed=closed).finish().status == 0
    (call,) = calls()
    for number in range(3):
        expected_null = number in closed or number == 0
        assert (call["descriptors"][str(number)] == "/dev/null") == expected_null


def test_copy_gets_what_a_report_takes() -> None:
    script_rsync(CONFIRM)
    result = run(scripted_binary())
    assert result.lines == ["SENT: a", "CONFIRMED: removed a"]
    assert result.status == 0
    (call,) = calls()
    assert call["arguments"] == [str(scripted_rsync()), *ADDED, *KEPT, URL, f"{TARGET}/"]
    assert call["input"] == "a\0"
    assert call["environment"] == {
        "RSYNC_UID": "",
        "RSYNC_GID": "",
        "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
        "LC_ALL": "C",
    }


def test_copy_keeps_the_environment() -> None:
    script_rsync(CONFIRM)
    run(scripted_binary(), environment={"PATH": "/x", "LC_ALL": "de_DE", "OTHER": "a=b"})
    (call,) = calls()
    assert call["environment"] == {"PATH": "/x", "LC_ALL": "C", "OTHER": "a=b"}


@pytest.mark.parametrize(
    "uid, gid, expected",
    [
        ("1000", "100", ["-og", "--chown=1000:100"]),
        ("1000", "", ["-og", "--chown=1000"]),
        ("", "100", ["-og", "--chown=:100"]),
        ("", "", []),
    ],
)
def test_copy_sets_the_owner(uid: str, gid: str, expected: list[str]) -> None:
    script_rsync(CONFIRM)
    run(scripted_binary(), environment={"RSYNC_UID": uid, "RSYNC_GID": gid})
    (call,) = calls()
    assert call["arguments"][1:] == [*ADDED, *expected, *KEPT, URL, f"{TARGET}/"]


def test_entries_of_the_list_that_are_no_file_below_the_source_are_left_out() -> None:
    names("d/", "a", "sub/x/../../../b", "b c")
    script_rsync(CONFIRM)
    result = run(scripted_binary())
    assert result.lines[0] == (
        "rsync_orbelin: 2 entries of the list left out, no file below the source: d/ ..."
    )
    assert result.confirmed == ["a"]
    (call,) = calls()
    assert call["arguments"][1:] == [*ADDED, *KEPT, URL, f"{TARGET}/"]
    assert call["input"] == "a\0b c\0"


def test_a_list_of_nothing_else_starts_no_rsync() -> None:
    names("d/")
    script_rsync(CONFIRM)
    result = run(scripted_binary())
    assert result.lines == [
        "rsync_orbelin: 1 entry of the list left out, no file below the source: d/"
    ]
    assert result.status == 0 and calls() == []
    assert result.seconds >= 1


@pytest.mark.parametrize("listed", [[], [REMINDER]], ids=["empty", "only-the-reminder"])
def test_a_list_without_a_name_starts_no_rsync(listed: list[str]) -> None:
    names(*listed)
    script_rsync(CONFIRM)
    result = run(scripted_binary())
    assert (result.lines, result.status, calls()) == ([], 0, [])
    assert result.seconds >= 1


FOREIGN = "others than its user may have written it"


@pytest.mark.parametrize(
    "how, why",
    [
        ("owner", FOREIGN),
        ("mode", FOREIGN),
        ("hard link", FOREIGN),
        ("folder", FOREIGN),
        ("pipe", FOREIGN),
        ("link", "it is a link"),
        ("link to a secret", "it is a link"),
        ("dangling link", "it is a link"),
        ("missing", "No such file or directory"),
    ],
)
def test_without_a_list_of_its_own_nothing_is_copied(how: str, why: str) -> None:
    elsewhere = Path("/tmp/elsewhere")
    if how == "owner":
        os.chown(FILE_LIST, 1, 1)
    elif how == "mode":
        FILE_LIST.chmod(0o622)
    elif how == "hard link":
        os.link(FILE_LIST, elsewhere)
    else:
        shutil.move(FILE_LIST, elsewhere)
        if how == "folder":
            FILE_LIST.mkdir()
        elif how == "pipe":
            os.mkfifo(FILE_LIST, 0o600)
        elif how != "missing":
            places = {"link": elsewhere, "link to a secret": Path("/etc/shadow")}
            FILE_LIST.symlink_to(places.get(how, Path("/tmp/nowhere")))
    script_rsync(CONFIRM)
    result = run(scripted_binary())
    assert result.lines == [f"rsync_orbelin: the list {FILE_LIST} is not used: {why}"]
    assert result.status == 3 and calls() == []
    assert result.seconds >= 1


@pytest.mark.parametrize(
    "source",
    ["/srv/share/", "host:path", "rsync://127.0.0.1:49371/", URL + "run7/../other/", URL + ".."],
)
def test_a_source_that_is_not_below_a_module_is_refused(source: str) -> None:
    script_rsync(CONFIRM)
    result = Program(scripted_binary(), [*OPTIONS, source, f"{TARGET}/"]).finish()
    assert result.lines == [
        f"rsync_orbelin: nothing is copied: {source} is no share of an rsync daemon, or not below "
        "its module"
    ]
    assert result.status == 3 and calls() == []
    assert result.seconds >= 1


def test_a_source_below_the_modules_root_stands_in_each_name() -> None:
    names("a", "sub/b c")
    script_rsync(CONFIRM)
    result = Program(scripted_binary(), [*OPTIONS, URL + "exp//run 7/./", f"{TARGET}/"]).finish()
    assert result.confirmed == ["a"]
    (call,) = calls()
    assert call["arguments"][1:] == [*ADDED, *KEPT, URL, f"{TARGET}/"]
    assert call["input"] == "exp/run 7/./a\0exp/run 7/./sub/b c\0"


def test_copy_without_environment() -> None:
    script_rsync(CONFIRM)
    assert run(scripted_binary(), environment={}).status == 0
    (call,) = calls()
    assert call["arguments"][1:] == [*ADDED, *KEPT, URL, f"{TARGET}/"]


@pytest.mark.parametrize("closed", [[], [0], [0, 2], [2]])
def test_copy_has_only_standard_descriptors(closed: list[int]) -> None:
    script_rsync(CONFIRM)
    read_end, write_end = os.pipe()
    high = 77
    os.dup2(write_end, high)
    try:
        program = Program(scripted_binary(), closed=closed, inherited=[write_end, high])
        assert program.finish().lines == ["SENT: a", "CONFIRMED: removed a"]
    finally:
        for number in (read_end, write_end, high):
            os.close(number)
    (call,) = calls()
    descriptors = call["descriptors"]
    assert sorted(descriptors) == ["0", "1", "2"]
    assert descriptors["0"].startswith("/memfd:")
    assert descriptors["1"].startswith("pipe:")
    assert descriptors["2"].startswith("pipe:")
    assert descriptors["1"] != descriptors["2"]


def test_copy_works_with_all_standard_descriptors_closed() -> None:
    script_rsync(CONFIRM, "sys.exit(0)")
    result = Program(scripted_binary(), closed=[0, 1, 2]).finish()
    assert (result.status, result.report) == (0, b"")
    (call,) = calls()
    assert sorted(call["descriptors"]) == ["0", "1", "2"]
    assert call["input"] == "a\0"


@pytest.mark.parametrize("status", [0, 1, 23, 255])
def test_status_is_that_of_rsync(status: int) -> None:
    script_rsync(CONFIRM + f"\nsys.exit({status})")
    assert run(scripted_binary()).status == status


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGSEGV])
def test_status_tells_the_signal_that_ended_rsync(number: signal.Signals) -> None:
    script_rsync(CONFIRM + f"\nos.kill(os.getpid(), {int(number)})")
    result = run(scripted_binary())
    assert result.status == 128 + number
    assert result.confirmed == ["a"]


def test_missing_rsync_is_said_once() -> None:
    result = run(scripted_binary())
    expected = f"rsync_orbelin: cannot start {scripted_rsync()}: No such file or directory"
    assert result.lines == [expected]
    assert result.status == 127
    assert result.seconds >= 1
    listing = Program(scripted_binary(), LISTING).finish()
    assert listing.lines == [expected]
    assert listing.status == 127


def test_rsync_that_can_not_be_executed_is_said_once() -> None:
    scripted_rsync().parent.mkdir(parents=True, exist_ok=True)
    scripted_rsync().write_bytes(b"\x7fELF")
    scripted_rsync().chmod(0o644)
    result = run(scripted_binary())
    assert result.lines == [f"rsync_orbelin: cannot start {scripted_rsync()}: Permission denied"]
    scripted_rsync().chmod(0o755)
    result = run(scripted_binary())
    assert result.lines == [f"rsync_orbelin: cannot start {scripted_rsync()}: Exec format error"]
    assert result.status == 127


@pytest.mark.parametrize(
    "copying",
    [
        "",
        'out("SENT: a\\n")',
        'missing("/a"); sys.exit(23)',
        "sys.exit(5)",
        "os.kill(os.getpid(), 9)",
    ],
)
def test_run_that_moves_nothing_lasts_a_second(copying: str) -> None:
    script_rsync(copying)
    assert run(scripted_binary()).seconds >= 1


def test_run_that_moves_something_is_not_delayed() -> None:
    script_rsync(CONFIRM)
    # The machine may be busy now and then, but not each time.
    assert min(run(scripted_binary()).seconds for _ in range(10)) < 0.9


def test_no_variable_chooses_the_program() -> None:
    script_rsync(CONFIRM)
    environment = {name: "/bin/false" for name in ("STOCK_RSYNC", "RSYNC", "SCRIPTED_RSYNC")}
    environment["PATH"] = "/nonexistent"
    assert run(scripted_binary(), environment=environment).confirmed == ["a"]


def test_is_installed_only_as_its_own_component() -> None:
    build = scripted_binary().parent
    while not (build / "CMakeCache.txt").exists():
        build = build.parent

    # It would write a list of what it has installed beside itself, where a test can't write.
    script = Path("/srv/cmake_install.cmake")
    text = (build / script.name).read_text(encoding="utf-8")
    script.write_text(
        text.replace(f"{build}/${{CMAKE_INSTALL_MANIFEST}}", "/srv/${CMAKE_INSTALL_MANIFEST}"),
        encoding="utf-8",
    )

    def installed(component: str = "") -> list[Path]:
        prefix = Path("/srv/prefix", component)
        definitions = {"CMAKE_INSTALL_PREFIX": prefix, "CMAKE_INSTALL_COMPONENT": component}
        subprocess.run(
            ["cmake", *(f"-D{name}={value}" for name, value in definitions.items()), "-P", script],
            check=True,
            stdout=subprocess.DEVNULL,
        )
        return [path.relative_to(prefix) for path in prefix.rglob("*") if path.is_file()]

    name = Path("orbelin/bin/rsync_orbelin")
    manual = Path("share/man/man8/confirming-rsync.8")
    assert sorted(installed("confirming_rsync")) == [name, manual]
    program = Path("/srv/prefix/confirming_rsync") / name
    assert os.access(program, os.X_OK)
    remove("/srv/prefix")
    everything = installed()
    assert everything and name not in everything and manual not in everything
