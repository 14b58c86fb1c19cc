"""Subscribers over HTTP: fetching, waiting, acknowledging, streaming, and what is refused."""

from __future__ import annotations

import http.client
import json
import os
import signal
import socket
import subprocess
import threading
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

from support.daemon import Detector, write_configuration
from support.relay_process import Relay, announce, make_files, skarn_relay
from support.waiting import wait_until

SOCKET = "/run/skarn-relay/socket"


@pytest.fixture
def relay() -> Iterator[Relay]:
    one = Relay()
    one.start()
    yield one


def curl(*arguments: str) -> str:
    done = subprocess.run(
        ["curl", "-sS", "--max-time", "20", "--unix-socket", SOCKET, *arguments],
        capture_output=True,
        text=True,
        check=True,
    )
    return done.stdout


def test_two_subscribers_each_at_its_own_pace(relay: Relay) -> None:
    one, two = relay.client.subscribe("one"), relay.client.subscribe("two")
    paths = make_files(10)
    announce(*paths)
    relay.wait_for_last(10)
    assert [record.path for record in one.fetch(limit=4)] == paths[:4]
    one.acknowledge(4)
    assert [record.path for record in one.fetch()] == paths[4:]
    assert [record.path for record in two.fetch()] == paths
    relay.kill()
    relay.start()
    assert [record.seq for record in one.fetch()] == [5, 6, 7, 8, 9, 10]
    assert len(two.fetch()) == 10


def test_a_fetch_waits_for_the_first_record(relay: Relay) -> None:
    subscription = relay.client.subscribe("me")
    (path,) = make_files(1)
    threading.Timer(0.5, announce, [path]).start()
    begin = time.monotonic()
    assert [record.path for record in subscription.fetch(wait=20)] == [path]
    assert 0.3 < time.monotonic() - begin < 10
    subscription.acknowledge(1)
    begin = time.monotonic()
    assert subscription.fetch(wait=1) == []
    assert time.monotonic() - begin > 0.9


def test_iterating_acknowledges_what_was_dealt_with(relay: Relay) -> None:
    paths = make_files(5)
    announce(*paths)
    seen: list[str] = []
    for record in relay.client.subscribe("me"):
        seen.append(record.path)
        if len(seen) == 3:
            break  # the third is not dealt with
    assert [record.seq for record in relay.client.subscribe("me").fetch()] == [3, 4, 5]


def test_filters(relay: Relay) -> None:
    relay.stop()
    write_configuration(None, [Detector("7", target="/srv/t"), Detector("8", target="/srv/u")])
    relay.start()
    announce("usershift: 1 2", *make_files(3), *make_files(3, "/srv/u"))
    relay.wait_for_last(7)
    by_detector = relay.client.subscribe("detector", detectors=["8"])
    assert [record.detector for record in by_detector.fetch()] == ["8"] * 3
    by_path = relay.client.subscribe("path", paths=["*/f00001", "*/f00002"], detectors=["7"])
    assert [record.seq for record in by_path.fetch()] == [3, 4]
    kinds = relay.client.subscribe("kinds", kinds=["usershift"])
    assert [record.path for record in kinds.fetch()] == ["usershift: 1 2"]


def test_what_is_not_wanted_needs_no_acknowledgement(relay: Relay) -> None:
    nothing = relay.client.subscribe("nothing", paths=["/nowhere/*"])
    announce(*make_files(5000))
    relay.wait_for_last(5000)
    assert nothing.fetch() == []
    assert relay.status()["subscribers"][0]["acknowledged"] == 5000
    assert relay.status()["subscribers"][0]["lag"] == 0


def test_starts(relay: Relay) -> None:
    announce(*make_files(4))
    relay.wait_for_last(4)
    between = time.time()
    time.sleep(1.1)
    announce(*make_files(2, prefix="later"))
    relay.wait_for_last(6)
    when = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(between + 1))
    starts = {"oldest": 1, "3": 3, "1h": 1, when: 5}
    for start, first in starts.items():
        found = relay.client.subscribe(f"from-{first}-{len(start)}", start=start).fetch()
        assert found[0].seq == first, start
    now = relay.client.subscribe("now", start="now")
    assert now.fetch() == []
    now.reset("oldest")
    assert len(now.fetch()) == 6
    now.reset(6)
    assert [record.seq for record in now.fetch()] == [6]


def test_a_stream_gives_what_was_and_what_comes(relay: Relay) -> None:
    relay.client.subscribe("live")
    paths = make_files(3)
    announce(*paths[:2])
    relay.wait_for_last(2)
    connection = http.client.HTTPConnection("localhost", timeout=20)
    connection.sock = socket.socket(socket.AF_UNIX)
    connection.sock.settimeout(20)
    connection.sock.connect(SOCKET)
    connection.request("GET", "/v1/subscribers/live/stream", headers={"Last-Event-ID": "1"})
    answer = connection.getresponse()
    assert answer.getheader("Content-Type") == "text/event-stream"

    def event() -> tuple[str, str]:
        number = answer.readline().decode().strip()
        data = answer.readline().decode()
        assert answer.readline() == b"\n"
        return number, json.loads(data.removeprefix("data: "))["path"]

    assert event() == ("id: 2", paths[1])
    announce(paths[2])
    assert event() == ("id: 3", paths[2])
    connection.close()


def test_curl_is_enough(relay: Relay) -> None:
    announce(*make_files(2))
    relay.wait_for_last(2)
    assert curl("-X", "PUT", "http://relay/v1/subscribers/me") == '{"acknowledged":0}\n'
    lines = curl("http://relay/v1/subscribers/me/records?wait=10").splitlines()
    assert [json.loads(line)["seq"] for line in lines] == [1, 2]
    assert curl("-X", "POST", "http://relay/v1/subscribers/me/ack?seq=2") == '{"acknowledged":2}\n'
    assert "skarn_relay_records_total 2\n" in curl("http://relay/metrics")
    assert curl("-X", "DELETE", "http://relay/v1/subscribers/me") == "{}\n"


