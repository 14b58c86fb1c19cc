"""skarnctl check: each mistake found where it stands, none found where none is, nothing changed."""

from __future__ import annotations

import os
import re
import shutil
import socket
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from support.consumer import Consumer
from support import processes
from support.control import PATIENCE, Result, binary, environment, skarnctl
from support.daemon import (
    CONFIGURATION,
    COPY_PROGRAM,
    FIFO,
    LISTING_ERRORS,
    LOG_FILE,
    PASSWORD_FILE,
    PID_FILE,
    REPORTS,
    SECOND_CONFIGURATION,
    Detector,
    install_copy_program,
    install_password_file,
    write_configuration,
    write_raw_configuration,
)
from support.dead_file_system import dead_file_system
from support.rsync_server import RsyncServer
from support.twenty_mistakes import LINES, PLANTED, TEXT
from support.waiting import wait_until

PROJECT = Path(__file__).resolve().parents[2]
PLACES = ("/etc", "/run", "/usr/local", "/srv", "/tmp", "/var/lib")

LOG = f"logfile {LOG_FILE}\n"
BLOCK = "detectorID 1\nremoteIP 127.0.0.1\nsource /\ntarget /srv/1\nminpause 500\n"
GOOD = LOG + BLOCK


@pytest.fixture(autouse=True)
def good_host() -> Iterator[None]:
    """A host that lacks nothing, and a good configuration of one detector."""
    LOG_FILE.parent.mkdir(parents=True)
    install_password_file()
    install_copy_program(Path(os.environ["CONFIRMING_RSYNC_BINARY"]))
    write_raw_configuration(GOOD)
    with Consumer():
        yield


def findings(*words: str, status: int | None = None) -> list[dict[str, Any]]:
    """What `check --json` finds; the exit status must be what the findings say."""
    result = skarnctl("check", "--no-network", "--json", *words)
    report = result.json
    found: list[dict[str, Any]] = report["findings"]
    severities = {finding["severity"] for finding in found}
    wanted = 2 if "error" in severities else 1 if "warning" in severities else 0
    assert result.status == wanted, result
    assert status is None or result.status == status, result
    assert report["errors"] == sum(each["severity"] == "error" for each in found)
    assert report["warnings"] == sum(each["severity"] == "warning" for each in found)
    return found


def codes(*words: str) -> list[tuple[int | None, str]]:
    """Line and code of each finding, in their order."""
    return [(finding["line"], finding["code"]) for finding in findings(*words)]


def of_host(*words: str) -> list[str]:
    """Severity and code of what is found on the host; nothing may be found in the file."""
    found = findings(*words)
    assert all(finding["about"] == "host" and finding["line"] is None for finding in found), found
    return [f"{finding['severity']} {finding['code']}" for finding in found]


def state_of_the_host() -> dict[str, tuple[int, int, int, int, int]]:
    """Everything about every file of the daemon's places but when it was read. What is mounted
    below them is no part of them: it may be the project, where other tests leave their results.
    """
    found = {}
    for place in PLACES:
        for folder, folders, files in os.walk(place):
            paths = {each: os.path.join(folder, each) for each in folders}
            folders[:] = [each for each, path in paths.items() if not os.path.ismount(path)]
            for name in [".", *folders, *files]:
                path = os.path.join(folder, name)
                one = os.lstat(path)
                times = (one.st_mtime_ns, one.st_ctime_ns)
                found[path] = (one.st_ino, one.st_mode, one.st_size, *times)
    return found


def assert_clean(result: Result) -> None:
    """Nothing is wrong."""
    assert result.status == 0, result
    assert result.errors == ""
    assert result.output.endswith("\nno mistakes found\n")


# What is no mistake.


