"""The figures for Prometheus: served over HTTP, printed once, alerted on and drawn."""

from __future__ import annotations

import json
import os
import re
import signal
import socket
import subprocess
import threading
import time
import urllib.error
import urllib.request
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

from support import scripted
from support.bed import Bed
from support.consumer import Consumer
from support.daemon import (
    FIFO,
    LOG_FILE,
    Daemon,
    Detector,
    install_password_file,
    write_configuration,
    write_raw_configuration,
)
from support.scripted import err, out
from support.waiting import LIMIT, wait_until

SKARNCTL = os.environ["SKARNCTL_BINARY"]
PACKAGING = Path(__file__).parents[2] / "packaging"
ALERTS = PACKAGING / "prometheus" / "skarn-alerts.yml"
DASHBOARD = PACKAGING / "grafana" / "skarn-dashboard.json"
WHERE = "127.0.0.1:9751"

SAMPLE = re.compile(r'(\w+)(?:\{((?:[^"}]|"(?:[^"\\]|\\.)*")*)\})? (\S+)')
LABEL = re.compile(r'(\w+)="((?:[^"\\]|\\.)*)"')
METRIC = re.compile(r"\bskarn_\w+")


class Figures:
    """What was served or printed, by name and labels."""

    def __init__(self, text: str) -> None:
        self.text = text
        self.samples: dict[tuple[str, frozenset[tuple[str, str]]], float] = {}
        for line in text.splitlines():
            if not line or line.startswith("#"):
                continue
            found = SAMPLE.fullmatch(line)
            assert found is not None, f"no sample: {line!r}"
            name, labels, value = found.groups()
            key = (name, frozenset(LABEL.findall(labels or "")))
            assert key not in self.samples, f"twice: {line}"
            self.samples[key] = float(value)

    def __call__(self, name: str, **labels: str) -> float:
        return self.samples[name, frozenset(labels.items())]

    def sum(self, name: str) -> float:
        """Over all labels."""
        return sum(value for (each, _), value in self.samples.items() if each == name)

    def names(self) -> set[str]:
        return {name for name, _ in self.samples}


def scrape(where: str = WHERE) -> Figures:
    with urllib.request.urlopen(f"http://{where}/metrics", timeout=LIMIT) as answer:
        assert answer.status == 200
        assert answer.headers["Content-Type"].startswith("text/plain")
        return Figures(answer.read().decode("utf-8"))


@contextmanager
def serving(where: str = WHERE) -> Iterator[subprocess.Popen[str]]:
    """The exporter, once it answers."""
    with subprocess.Popen(
        [SKARNCTL, "metrics", "--listen", where],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    ) as exporter:
        try:
            def answers() -> bool:
                assert exporter.poll() is None, exporter.communicate()
                try:
                    scrape(where)
                except OSError:
                    return False
                return True

            wait_until(answers, "the exporter to answer")
            yield exporter
            if exporter.poll() is None:
                exporter.terminate()
                _, errors = exporter.communicate(timeout=LIMIT)
                # A sanitizer would have its say here.
                assert (exporter.returncode, errors) == (0, "")
        finally:
            if exporter.poll() is None:
                exporter.kill()


def once(*arguments: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [SKARNCTL, "metrics", *arguments],
        check=False,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        timeout=LIMIT,
    )


@contextmanager
def scripted_daemon(detectors: list[Detector]) -> Iterator[Daemon]:
    """A daemon whose detectors have nothing but what a test scripts, and a consumer."""
    install_password_file()
    scripted.install()
    write_configuration(None, detectors)
    with Consumer(), Daemon() as daemon:
        daemon.start()
        daemon.wait_for_log("++ Starting copy thread", len(detectors))
        yield daemon


