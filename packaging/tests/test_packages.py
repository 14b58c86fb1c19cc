"""The packages on a fresh machine, as a new user would try them: one story, told in this order.

PACKAGE_TREE names the folder of the machine, which no package was installed on yet; the packages
lie in its /root/packages.
"""

from __future__ import annotations

import json
import os
import re
import signal
import textwrap
from collections.abc import Iterator
from pathlib import Path

import pytest

from machine import CONFIGURATION, Machine, fresh_copy, install, wait_until, write_files
from support import twenty_mistakes

PIPE = "/run/vantrel_orbelin_files"
LINK = "/usr/local/orbelin/bin/rsync_orbelin"
EXAMPLE = "/usr/share/doc/skarn/examples/skarn_orbelin.conf"
METRICS = "127.0.0.1:9751"
PAGE = Path(__file__).resolve().parents[2] / "docs/operations.md"
PASSWORD = "of this machine only"

CONSUMER = f"""\
[Service]
User=vantrel
StandardOutput=append:/root/records
ExecStart=/bin/sh -c 'exec 3<>{PIPE}; exec cat <&3'
"""


def block_of_the_page(beginning: str) -> str:
    """The commands of the operator's page that begin so, as they stand there."""
    blocks = re.findall(r"^ *```sh\n(.*?)^ *```$", PAGE.read_text("utf-8"), re.MULTILINE | re.DOTALL)
    found = [textwrap.dedent(each) for each in blocks if each.lstrip().startswith(beginning)]
    assert len(found) == 1, (beginning, blocks)
    return str(found[0])


def daily_commands(column: int) -> list[str]:
    """The commands of a column of the page's table for daily life, in their order."""
    table = PAGE.read_text("utf-8").partition("| to | with systemd | without |")[2]
    rows = [row.split(" | ") for row in table.partition("\n\n")[0].splitlines()[2:]]
    cells = [row[column].strip(" |") for row in rows]
    return [cell.strip("`") for cell in cells if re.fullmatch("`[^`]*`", cell)]


@pytest.fixture(scope="module")
def machine() -> Iterator[Machine]:
    """The machine of the whole story."""
    tree = Path(os.environ["PACKAGE_TREE"])
    root = tree.with_name("machine")
    fresh_copy(tree, root)
    with Machine(root) as booted:
        yield booted


def pid_of_daemon(machine: Machine) -> int:
    """What `skarnctl status` says."""
    return int(json.loads(machine.succeed("skarnctl status --json"))["pid"])


def programs(machine: Machine) -> set[str]:
    """The names of all programs that run in the machine."""
    return set(machine.succeed("cat /proc/[0-9]*/comm 2>/dev/null; true").split())


def records(machine: Machine) -> list[str]:
    """The lines that the consumer has got."""
    path = machine.path("/root/records")
    return path.read_text(encoding="utf-8").splitlines() if path.exists() else []


def start_consumer(machine: Machine) -> None:
    """A consumer that keeps to the rule: the pipe is open for reading and writing."""
    machine.succeed("systemctl start vantrel")


def arrived(machine: Machine, names: set[str]) -> bool:
    """Whether all these were announced, and each of them is there."""
    if not names <= set(records(machine)):
        return False
    assert all(machine.path(name).is_file() for name in names), "announced, but not there"
    return True


def test_installing_starts_nothing_and_makes_no_configuration(machine: Machine) -> None:
    # What a user would answer; and what is not in the machine can't be recommended to it.
    machine.write(
        "/etc/apt/apt.conf.d/99test",
        'APT::Get::Assume-Yes "true";\nAPT::Install-Recommends "false";\n',
    )
    machine.succeed("cd /root/packages && " + block_of_the_page("apt-get install"), timeout=300)
    page = machine.path("/usr/share/doc/skarn/operations.md").read_text(encoding="utf-8")
    assert page == PAGE.read_text(encoding="utf-8")
    units = "skarn skarn-look skarn-metrics"
    assert machine.run(f"systemctl is-active {units}").stdout.split() == ["inactive"] * 3
    assert machine.run(f"systemctl is-enabled {units}").stdout.split() == ["disabled"] * 3
    assert not list(machine.path("/etc").glob("skarn_orbelin*"))
    assert os.readlink(machine.path(LINK)) == "/usr/lib/skarn/rsync_orbelin"
    assert machine.run("skarnctl status").returncode == 3