def test_a_good_configuration_on_a_good_host() -> None:
    result = skarnctl("check", "--no-network")
    assert_clean(result)
    assert result.output == (
        "Configuration: /etc/skarn_orbelin.conf\n"
        "\n"
        "Settings\n"
        f"  logfile             {LOG_FILE}  (line 1)\n"
        "  logfile_max_size    10485760 bytes, 10.0 MiB  (default)\n"
        "  logfile_max_number  10  (default)\n"
        "  uid                 not set\n"
        "  gid                 not set\n"
        "  usrdir              not set\n"
        "\n"
        "Detectors, in the order of their start\n"
        '  "1"  (line 2)\n'
        "    share           rsync://root@127.0.0.1:49371/ramdisk/\n"
        "    target          /srv/1/.\n"
        "    minpause        500 ms  (line 6)\n"
        "    interrun_pause  0 ms  (default)\n"
        "\n"
        "no mistakes found\n"
    )
    assert findings() == []


def test_the_readme_s_example_is_clean() -> None:
    readme = (PROJECT / "README.md").read_text(encoding="utf-8")
    example = re.search(r"```\n(# Global settings\n.*?)```", readme, re.DOTALL)
    assert example is not None
    write_raw_configuration(example[1])
    assert_clean(skarnctl("check", "--no-network"))


def test_the_packaged_example_is_clean() -> None:
    assert_clean(skarnctl("check", "--no-network", str(PROJECT / "packaging" / "example" / "skarn_orbelin.conf")))


def test_what_the_daemon_s_own_tests_use_is_clean() -> None:
    write_configuration(
        {"logfile": LOG_FILE, "uid": "0", "gid": "0", "usrdir": "/$UID/$GID"},
        [Detector(str(each), f"127.0.0.{each}", target=f"/srv/{each}") for each in range(1, 9)],
    )
    assert_clean(skarnctl("check", "--no-network"))


@pytest.mark.parametrize(
    "text",
    [
        f"   logfile    {LOG_FILE}   \n\n\t# c\n{BLOCK}",
        f"logfile \t{LOG_FILE}\t\n{BLOCK}",
        f"{LOG}logfile_max_size 512 KiB\nlogfile_max_number 0\n{BLOCK}",
        f"{LOG}{BLOCK}interrun_pause 20\n"
        "detectorID 2\nremoteIP det.example\nsource a\ntarget /srv/2",
        f"{LOG}#{'x' * 1022}\n{BLOCK}",
        f"{LOG}{BLOCK}".replace("/srv/1", "/srv/.hidden/é"),
        f"{BLOCK}{LOG}uid 1\ngid 2\n",
    ],
)
def test_odd_but_right(text: str) -> None:
    write_raw_configuration(text)
    assert_clean(skarnctl("check", "--no-network"))


def test_start_options_are_applied() -> None:
    write_raw_configuration(GOOD + "usrdir u$UID\n" + BLOCK.replace("1", "2"))
    result = skarnctl(
        "check", "--no-network", "--json", "-u", "3:4", "-d", "1:x:/srv/no", "-d", "1:/s:/srv/t", "--user", "0:7"
    )
    assert result.status == 0, result
    report = result.json
    assert report["start_options"] == ["-u", "0:7", "-d", "1:x:/srv/no", "-d", "1:/s:/srv/t"]
    assert (report["settings"]["uid"], report["settings"]["gid"]) == ("0", "7")
    first, second = report["detectors"]
    assert first["share_url"].endswith("/ramdisk/s/")
    assert first["destination"] == "/srv/t/./u0/"
    assert first["owner_command"] == "chown 0:7 /srv/t/./u0"
    assert second["destination"] == "/srv/2/./u0/"


def test_pauses_are_told_with_where_they_come_from() -> None:
    write_raw_configuration(
        GOOD
        + "detectorID b\nremoteIP h\nsource /\ntarget /srv/b\ninterrun_pause 7\n"
        + "detectorID c\nremoteIP h\nsource /\ntarget /srv/c\n"
    )
    result = skarnctl("check", "--no-network", "--json")
    one, two, three = result.json["detectors"]
    assert one["minpause"] == {"milliseconds": 500, "from": "own", "line": 6, "detector": "1"}
    assert one["interrun_pause"] == {
        "milliseconds": 0, "from": "default", "line": None, "detector": None
    }
    inherited = {"milliseconds": 500, "from": "inherited", "line": 6, "detector": "1"}
    assert two["minpause"] == three["minpause"] == inherited
    assert three["interrun_pause"] == {
        "milliseconds": 7, "from": "inherited", "line": 11, "detector": "b"
    }
    text = skarnctl("check", "--no-network").output
    assert 'minpause        500 ms  (of detector "1", line 6)' in text