def test_the_numbers_are_those_of_the_files_that_moved() -> None:
    with Bed(2) as bed:
        bed.start()
        with serving():
            assert scrape()("skarn_up") == 1
            bed.simulator.burst((f"frame_{number:04d}.raw" for number in range(120)), 300)
            bed.wait_announced(120)
            wait_until(
                lambda: scrape().sum("skarn_files_copied_total") == 120, "120 files to be counted"
            )
            bed.settle()
            for number in range(5):
                bed.stations[1].simulator.write(f"other_{number}.raw")
            bed.wait_announced(125)
            wait_until(
                lambda: scrape().sum("skarn_files_copied_total") == 125, "125 files to be counted"
            )
            figures = scrape()
            assert figures("skarn_files_copied_total", detector="1") == 120
            assert figures("skarn_files_copied_total", detector="2") == 5
            assert figures.sum("skarn_files_lost_total") == 0
            started = bed.daemon.log().count(": rsync call: ")
            assert figures.sum("skarn_copy_processes_started_total") == started
            assert figures("skarn_pipe_readers") == 1
            assert figures("skarn_pipe_state", state="read") == 1
            assert figures("skarn_copy_process_limit") == 8
            assert figures("skarn_log_coverage", coverage="since_start") == 1
            assert figures("skarn_log_size_bytes") > 0
            free, size = (figures(f"skarn_target_{each}_bytes", detector="1") for each in
                          ("free", "size"))
            space = os.statvfs(bed.target)
            assert size == space.f_blocks * space.f_frsize and 0 < free <= size
            assert figures("skarn_bytes_copied_total", detector="1") > 0
            assert Figures(once("--once").stdout).sum("skarn_files_copied_total") == 125
        bed.check()


def test_a_daemon_that_is_down_is_a_zero_and_no_silence() -> None:
    with scripted_daemon([Detector("1")]) as daemon, serving():
        assert scrape()("skarn_up") == 1
        daemon.end(signal.SIGKILL)
        wait_until(lambda: scrape()("skarn_up") == 0, "the look of the next second")
        figures = scrape()
        assert figures("skarn_daemon_state", state="dead") == 1
        assert figures("skarn_detector_state", detector="1", state="not_served") == 1


def test_nothing_at_all_is_there_to_be_measured() -> None:
    ended = once("--once")
    assert ended.returncode == 0 and ended.stderr == ""
    figures = Figures(ended.stdout)
    assert figures("skarn_up") == 0
    assert figures("skarn_config_readable") == 0
    assert figures("skarn_log_coverage", coverage="none") == 1
    assert "skarn_files_copied_total" not in figures.names()


def test_losses_and_failures_are_counted() -> None:
    detector = Detector("1")
    with scripted_daemon([detector]) as daemon, serving():
        scripted.add_copy(
            [
                scripted.out("SENT: gone\nSENT: here\nCONFIRMED: x here\n"),
                scripted.err("rsync error: some files could not be transferred\n"),
            ],
            detector,
        )
        scripted.add_listing(["gone", "here"], detector)
        daemon.wait_for_log("RSYNC OUTPUT END")
        wait_until(lambda: scrape().sum("skarn_files_lost_total") == 1, "the loss to be counted")
        figures = scrape()
        assert figures.sum("skarn_files_copied_total") == 1
        assert figures.sum("skarn_complaints_total") == 1
        assert figures.sum("skarn_cycles_total") == 1
        os.rename(FIFO, str(FIFO) + ".gone")
        scripted.add_listing(["another"], detector)
        wait_until(lambda: scrape().sum("skarn_pipe_absent_total") == 1, "the pipe to be missed")
        wait_until(lambda: scrape()("skarn_pipe_state", state="absent") == 1, "its state")


def test_rotations_between_two_scrapes_are_not_missed() -> None:
    detector = Detector("1")
    install_password_file()
    scripted.install()
    write_configuration({"logfile": LOG_FILE, "logfile_max_size": 2000}, [detector])
    with Consumer() as consumer, Daemon() as daemon:
        daemon.start()
        with serving():
            assert scrape().sum("skarn_files_copied_total") == 0
            for number in range(40):
                scripted.add_listing([f"frame_{number}"], detector)
                wait_until(lambda: consumer.count() > number, "the file to be announced")
            wait_until(
                lambda: daemon.archived_log().count("RSYNC OUTPUT END") >= 1, "a report"
            )
            wait_until(
                lambda: scrape().sum("skarn_files_copied_total") == 40, "40 files to be counted"
            )
            figures = scrape()
            assert figures("skarn_log_rotations_total") >= 1
            assert figures("skarn_log_archives") >= 1
            assert figures("skarn_log_coverage", coverage="with_gap") == 0