def test_the_units_are_sound(machine: Machine) -> None:
    # man is not on so small a machine; everything else that verify looks at is.
    complaints = machine.run("systemd-analyze verify skarn.service skarn-look.service skarn-metrics.service").stdout
    assert [line for line in complaints.splitlines() if "Command 'man " not in line] == []
    for unit in ("skarn", "skarn-look", "skarn-metrics"):
        text = machine.succeed(f"systemd-analyze security --offline=true {unit}.service")
        score = re.search(r"exposure level for \S+: ([0-9.]+)", text)
        assert score, text
        print(f"{unit}.service: {score[1]}")
        assert float(score[1]) < 3, text


def test_start_without_a_configuration_says_so(machine: Machine) -> None:
    done = machine.run("skarnctl start")
    assert done.returncode == 1
    assert "Error no config file found (no configuration: neither " in done.stdout
    assert done.stdout.count("\n") == 1, done.stdout
    # Nor does the unit start in silence.
    done = machine.run("systemctl start skarn")
    assert done.returncode != 0 and "Assertion failed" in done.stdout


def test_the_example_is_right_but_for_what_the_host_lacks(machine: Machine) -> None:
    machine.succeed(f"cp {EXAMPLE} /etc/skarn_orbelin.conf")
    done = machine.run("skarnctl check --json")
    found = json.loads(done.stdout)["findings"]
    assert {finding["code"] for finding in found} == {"password-file", "pipe"}
    assert done.returncode == 2
    machine.write("/etc/systemd/system/vantrel.service", CONSUMER)
    machine.succeed("useradd --system vantrel && systemctl daemon-reload")
    machine.succeed(f"printf '{PASSWORD}\\n' | (\n{block_of_the_page('install -d')})")
    machine.succeed(block_of_the_page("printf 'p /run"))
    machine.succeed("install -d /data")
    start_consumer(machine)
    check = "skarnctl check --no-network"
    wait_until(lambda: machine.run(check).returncode == 0, "the example is right", 10)
    # Its detectors are not in this machine's network, which has no way out.
    done = machine.run("skarnctl check --json")
    found = json.loads(done.stdout)["findings"]
    assert {finding["code"] for finding in found} == {"share"} and len(found) == 2


def test_check_finds_twenty_planted_mistakes(machine: Machine) -> None:
    machine.write("/root/mistakes.conf", twenty_mistakes.TEXT)
    done = machine.run("skarnctl check --json /root/mistakes.conf")
    assert done.returncode == 2
    found = json.loads(done.stdout)["findings"]
    assert twenty_mistakes.PLANTED <= {(finding["line"], finding["code"]) for finding in found}


def test_a_drain_as_the_manual_tells_it(machine: Machine) -> None:
    machine.path("/ramdisk").mkdir()
    machine.succeed(f"printf 'root:{PASSWORD}\\n' | (\n{block_of_the_page('cat >/etc/rsyncd.conf')})")
    # Whoever follows the page writes this with the editor.
    machine.write("/root/written", CONFIGURATION)
    machine.write("/usr/local/bin/editor", '#!/bin/sh\nexec cp /root/written "$1"\n', 0o755)
    said = machine.succeed(block_of_the_page("cp /usr/share"))
    assert said.endswith("\nno mistakes found\n")
    machine.succeed(block_of_the_page("systemctl enable"))
    machine.succeed("systemctl start skarn-look skarn-metrics")
    assert machine.run("systemctl is-active skarn").stdout == "active\n"
    assert "usershift:  " in records(machine)
    assert machine.succeed("skarnctl status").startswith("skarn runs as process ")
    assert machine.succeed("skarn --version").startswith("SKARN version 3.7.1\n")
    again = machine.run("skarnctl start")
    assert again.returncode != 0
    assert str(pid_of_daemon(machine)) in again.stdout

    names = write_files(machine, "run1", 3000, 2000)
    wait_until(lambda: arrived(machine, names), "3,000 files are announced", 120)
    assert len(records(machine)) == len(set(records(machine))), "announced twice"
    assert list(machine.path("/ramdisk/run1").iterdir()) == []