# What is one.


@pytest.mark.parametrize(
    "text, expected",
    [
        ("uid\t5\n" + GOOD, (1, "not-taken")),
        ("uid=5\n" + GOOD, (1, "not-taken")),
        ("uid\n" + GOOD, (1, "not-taken")),
        (GOOD + "minpuase 5\n", (7, "not-taken")),
        (GOOD + "#" * 1024 + "\nuid 5\n", (7, "line-too-long")),
        (GOOD + "source /x\n", (7, "not-taken")),
        (GOOD + BLOCK, (2, "repeated-detector")),
        ("source /x\n" + GOOD, (1, "not-taken")),
        (GOOD + "gid 5 # for detectorID 2\n", (7, "block-inside-line")),
        ("logfile_max_number ten\n" + GOOD, (1, "not-taken")),
        ("logfile_max_number 99999999999\n" + GOOD, (1, "not-taken")),
        (GOOD + "interrun_pause 1s\n", (7, "taken-otherwise")),
        ("logfile_max_size ten\n" + GOOD, (1, "taken-otherwise")),
        ("logfile_max_size 10m\n" + GOOD, (1, "taken-otherwise")),
        ("logfile_max_size 1T\n" + GOOD, (1, "taken-otherwise")),
        ("logfile_max_size 2G\n" + GOOD, (1, "taken-otherwise")),
        ("logfile_max_size 0\n" + GOOD, (1, "bad-value")),
        ("logfile_max_size -1\n" + GOOD, (1, "bad-value")),
        (GOOD.replace("remoteIP 127.0.0.1\n", ""), (2, "missing-key")),
        (GOOD.replace("127.0.0.1", ""), (3, "missing-key")),
        (GOOD.replace("source /\n", ""), (2, "missing-key")),
        (GOOD.replace("target /srv/1", "target"), (5, "missing-key")),
        (GOOD + "detectorID 2\nremoteIP h\nsource /\ntarget /srv/./1/\n", (10, "same-target")),
        (GOOD + "detectorID 2\nremoteIP h\nsource /\ntarget /srv/1/2\n", (10, "nested-target")),
        (GOOD.replace("500", "0"), (6, "busy-cycle")),
        (GOOD.replace("500", "-1"), (6, "bad-value")),
        ("uid 5 6\n" + GOOD, (1, "taken-otherwise")),
        ("uid 5 # 6\n" + GOOD, (1, "taken-otherwise")),
        (GOOD.replace("/srv/1", "/srv/my data"), (5, "taken-otherwise")),
        ("gid \t\n" + GOOD, (1, "taken-otherwise")),
        (GOOD + BLOCK.replace("1", "2", 1).replace("/srv/1", "/srv/2"), (9, "same-share")),
        (GOOD.replace("source /", "source /../x"), (4, "bad-value")),
        ("uid 5\0\n" + GOOD, (1, "nul-byte")),
        (GOOD.replace("/srv/1", "/srv/1;reboot"), (5, "bad-value")),
        (GOOD.replace("127.0.0.1", "$(reboot)"), (3, "bad-value")),
        (GOOD.replace("/srv/1", "srv/1"), (5, "bad-value")),
        (BLOCK, (None, "no-log")),
        (GOOD.replace(str(LOG_FILE), "skarn.log"), (1, "bad-value")),
        (GOOD + "uid 1\ngid 1\nusrdir $UID/$UID\n", (9, "bad-value")),
        (GOOD + "usrdir x\n", (7, "usrdir-without-owner")),
        (LOG, (None, "no-detector")),
    ],
)
def test_each_mistake(text: str, expected: tuple[int | None, str]) -> None:
    write_raw_configuration(text)
    found = codes()
    assert expected in found, found
    # Text and JSON say the same, and the text names file and line.
    result = skarnctl("check", "--no-network")
    line, code = expected
    place = str(CONFIGURATION) if line is None else f"{CONFIGURATION}:{line}"
    assert re.search(rf"^{re.escape(place)}: (error|warning): .* \[{code}\]\n    \S", result.output,
                     re.MULTILINE), result.output
    assert result.output.count("]\n    ") == len(found)