def test_no_counter_falls_to_less_when_the_banner_was_rotated_away() -> None:
    """A fall to 0 is a restart; one to anything else would count all that is left as new."""
    with Bed(settings={"logfile_max_size": 2000, "logfile_max_number": 1}) as bed:
        bed.start()
        with serving():
            bed.simulator.burst([f"early_{number}" for number in range(20)])
            bed.wait_announced(20)
            wait_until(lambda: scrape().sum("skarn_files_copied_total") == 20, "early files")
        for number in range(20):
            bed.simulator.write(f"late_{number}")
            bed.wait_announced(21 + number)
        assert "++ skarn " not in bed.daemon.archived_log(), "the banner has gone"
        with serving():
            before = scrape()
            assert before("skarn_files_copied_total", detector="1") == 40
        bed.simulator.burst([f"last_{number}" for number in range(20)])
        bed.wait_announced(60)
        with serving():
            after = scrape()
            assert after("skarn_files_copied_total", detector="1") == 60
            counters = re.findall("(?m)^# TYPE (\\S+) counter$", after.text)
            assert len(counters) > 5
            for (name, labels), value in after.samples.items():
                was = before.samples.get((name, labels), 0)
                assert name not in counters or value >= was or value == 0, (name, labels, was, value)
        bed.finish()


def test_thousands_of_detectors_that_a_message_makes_up_are_nowhere() -> None:
    detector = Detector("1")
    install_password_file()
    scripted.install()
    write_configuration(None, [detector])
    made_up = "".join(
        f"++ Starting copy thread for detector fake{number}\n"
        f"fake{number} Starting 4 copy processes\n"
        f"fake{number}: rsync call: x\nfake{number}: Removed file x\n"
        for number in range(4200)
    )
    end = "++ RSYNC OUTPUT END ++++++++++++++++++++\n"
    scripted.add_listing(["a"], detector)
    scripted.add_copy([out("SENT: a\nCONFIRMED: removed a\n"), err(end + made_up)], detector)
    with Consumer(), Daemon() as daemon:
        daemon.start()
        daemon.wait_for_log("1: Removed file")
        with serving():
            begun = time.monotonic()
            figures = scrape()
            assert time.monotonic() - begun < 2, "the page is there already"
            assert "fake" not in figures.text and len(figures.text) < 100_000
            shown = {dict(labels).get("detector", "1") for _, labels in figures.samples}
            assert shown == {"1"}


def test_several_clients_scrape_at_once() -> None:
    with scripted_daemon([Detector("1"), Detector("2", "127.0.0.2")]), serving():
        problems: list[str] = []

        def client() -> None:
            for _ in range(30):
                try:
                    if scrape()("skarn_up") != 1:
                        problems.append("down")
                except (OSError, AssertionError, KeyError) as error:
                    problems.append(repr(error))

        clients = [threading.Thread(target=client) for _ in range(4)]
        for each in clients:
            each.start()
        for each in clients:
            each.join(LIMIT)
        assert not any(each.is_alive() for each in clients) and problems == []


def test_clients_that_say_nothing_hinder_no_other() -> None:
    with scripted_daemon([Detector("1")]), serving():
        silent = [socket.create_connection(("127.0.0.1", 9751)) for _ in range(150)]
        for each in silent[::2]:
            try:
                each.sendall(b"GET /metrics HTT")
            except OSError:
                pass  # dropped already, in favour of a later one
        begun = time.monotonic()
        assert scrape()("skarn_up") == 1
        assert time.monotonic() - begun < 4
        for each in silent:
            each.close()


@pytest.mark.parametrize(
    ("request_", "status"),
    [
        (b"GET /metrics HTTP/1.0\r\n\r\n", b"200 "),
        (b"GET /metrics?x=1 HTTP/1.1\r\nHost: a\r\n\r\n", b"200 "),
        (b"HEAD /metrics HTTP/1.1\n\n", b"200 "),
        (b"POST /metrics HTTP/1.1\r\n\r\n", b"405 "),
        (b"GET /metricsx HTTP/1.1\r\n\r\n", b"404 "),
        (b"\r\n\r\n", b"405 "),
        (b"GET " + b"x" * 20000, b""),
    ],
)
def test_any_request_gets_a_whole_answer_or_none(request_: bytes, status: bytes) -> None:
    with serving(), socket.create_connection(("127.0.0.1", 9751)) as client:
        client.settimeout(LIMIT)
        answer = b""
        try:
            client.sendall(request_)
            while part := client.recv(65536):
                answer += part
        except ConnectionError:
            assert status == b""
        assert answer.partition(b" ")[2].startswith(status) if status else answer == b""
        if answer:
            head, _, body = answer.partition(b"\r\n\r\n")
            length = int(re.findall(rb"Content-Length: (\d+)", head)[0])
            assert len(body) == (0 if request_.startswith(b"HEAD") else length)