def test_watch_and_metrics_tell_the_same(machine: Machine) -> None:
    def files() -> int:
        return int(json.loads(machine.succeed("skarnctl watch --json"))["total"]["files"])

    wait_until(lambda: files() == 3000, "watch has seen all files", 30)
    text = machine.succeed("skarnctl watch --once")
    assert "3000" in text.replace(",", "").replace("'", "")

    reply = machine.succeed(
        f"bash -c 'exec 3<>/dev/tcp/{METRICS.replace(':', '/')}; "
        'printf "GET /metrics HTTP/1.0\\r\\n\\r\\n" >&3; timeout 10 cat <&3; true\''
    )
    # What the unit's hardening leaves must be enough to see all of this.
    for sample in (
        "skarn_up 1",
        'skarn_pipe_state{state="read"} 1',
        'skarn_log_coverage{coverage="since_start"} 1',
        "skarn_config_readable 1",
    ):
        assert f"\n{sample}\n" in reply.replace("\r", ""), (sample, reply)
    assert 'skarn_target_free_bytes{detector="1"} ' in reply
    copied = re.findall(r"^skarn_files_copied_total(?:{[^}]*})? (\S+)$", reply, re.MULTILINE)
    assert sum(float(value) for value in copied) == 3000, reply


def test_skarnctl_leaves_the_daemon_to_systemd_which_would_start_it_again(machine: Machine) -> None:
    before = pid_of_daemon(machine)
    assert machine.main_process("skarn") == before, "systemd has to know which one is the daemon"
    for command in ("stop", "stop --when-idle", "restart -u 1:2"):
        done = machine.run(f"skarnctl {command}")
        assert done.returncode == 1
        assert "systemd runs skarn as skarn.service" in done.stdout
    # What would not start again is not stopped, neither by hand nor through systemd.
    machine.succeed("mv /etc/skarn_orbelin.conf /etc/skarn_orbelin.off")
    done = machine.run("skarnctl restart")
    assert done.returncode == 1 and "nothing was stopped: skarn would not start: no con" in done.stdout
    machine.succeed("mv /etc/skarn_orbelin.off /etc/skarn_orbelin.conf")
    assert pid_of_daemon(machine) == before
    assert machine.succeed("skarnctl restart") == "systemd has restarted skarn.service\n"
    assert pid_of_daemon(machine) != before


def test_the_unit_of_a_site_that_bears_another_name_is_left_to_systemd_too(machine: Machine) -> None:
    machine.succeed("systemctl stop skarn")
    text = machine.path("/lib/systemd/system/skarn.service").read_text(encoding="utf-8")
    machine.write("/etc/systemd/system/beamline.service", text)
    machine.succeed("systemctl daemon-reload && systemctl start beamline")
    done = machine.run("skarnctl stop")
    assert done.returncode == 1 and "systemd runs skarn as beamline.service" in done.stdout
    machine.succeed("systemctl stop beamline && rm /etc/systemd/system/beamline.service")
    machine.succeed("systemctl daemon-reload && systemctl start skarn")


def test_there_are_never_two_daemons(machine: Machine) -> None:
    machine.succeed("systemctl stop skarn && skarnctl start")
    first = pid_of_daemon(machine)
    done = machine.run("systemctl start skarn")
    assert done.returncode != 0, "the unit must see a daemon that was started by hand"
    journal = machine.run("journalctl --no-pager -u skarn -n 20").stdout
    assert f"nothing was started: skarn seems to run: process {first}, " in journal, journal
    # A process that ends meanwhile is an error for grep.
    found = machine.run("grep -slx skarn /proc/[0-9]*/comm").stdout.split()
    assert found == [f"/proc/{first}/comm"]
    # Nor does the unit's stop, which may not look at it, end it; but skarnctl by hand does.
    machine.run("systemctl stop skarn")
    assert pid_of_daemon(machine) == first
    machine.succeed("skarnctl stop && systemctl reset-failed skarn && systemctl start skarn")
    assert machine.run("skarnctl start").returncode == 1