def test_twenty_mistakes_in_one_file() -> None:
    write_raw_configuration(TEXT)
    found = findings(status=2)
    assert PLANTED <= {(finding["line"], finding["code"]) for finding in found}
    # Lines without a mistake are left alone, but for what the others bring about.
    blamed = {finding["line"] for finding in found if finding["line"] is not None}
    innocent = {number for number, (line, code) in enumerate(LINES, 1)
                if code is None and not line.startswith("detectorID")}
    assert not blamed & innocent, found
    lines = [finding["line"] for finding in found if finding["about"] == "configuration"]
    assert lines == sorted(lines, key=lambda line: (line is None, line or 0))


# The host.


def test_nothing_on_the_host_is_changed() -> None:
    write_raw_configuration(GOOD + "detectorID 2\nremoteIP h\nsource /\ntarget /srv/new/er/2\n"
                                   "detectorID 3\nremoteIP i\nsource /\ntarget /new/one\n")
    environment()  # makes that place, if there is to be one
    before = state_of_the_host()
    result = skarnctl("check", "--no-network")
    assert_clean(result)
    after = state_of_the_host()
    changed = {path for path in before | after if before.get(path) != after.get(path)}
    # Only an instrumented skarnctl has a place for complaints, or makes files in /tmp by itself.
    instrumented = b"__tsan_" in Path(os.environ["SKARNCTL_BINARY"]).read_bytes()
    innocent = {"/tmp/."} if instrumented else set()
    assert {path for path in changed - innocent if not path.startswith(str(REPORTS))} == set()
    assert not Path("/new").exists()


def test_password_file() -> None:
    for mode, expected in ((0o644, "error password-file"),
                           (0o640, "warning password-file")):
        PASSWORD_FILE.chmod(mode)
        assert of_host() == [expected]
    PASSWORD_FILE.chmod(0o600)
    os.chown(PASSWORD_FILE, 1000, 0)
    assert of_host() == ["error password-file"]
    os.chown(PASSWORD_FILE, 0, 0)
    PASSWORD_FILE.write_text("\n", encoding="ascii")
    assert of_host() == ["error password-file"]
    PASSWORD_FILE.unlink()
    assert of_host() == ["error password-file"]
    PASSWORD_FILE.mkdir()
    assert of_host() == ["error password-file"]


def test_copy_program() -> None:
    COPY_PROGRAM.chmod(0o655)
    assert of_host() == ["error copy-program"]
    COPY_PROGRAM.chmod(0o777)
    assert of_host() == ["warning copy-program"]
    shutil.copy("/usr/bin/rsync", COPY_PROGRAM)
    COPY_PROGRAM.chmod(0o755)
    assert of_host() == ["error copy-program"]
    COPY_PROGRAM.unlink()
    assert of_host() == ["error copy-program"]
    COPY_PROGRAM.mkdir()
    assert of_host() == ["error copy-program"]
    COPY_PROGRAM.rmdir()
    COPY_PROGRAM.symlink_to("nowhere")
    assert of_host() == ["error copy-program"]


def test_pipe() -> None:
    kept = FIFO.with_name("kept")
    FIFO.rename(kept)
    assert of_host() == ["warning pipe"]
    FIFO.write_text("", encoding="ascii")
    assert of_host() == ["error pipe"]
    FIFO.unlink()
    os.mkfifo(FIFO)
    assert of_host() == ["warning pipe"]
    FIFO.unlink()
    kept.rename(FIFO)
    assert of_host() == []


def test_a_consumer_that_waits_is_one_and_is_not_disturbed() -> None:
    FIFO.unlink()
    os.mkfifo(FIFO)
    with subprocess.Popen(["/bin/cat", str(FIFO)], stdout=subprocess.PIPE) as reader:
        wait_until(lambda: of_host() == [], "the waiting consumer to be found")
        assert of_host() == []
        assert reader.poll() is None
        FIFO.write_text("a line\n", encoding="ascii")
        assert reader.communicate(timeout=30)[0] == b"a line\n"