def test_what_faces_the_network_needs_no_rights() -> None:
    """One looks and writes a file; the other serves it, as nobody's user."""
    written = Path("/srv/skarn.prom")
    with scripted_daemon([Detector("1")]) as daemon:
        serve = [SKARNCTL, "metrics", "--listen", WHERE, "--from", str(written)]
        with subprocess.Popen(serve, user=65534, group=65534, extra_groups=[]) as server:
            def status() -> int:
                try:
                    return 200 if scrape()("skarn_up") == 1 else 0
                except urllib.error.HTTPError as error:
                    with error:
                        return error.code
                except OSError:
                    return 0

            wait_until(lambda: status() == 503, "an answer that nobody looks")
            with subprocess.Popen([SKARNCTL, "metrics", "--write", str(written)]) as looker:
                wait_until(lambda: status() == 200, "the figures")
                looker.kill()
            wait_until(lambda: status() == 503, "that nobody looks any more")
            server.terminate()
            assert server.wait(LIMIT) == 0
        assert daemon.is_running()


def test_odd_detectors_give_valid_text() -> None:
    install_password_file()
    scripted.install()
    identifiers = [b"caf\xe9", b'a"b\\c', b"\x1b[31m", b"x" * 900, "größe".encode()]
    blocks = [
        b"detectorID %s\nremoteIP 127.0.0.%d\nsource /\ntarget /srv/images/%d\n"
        % (identifier, number, number)
        for number, identifier in enumerate(identifiers, 1)
    ]
    LOG_FILE.parent.mkdir(parents=True, exist_ok=True)
    write_raw_configuration(b"logfile %s\n\n" % str(LOG_FILE).encode() + b"\n".join(blocks))
    with Consumer(), Daemon() as daemon:
        daemon.start()
        ended = once("--once")
        assert ended.returncode == 0, ended.stderr
        figures = Figures(ended.stdout)
        for shown in ("caf\\\\351", 'a\\"b\\\\134c', "\\\\033[31m", "x" * 900, "größe"):
            assert figures("skarn_copy_processes", detector=shown) == 0
        assert all(character.isprintable() or character == "\n" for character in ended.stdout)
        assert daemon.is_running()


@pytest.mark.parametrize(
    ("arguments", "status", "complaint"),
    [
        ([], 2, "metrics takes --listen ADDRESS:PORT, --write FILE or --once"),
        (["--listen", ""], 2, "metrics takes --listen"),
        (["--listen", "127.0.0.1:0"], 2, "has no port from 1 to 65535"),
        (["--listen", "localhost:9751"], 2, "is no numeric address"),
        (["--listen", "9751"], 2, "names no port"),
        (["--listen", "127.0.0.1:1\n2"], 2, "\\012"),
        (["--listen", "192.0.2.1:9751"], 1, "Cannot assign requested address"),
        (["--listen", WHERE, "--once"], 2, "excludes"),
        (["--listen", WHERE, "--write", "/srv/x"], 2, "excludes"),
        (["--from", "/srv/x", "--once"], 2, "requires"),
        (["--write", "/nowhere/x"], 1, "cannot write /nowhere/x: No such file or directory"),
        (["--listen"], 2, "--listen"),
        (["--nonsense"], 2, "--nonsense"),
    ],
)
def test_mistakes_get_one_line(arguments: list[str], status: int, complaint: str) -> None:
    ended = once(*arguments)
    assert (ended.returncode, ended.stdout) == (status, "")
    assert ended.stderr.startswith("skarnctl: ") and ended.stderr.count("\n") == 1
    assert complaint in ended.stderr


def test_a_port_that_is_taken_is_said() -> None:
    with socket.create_server(("127.0.0.1", 9751)):
        ended = once("--listen", WHERE)
    assert ended.returncode == 1
    assert ended.stderr == "skarnctl: cannot listen at 127.0.0.1:9751: Address already in use\n"