def test_the_daemon_has_a_tmp_of_its_own(machine: Machine) -> None:
    pid = pid_of_daemon(machine)
    assert not machine.path("/tmp/skarn_error.log").exists()
    machine.succeed(f"test -e /proc/{pid}/root/tmp/skarn_error.log")


def test_a_consumer_that_closes_the_pipe_costs_no_announcement(machine: Machine) -> None:
    # Ignored, as systemd would have it, SIGPIPE would leave records unsent instead.
    before = pid_of_daemon(machine)
    field = machine.succeed(f"grep '^SigIgn:' /proc/{before}/status").split()
    assert not int(field[1], 16) & 1 << (signal.SIGPIPE - 1), field
    machine.succeed("systemctl stop vantrel")
    # This one leaves in the middle of the records, and of a line, which the next one must not go on.
    # They are those of one cycle: what one that was over before had left in the pipe goes with it.
    machine.start("hasty", f"exec 3<{PIPE}; (head -c 2000 <&3; echo) >>/root/records; exec 3<&-")
    names = write_files(machine, "run2", 3000, 100, at_once=True)
    # Not before the daemon has written to nobody: it may take its time to the next record.
    wait_until(lambda: machine.run(f"test -e /proc/{before}").returncode != 0, "it has ended", 60)
    start_consumer(machine)
    try:
        wait_until(lambda: arrived(machine, names), "all files are announced", 120)
    except AssertionError as error:
        journal = machine.run("journalctl --no-pager -u skarn -n 60").stdout
        raise AssertionError(f"{error}; the journal's end:\n{journal}") from None


def is_back(machine: Machine, before: int) -> bool:
    """Whether a daemon runs that is another than the one before."""
    status = machine.run("skarnctl status --json")
    return status.returncode == 0 and json.loads(status.stdout)["pid"] != before


def test_systemd_knows_the_daemon_whatever_else_its_start_has_left(machine: Machine) -> None:
    # An rsync that has lost its parent in that instant, say.
    change = "/etc/systemd/system/skarn.service.d/other.conf"
    start = "ExecStart=\nExecStart=/bin/sh -c 'sleep 1000 & exec skarnctl start'"
    machine.write(change, f"[Service]\n{start}\n")
    machine.succeed("systemctl daemon-reload && systemctl restart skarn")
    before = pid_of_daemon(machine)
    assert machine.main_process("skarn") == before
    machine.succeed(f"kill -PIPE {before}")
    wait_until(lambda: is_back(machine, before), "systemd has started it again", 30)
    machine.succeed(f"rm {change} && systemctl daemon-reload && systemctl restart skarn")


def test_a_killed_daemon_is_started_again(machine: Machine) -> None:
    before = pid_of_daemon(machine)
    machine.succeed(f"kill -KILL {before}")
    # Not to be taken for a stop that somebody wanted: this is how a lack of memory ends it.
    wait_until(
        lambda: "Failed with result 'signal'" in machine.run("journalctl --no-pager -u skarn").stdout,
        "its end is called a failure", 10,
    )
    wait_until(lambda: is_back(machine, before), "systemd has started it again", 30)
    names = write_files(machine, "run3", 200, 1000)
    wait_until(lambda: arrived(machine, names), "it copies", 60)


def test_stopping_is_no_failure_and_leaves_nothing_behind(machine: Machine) -> None:
    machine.succeed("systemctl stop skarn")
    assert machine.run("systemctl is-failed skarn").stdout == "inactive\n"
    assert not programs(machine) & {"skarn", "rsync_orbelin"}
    assert machine.run("skarnctl status").returncode in (1, 3)