def test_log() -> None:
    LOG_FILE.mkdir()
    assert of_host() == ["error log"]
    LOG_FILE.rmdir()
    os.mkfifo(LOG_FILE)
    assert of_host() == ["error log"]
    LOG_FILE.unlink()
    LOG_FILE.parent.chmod(0o777)
    assert of_host() == ["warning log"]
    LOG_FILE.parent.rmdir()
    assert of_host() == ["error log"]
    Path("/srv/elsewhere").mkdir()
    LOG_FILE.parent.symlink_to("/srv/elsewhere")
    assert of_host() == []


def test_read_only_file_systems() -> None:
    place = Path("/srv/fixed")
    place.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "ro,mode=755", "tmpfs", place], check=True)
    try:
        write_raw_configuration(GOOD.replace("/srv/1", f"{place}/a/b"))
        assert of_host() == ["error target"]
        write_raw_configuration(GOOD.replace(str(LOG_FILE), f"{place}/log"))
        assert of_host() == ["error log"]
    finally:
        subprocess.run(["umount", place], check=True)


def test_targets() -> None:
    Path("/srv/file").write_text("", encoding="ascii")
    Path("/srv/loose").symlink_to("/srv/nowhere")
    Path("/srv/loop").symlink_to("/srv/loop")
    for target, expected in (
        ("/srv/file", "error target"),
        ("/srv/file/below", "error target"),
        ("/srv/loose/below", "error target"),
        ("/srv/loop/below", "error target"),
        ("/srv/" + "n" * 300, "error target"),
    ):
        write_raw_configuration(GOOD.replace("/srv/1", target))
        assert of_host() == [expected], target


@pytest.mark.parametrize("target", ["/proc/1", "/sys/kernel", "/dev/x"])
def test_targets_where_no_file_can_be(target: str) -> None:
    write_raw_configuration(GOOD.replace("/srv/1", target))
    found = findings()
    assert [each["code"] for each in found if each["severity"] == "error"] == ["target"]


def test_folders_on_the_way_that_others_may_change() -> None:
    way = Path("/srv/way")
    (way / "below").mkdir(parents=True)
    write_raw_configuration(GOOD.replace("/srv/1", f"{way}/below/1"))
    assert of_host() == []
    for folder in (way, way / "below"):
        os.chown(folder, 1000, 0)
        assert of_host() == ["error unsafe-folder"]
        os.chown(folder, 0, 0)
        folder.chmod(0o775)
        found = findings()
        assert [each["subject"] for each in found] == [str(folder)]
        assert "may be written by others" in found[0]["text"]
        folder.chmod(0o755)
    # Where a link leads counts, too; the target itself is its owner's.
    (way / "below/link").symlink_to("/srv/way2/x")
    Path("/srv/way2/x/1").mkdir(parents=True)
    write_raw_configuration(GOOD.replace("/srv/1", f"{way}/below/link/1"))
    os.chown("/srv/way2/x/1", 1000, 1000)
    assert of_host() == []
    Path("/srv/way2").chmod(0o777)
    assert of_host() == ["error unsafe-folder"]


def test_a_target_and_a_log_that_never_answer() -> None:
    with dead_file_system() as dead:
        write_raw_configuration(f"logfile {dead}/log\n" + BLOCK.replace("/srv/1", f"{dead}/below"))
        begun = time.monotonic()
        said = skarnctl("check", "--no-network").output
        assert time.monotonic() - begun < PATIENCE
        assert f'"{dead}/below/.", does not answer [target]' in said
        assert f'the log "{dead}/log" does not answer: the daemon does not start [log]' in said


def test_a_full_target() -> None:
    place = Path("/srv/full")
    place.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k,mode=755", "tmpfs", place], check=True)
    try:
        with pytest.raises(OSError):
            (place / "filler").write_bytes(b"x" * 1_000_000)
        write_raw_configuration(GOOD.replace("/srv/1", str(place)))
        assert of_host() == ["warning target"]
    finally:
        subprocess.run(["umount", place], check=True)


def test_targets_that_are_one_through_a_link() -> None:
    Path("/srv/1").mkdir()
    Path("/srv/2").symlink_to("1")
    second = "detectorID 2\nremoteIP h\nsource /\ntarget "
    write_raw_configuration(GOOD + second + "/srv/2\n")
    assert codes() == [(10, "same-target")]
    write_raw_configuration(GOOD + second + "/srv/2/new\n")
    assert codes() == [(10, "nested-target")]