@pytest.mark.parametrize(
    ("method", "path", "status", "sentence"),
    [
        ("GET", "nothing", 404, "nothing of that name"),
        ("GET", "subscribers/none/records", 404, "there is no subscriber none"),
        ("POST", "subscribers/me/ack?seq=99", 400, "seq must be the number of a record"),
        ("POST", "subscribers/me/ack?seq=-1", 400, "seq must be a number"),
        ("POST", "subscribers/me/ack?seq=1e3", 400, "seq must be a number"),
        ("POST", "subscribers/me/ack", 400, "seq must be"),
        ("POST", "subscribers/me/ack?seq=99999999999999999999", 400, "seq must be a number"),
        ("POST", "subscribers/me/reset?start=soon", 400, "start must be"),
        ("GET", "subscribers/me/records?wait=x", 400, "wait must be a number"),
        ("GET", "records?kind=x", 400, "kind must be"),
        ("GET", "records?since=x", 400, "since must be"),
        ("PUT", "subscribers/.hidden", 400, "a name has"),
        ("PUT", "subscribers/" + "x" * 65, 400, "a name has"),
        ("PUT", "subscribers/me?max_backlog=5", 409, "other settings"),
        ("POST", "subscribers/me/dead-letters/drop?seq=1", 404, "no such dead letter"),
    ],
)
def test_nonsense_is_refused_in_a_sentence(
    relay: Relay, method: str, path: str, status: int, sentence: str
) -> None:
    relay.client.subscribe("me")
    answer = curl("-X", method, f"http://relay/v1/{path}", "-w", "%{http_code}")
    text, code = answer.rsplit("\n", 1)
    assert int(code) == status and sentence in json.loads(text)["error"], answer


def test_an_older_acknowledgement_takes_nothing_back(relay: Relay) -> None:
    subscription = relay.client.subscribe("me")
    announce(*make_files(3))
    relay.wait_for_last(3)
    subscription.acknowledge(3)
    subscription.acknowledge(1)
    assert subscription.fetch() == []


def test_rubbish_on_the_socket_harms_nobody(relay: Relay) -> None:
    for rubbish in (b"\0" * 5000, b"GET " + b"/" * 20000, b"GET / HTTP/1.1\r\nX: " + b"y" * 20000):
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(SOCKET)
            client.sendall(rubbish)
    idle = [socket.socket(socket.AF_UNIX) for _ in range(20)]
    for client in idle:
        client.connect(SOCKET)
    assert relay.answers()
    for client in idle:
        client.close()


def test_many_clients_may_come_at_the_same_instant(relay: Relay) -> None:
    assert relay.process is not None
    relay.process.send_signal(signal.SIGSTOP)
    clients = [socket.socket(socket.AF_UNIX) for _ in range(100)]
    for client in clients:
        client.setblocking(False)  # as one with a time limit has it: refused, it does not wait
        client.connect(SOCKET)
    relay.process.send_signal(signal.SIGCONT)
    for client in clients:
        client.close()
    assert relay.answers()


def test_only_root_and_the_group_may_connect() -> None:
    relay = Relay('[http]\ngroup = "daemon"\n')
    relay.start()
    status = os.stat(SOCKET)
    assert status.st_mode & 0o777 == 0o660 and status.st_gid == 1
    relay.stop()
    assert not Path(SOCKET).exists()
    relay.configuration = ""
    relay.start()
    assert os.stat(SOCKET).st_mode & 0o777 == 0o600


def test_a_port_wants_its_token() -> None:
    Path("/run/token").write_text("0123456789abcdef\n", encoding="ascii")
    relay = Relay('[http]\nlisten = "127.0.0.1:9752"\ntoken_file = "/run/token"\n')
    relay.start()
    remote = skarn_relay.Relay("127.0.0.1:9752", token="0123456789abcdef")
    assert remote.status()["last"] == 0
    for token in (None, "0123456789abcdeg", "0123456789abcde"):
        with pytest.raises(skarn_relay.RelayError, match="wants a token"):
            skarn_relay.Relay("127.0.0.1:9752", token=token).status()


def test_a_page_in_a_browser_may_change_nothing() -> None:
    relay = Relay('[http]\nlisten = "127.0.0.1:9752"\n')
    relay.start()
    relay.client.subscribe("me")
    for method, path, status in (
        ("GET", "/v1/status", 200),
        ("POST", "/v1/subscribers/me/reset?start=now", 403),
        ("PUT", "/v1/subscribers/other", 403),
        ("DELETE", "/v1/subscribers/me", 403),
    ):
        connection = http.client.HTTPConnection("127.0.0.1", 9752, timeout=10)
        connection.request(method, path, headers={"Origin": "http://elsewhere.example"})
        assert connection.getresponse().status == status, method
        connection.close()
    assert [each["name"] for each in relay.status()["subscribers"]] == ["me"]


def test_too_many_that_wait_are_refused_and_the_others_answered(relay: Relay) -> None:
    relay.client.subscribe("me")
    refused: list[skarn_relay.RelayError] = []

    def wait() -> None:
        try:
            skarn_relay.Subscription(relay.client, "me").fetch(wait=5)
        except skarn_relay.RelayError as error:
            refused.append(error)

    threads = [threading.Thread(target=wait, daemon=True) for _ in range(55)]
    for thread in threads:
        thread.start()
    wait_until(lambda: refused, "a refusal")
    assert refused[0].status == 503
    assert relay.answers()
    for thread in threads:
        thread.join()