def test_each_command_for_daily_life_runs_as_it_stands_on_the_page(machine: Machine) -> None:
    options = machine.path("/etc/default/skarn").read_text(encoding="utf-8")
    machine.succeed("systemctl start skarn")
    commands = daily_commands(1)
    assert len(commands) == 13, commands
    for command in commands:
        machine.succeed(command)
    assert "-d 1:/run7:/data/run7" in machine.succeed("skarnctl status")
    machine.write("/etc/default/skarn", options)
    machine.succeed("systemctl stop skarn && skarnctl start")
    commands = daily_commands(2)
    assert len(commands) == 11, commands
    for command in commands:
        # The service goes on for ever; here its end is a matter of seconds.
        if "--listen" in command:
            machine.succeed("systemctl stop skarn-metrics")
            command = f"timeout 3 {command}; test $? -eq 124"
        machine.succeed(command)
    assert "-d 1:/run7:/data/run7" in machine.succeed("skarnctl status")
    machine.succeed("skarnctl stop && systemctl start skarn-metrics")


def test_start_and_stop_without_systemd(machine: Machine) -> None:
    machine.succeed("skarnctl start")
    pid = pid_of_daemon(machine)
    names = write_files(machine, "run4", 300, 1000)
    wait_until(lambda: arrived(machine, names), "it copies", 60)
    # A crash, and a second start over what it left.
    machine.succeed(f"kill -KILL {pid}")
    assert machine.run("skarnctl status").returncode == 1
    machine.succeed("skarnctl start")
    machine.succeed("skarnctl restart")
    machine.succeed("skarnctl stop --when-idle=30")
    assert machine.run("skarnctl status").returncode in (1, 3)
    machine.succeed("skarnctl stop")


def test_an_upgrade_lets_the_daemon_run(machine: Machine) -> None:
    machine.succeed("systemctl start skarn")
    before = pid_of_daemon(machine)
    metrics = machine.main_process("skarn-metrics")
    said = install(machine, "skarn", "skarn-confirming-rsync", later=True)
    assert "goes on with its old program" in said
    assert machine.main_process("skarn-metrics") != metrics
    assert "its program was replaced since" in machine.succeed("skarnctl status")
    assert machine.succeed("dpkg-query -W -f '${Version}' skarn").endswith("+later")
    assert pid_of_daemon(machine) == before
    assert machine.run("systemctl is-active skarn").stdout == "active\n"
    assert os.readlink(machine.path(LINK)) == "/usr/lib/skarn/rsync_orbelin"
    names = write_files(machine, "run5", 300, 1000)
    wait_until(lambda: arrived(machine, names), "the old daemon goes on", 60)
    machine.succeed("systemctl restart skarn")
    assert pid_of_daemon(machine) != before


def test_removing_ends_the_daemon_and_keeps_what_is_the_user_s(machine: Machine) -> None:
    machine.succeed("apt-get -q -y remove skarn skarn-confirming-rsync", timeout=300)
    assert not programs(machine) & {"skarn", "skarnctl", "rsync_orbelin"}
    assert not machine.path(LINK).is_symlink()
    assert machine.path("/etc/skarn_orbelin.conf").is_file()
    assert machine.path("/etc/default/skarn").is_file()
    assert machine.path("/var/lib/skarn/journal").is_dir()
    assert machine.path("/usr/local/orbelin/etc/rsyncd.secrets_remote").is_file()


def test_purging_takes_the_rest_but_not_the_files(machine: Machine) -> None:
    machine.succeed("apt-get -q -y purge skarn skarn-confirming-rsync", timeout=300)
    assert not machine.path("/etc/default/skarn").exists()
    assert not machine.path("/var/lib/skarn").exists()
    assert machine.path("/etc/skarn_orbelin.conf").is_file()
    assert machine.path("/data/detector1/run1/f1.dat").is_file()


def test_a_dedicated_client_is_left_alone(machine: Machine) -> None:
    machine.write(LINK, "#!/bin/sh\nexit 0\n", 0o755)
    said = install(machine, "skarn", "skarn-confirming-rsync")
    assert "is kept" in said
    assert machine.path(LINK).read_text(encoding="utf-8") == "#!/bin/sh\nexit 0\n"
    machine.succeed("apt-get -q -y purge skarn-confirming-rsync", timeout=300)
    assert machine.path(LINK).read_text(encoding="utf-8") == "#!/bin/sh\nexit 0\n"