def test_fixed_places() -> None:
    LISTING_ERRORS.symlink_to("/srv/victim")
    assert of_host() == ["error tmp-folder"]
    LISTING_ERRORS.unlink()
    LISTING_ERRORS.write_text("", encoding="ascii")
    assert of_host() == []
    os.chown(LISTING_ERRORS, 1000, 1000)
    assert of_host() == ["error tmp-folder"]
    LISTING_ERRORS.unlink()
    PID_FILE.mkdir()
    assert of_host() == ["error run-folder"]
    PID_FILE.rmdir()


def test_owners_that_this_host_does_not_know() -> None:
    write_raw_configuration(GOOD + "uid nosuchuser\ngid nosuchgroup\nusrdir $UID\n")
    assert of_host() == ["error owner", "error owner"]
    write_raw_configuration(GOOD + "uid root\ngid root\nusrdir $UID\n")
    assert of_host() == []


def test_a_second_configuration() -> None:
    write_raw_configuration("", SECOND_CONFIGURATION)
    assert of_host() == ["warning configuration-file"]
    CONFIGURATION.unlink()
    write_raw_configuration(GOOD, SECOND_CONFIGURATION)
    result = skarnctl("check", "--no-network")
    assert_clean(result)
    assert result.output.startswith(f"Configuration: {SECOND_CONFIGURATION}\n")


def test_a_configuration_that_others_may_write() -> None:
    CONFIGURATION.chmod(0o666)
    assert of_host() == ["warning configuration-file"]
    # A draft elsewhere is its author's business.
    draft = Path("/srv/draft.conf")
    draft.write_text(GOOD, encoding="ascii")
    draft.chmod(0o666)
    assert of_host(str(draft)) == []


# The detectors.


def of_shares(*words: str) -> list[str]:
    """What is told of shares, each text from the complaint on."""
    found = [each for each in skarnctl("check", "--json", *words).json["findings"]]
    assert all((each["code"], each["about"]) == ("share", "host") for each in found), found
    return [each["text"] for each in found]


def test_a_detector_that_refuses_is_told_with_its_reason() -> None:
    said = of_shares()
    assert len(said) == 1 and said[0].startswith(
        'the share of detector "1", rsync://root@127.0.0.1:49371/ramdisk/, can\'t be listed: '
    )
    assert "Connection refused (111)" in said[0]
    assert of_shares("--no-network") == []
    assert of_host() == []


def test_a_detector_that_answers_one_that_hangs_and_one_that_lets_nobody_in() -> None:
    write_raw_configuration(
        GOOD
        + "".join(
            f"detectorID {each}\nremoteIP 127.0.0.{each}\nsource /\ntarget /srv/{each}\n"
            for each in (2, 3)
        )
    )
    server = RsyncServer("127.0.0.1", Path("/srv/share"), Path("/srv/state"))
    with server, socket.socket() as silent:
        silent.bind(("127.0.0.2", 49371))
        silent.listen()
        begun = time.monotonic()
        said = of_shares()
        assert time.monotonic() - begun < 8
        assert len(said) == 2, said
        assert 'detector "2"' in said[0] and said[0].endswith("no answer within 4 seconds")
        assert 'detector "3"' in said[1] and "refused" in said[1]
        PASSWORD_FILE.write_text("wrong\n", encoding="ascii")
        assert any("auth failed" in each for each in of_shares())

    def clients() -> list[processes.Process]:
        return [one for one in processes.processes() if "rsync" in one.name and not one.is_zombie]

    wait_until(lambda: not clients(), "what was begun to end")


def test_a_share_that_would_reach_a_shell_is_not_listed() -> None:
    write_raw_configuration(GOOD.replace("127.0.0.1", "$(touch${IFS}/srv/touched)"))
    report = skarnctl("check", "--json").json
    assert [each["code"] for each in report["findings"]] == ["bad-value"]
    assert not Path("/srv/touched").exists()