def test_output_that_cannot_be_written_is_said() -> None:
    with open("/dev/full", "w", encoding="ascii") as full:
        ended = subprocess.run(
            [SKARNCTL, "metrics", "--once"],
            check=False,
            stdout=full,
            stderr=subprocess.PIPE,
            text=True,
            timeout=LIMIT,
        )
    assert ended.returncode == 1
    assert ended.stderr == "skarnctl: cannot write: No space left on device\n"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_it_ends_cleanly(number: int) -> None:
    with serving() as exporter:
        exporter.send_signal(number)
        output, errors = exporter.communicate(timeout=LIMIT)
        assert (exporter.returncode, output, errors) == (0, "", "")


@pytest.mark.parametrize("words", [["metrics", "--write", "/srv/figures"], ["watch", "--once"]])
def test_it_can_be_ended_while_it_takes_its_first_look(words: list[str]) -> None:
    write_configuration(None, [Detector("1")])
    # Searched backwards for a banner, most of it.
    with LOG_FILE.open("wb") as log:
        log.truncate(400_000_000)
    for tenths in range(5):
        with subprocess.Popen([SKARNCTL, *words], stdout=subprocess.DEVNULL) as run:
            time.sleep(tenths / 10)
            run.terminate()
            assert run.wait(2) in (0, -signal.SIGTERM)


def test_only_the_metrics_are_served() -> None:
    with serving():
        with pytest.raises(urllib.error.HTTPError) as refused:
            urllib.request.urlopen(f"http://{WHERE}/else", timeout=LIMIT)
        assert refused.value.code == 404
        refused.value.close()


def test_ipv6_is_served() -> None:
    with serving("[::1]:9751"):
        assert scrape("[::1]:9751")("skarn_up") == 0


# What is shipped beside it.


def promtool(*arguments: str, text: str | None = None) -> None:
    ended = subprocess.run(
        ["promtool", *arguments],
        check=False,
        input=text,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=2 * LIMIT,
    )
    assert ended.returncode == 0, ended.stdout


def known_names() -> set[str]:
    """All metrics that there are, of a daemon of which everything is known."""
    with scripted_daemon([Detector("1")]):
        names = Figures(once("--once").stdout).names()
    # Those of the copy program, of a cycle that runs, and of a target that fills.
    source = (PACKAGING.parent / "control/observe/figures.cpp").read_text(encoding="utf-8")
    return names | set(re.findall(r'"(skarn_\w+)"', source))


def expressions() -> list[str]:
    """Every expression of the dashboard, with examples for its variables."""
    found: list[str] = []

    def look(value: object) -> None:
        if isinstance(value, dict):
            if isinstance(value.get("expr"), str):
                found.append(value["expr"])
            for each in value.values():
                look(each)
        elif isinstance(value, list):
            for each in value:
                look(each)

    look(json.loads(DASHBOARD.read_text(encoding="utf-8")))
    filled = [
        each.replace("$__rate_interval", "5m").replace("$job", "j").replace("$instance", "i")
        for each in found
    ]
    assert len(filled) > 20 and not any("$" in each for each in filled)
    return filled


def test_promtool_accepts_the_metrics() -> None:
    with scripted_daemon([Detector("1")]):
        ended = once("--once")
    assert ended.returncode == 0
    promtool("check", "metrics", text=ended.stdout)


def test_promtool_accepts_the_alerts() -> None:
    promtool("check", "rules", "--lint=all", "--lint-fatal", str(ALERTS))
    promtool("test", "rules", str(ALERTS.with_name("skarn-alerts-test.yml")))


def test_promtool_accepts_the_dashboard(tmp_path: Path) -> None:
    rules = tmp_path / "dashboard.yml"
    records = [
        {"record": f"panel:{number}", "expr": each} for number, each in enumerate(expressions())
    ]
    rules.write_text(json.dumps({"groups": [{"name": "dashboard", "rules": records}]}))
    promtool("check", "rules", str(rules))


def test_alerts_and_dashboard_name_only_metrics_that_there_are() -> None:
    known = known_names()
    alerts = [
        line for line in ALERTS.read_text(encoding="utf-8").splitlines() if "skarnctl" not in line
    ]
    used = set(METRIC.findall("\n".join(alerts) + "\n".join(expressions())))
    # Those of skarn-relay are looked after where it is tested.
    used = {name for name in used if not name.startswith("skarn_relay_")}
    assert len(used) > 15
    assert used <= known, used - known
    variables = json.loads(DASHBOARD.read_text(encoding="utf-8"))["templating"]["list"]
    queried = set(METRIC.findall(json.dumps(variables)))
    assert queried and queried <= known