def test_the_start_options_of_the_unit_are_applied() -> None:
    Path("/etc/default").mkdir(exist_ok=True)
    options = Path("/etc/default/skarn")
    options.write_text('# x\nSKARN_OPTIONS="-u 3:4 -d 1:/s:/srv/t"\n', encoding="ascii")
    result = skarnctl("check", "--no-network")
    assert_clean(result)
    assert "Start options: -u 3:4 -d 1:/s:/srv/t  (/etc/default/skarn)\n" in result.output
    assert skarnctl("check", "--no-network", "--json").json["settings"]["uid"] == "3"
    assert skarnctl("check", "--no-network", "--json", "-u", "5:6").json["start_options"] == [
        "-u", "5:6"
    ]
    options.write_text("SKARN_OPTIONS=-u", encoding="ascii")
    assert codes() == [(None, "bad-start-option")]
    options.unlink()


# Start options that the daemon refuses.


@pytest.mark.parametrize(
    "words, text",
    [
        (("-u", "5"), "-u needs UID:GID"),
        (("-u", "1:2:3"), "-u needs UID:GID"),
        (("-d", "1:/a"), "-d needs DETECTOR_ID:SOURCE:TARGET"),
        (("-d", "9:/a:/b"), "No detectorID 9 found in config file"),
    ],
)
def test_start_options_that_the_daemon_refuses(words: tuple[str, ...], text: str) -> None:
    found = findings(*words, status=2)
    assert [(each["code"], each["about"], each["text"]) for each in found] == [
        ("bad-start-option", "start options", text)
    ]


def test_mistakes_in_start_options() -> None:
    assert codes("-d", "1:/a:data") == [(None, "bad-value")]
    assert codes("-d", "1:/a:/srv/x;y") == [(None, "bad-value")]
    write_raw_configuration(GOOD + BLOCK.replace("1", "2"))
    assert codes("-d", "2:/:/srv/1") == [(None, "same-target")]
    assert codes("-d", "2:/..:/srv/2") == [(None, "bad-value")]


# JSON.


KEYS = {"file", "start_options", "settings", "detectors", "findings", "errors", "warnings"}
SETTINGS = {"logfile": str, "logfile_max_size": int, "logfile_max_number": int, "uid": str,
            "gid": str, "usrdir": str}
PAUSE = {"milliseconds": int, "from": str, "line": (int, type(None)),
         "detector": (str, type(None))}
DETECTOR = {"id": str, "line": int, "remoteIP": str, "share_url": str, "listing_command": str,
            "target": str, "destination": str, "owner_command": (str, type(None)),
            "minpause": dict, "interrun_pause": dict}
FINDING = {"severity": str, "code": str, "about": str, "file": (str, type(None)),
           "line": (int, type(None)), "subject": str, "text": str, "advice": str}


def assert_shape(value: dict[str, Any], shape: dict[str, Any]) -> None:
    """The object has these keys, no others, and values of these types."""
    assert value.keys() == shape.keys()
    for key, kind in shape.items():
        assert isinstance(value[key], kind), (key, value[key])


def test_the_shape_of_the_json() -> None:
    write_raw_configuration(TEXT)
    report = skarnctl("check", "--no-network", "--json", "-u", "1:2").json
    assert report.keys() == KEYS
    assert report["file"] == str(CONFIGURATION)
    assert_shape(report["settings"], SETTINGS)
    assert len(report["detectors"]) == 4
    for detector in report["detectors"]:
        assert_shape(detector, DETECTOR)
        assert_shape(detector["minpause"], PAUSE)
        assert_shape(detector["interrun_pause"], PAUSE)
    for finding in report["findings"]:
        assert_shape(finding, FINDING)
        assert finding["severity"] in ("error", "warning")
        assert re.fullmatch(r"[a-z]+(-[a-z]+)*", finding["code"])
        assert finding["about"] in ("configuration", "start options", "host")
        assert (finding["file"] is None) == (finding["about"] != "configuration")
        assert "\n" not in finding["text"] + finding["advice"]


# Files that are none, and bad usage.


def refused(*words: str | bytes) -> str:
    """The one line about a file that can't be read."""
    result = skarnctl("check", *words, timeout=60)
    assert (result.status, result.output) == (2, ""), result
    return result.complaint


def test_no_configuration() -> None:
    CONFIGURATION.unlink()
    assert refused() == (
        "no configuration: neither /etc/skarn_orbelin.conf nor"
        " /etc/skarn_orbelin/skarn_orbelin.conf exists"
    )
    result = skarnctl("check", "--no-network", "--json")
    assert result.status == 2
    assert result.json["file"] is None
    assert result.json["settings"] is None
    assert [each["code"] for each in result.json["findings"]] == ["unreadable"]


def test_files_that_are_no_configuration() -> None:
    assert refused("/srv/none") == "cannot read /srv/none: No such file or directory"
    assert refused("") == "cannot read : No such file or directory"
    assert refused("/etc") == "cannot read /etc: it is a directory"
    assert refused("/dev/zero") == "cannot read /dev/zero: not a regular file"
    assert "No such file" in refused(b"/srv/\x1b[31m\xff")
    assert refused("/srv/\n") == "cannot read /srv/\\012: No such file or directory"
    big = Path("/srv/big")
    with big.open("wb") as file:
        file.truncate(100 * 2**20)
    assert refused(str(big)).startswith("cannot read /srv/big: larger than 1048576 bytes")


def test_a_pipe_in_the_place_of_a_configuration() -> None:
    CONFIGURATION.unlink()
    os.mkfifo(CONFIGURATION)
    with subprocess.Popen(
        [sys.executable, "-c", f"open({str(CONFIGURATION)!r}, 'w')"]
    ) as writer:
        # Nobody reads it, so the writer goes on waiting.
        assert refused() == f"cannot read {CONFIGURATION}: not a regular file"
        assert refused(str(CONFIGURATION)).endswith("not a regular file")
        assert writer.poll() is None
        CONFIGURATION.read_text(encoding="ascii")
        assert writer.wait(30) == 0


@pytest.mark.parametrize("seed", range(5))
def test_any_bytes_at_all(seed: int) -> None:
    # Whatever is in them, the terminal is not steered and the JSON is JSON.
    words = [b"detectorID ", b"\n", b"target ", b"\x1b[2J", b"\xff", b"\xc2\x9b", b"\0", b"uid "]
    noise = bytes((seed * 7919 + each * each * 31) % 256 for each in range(50_000))
    pieces = [noise[each : each + 9] + words[each % len(words)] for each in range(0, 50_000, 9)]
    write_raw_configuration(b"".join(pieces))
    text = subprocess.run(
        [binary(), "check", "--no-network"], env=environment(), capture_output=True, timeout=60, check=False
    )
    assert text.returncode == 2
    assert text.stderr == b""
    assert not set(text.stdout) & (set(range(32)) - {10}), "control characters"
    assert text.stdout.isascii()
    findings(status=2)


@pytest.mark.parametrize(
    "words", [("--nonsense",), ("a", "b"), ("-d",), ("-u",), ("--json=maybe",)]
)
def test_bad_usage(words: tuple[str, ...]) -> None:
    result = skarnctl("check", *words)
    assert (result.status, result.output) == (2, "")
    assert result.complaint


def test_an_output_that_takes_nothing() -> None:
    with open("/dev/full", "wb") as full:
        run = subprocess.run([binary(), "check", "--no-network"], env=environment(), stdout=full,
                             stderr=subprocess.PIPE, timeout=60, check=False)
    assert run.returncode == 2
    assert run.stderr == b"skarnctl: cannot write: No space left on device\n"


def test_another_user_is_told_what_was_not_looked_at() -> None:
    result = skarnctl("check", "--json", user=65534)
    assert result.status == 1, result
    found = {each["code"] for each in result.json["findings"]}
    assert "not-root" in found
    assert not [each for each in result.json["findings"] if each["severity"] == "error"]


def test_another_user_may_not_read_the_configuration() -> None:
    # The second place is not taken in its stead: the daemon is root and reads the first.
    CONFIGURATION.chmod(0o600)
    write_raw_configuration(GOOD, SECOND_CONFIGURATION)
    result = skarnctl("check", user=65534)
    assert (result.status, result.output) == (2, "")
    assert result.complaint == f"cannot read {CONFIGURATION}: Permission denied"
