"""What the documents say of skarn-relay: the records' schema, every option, key and figure."""

from __future__ import annotations

import json
import os
import re
import subprocess
import tomllib
from pathlib import Path

import jsonschema  # type: ignore[import]

from support.daemon import Detector, write_configuration
from support.relay_process import CONFIGURATION, Relay, announce, make_files

DOCS = Path(os.environ["SKARN_DOCS"])
PROJECT = DOCS.parent


def manual(name: str) -> str:
    return (DOCS / "man" / name).read_text(encoding="utf-8")


def test_every_record_is_as_the_schema_says() -> None:
    schema = json.loads((DOCS / "relay-record.schema.json").read_text(encoding="utf-8"))
    write_configuration(None, [Detector("7", target="/srv/t")])
    relay = Relay()
    relay.start()
    Path("/srv/t/folder").mkdir(parents=True)
    Path("/srv/t/link").symlink_to("folder")
    Path("/srv/t/link2").symlink_to("folder")
    os.mkfifo("/srv/t/pipe")
    Path("/srv/t/old").touch()
    os.utime("/srv/t/old", ns=(-1_500_000_000, -1_500_000_000))
    announce(
        *make_files(2),
        "usershift: 1 2",
        "run: 5",
        "other \\ \" \t \x7f",
        b"other \xff",
        b"/srv/t/./\xc3\x28 \xed\xa0\x80",
        *[f"/srv/t/./{name}" for name in ("folder", "link", "link2/x", "pipe", "old", "gone", "ä\x01")],
        "/elsewhere",
    )
    relay.wait_for_last(15)
    lines = relay.command("records", *sum((["--kind", kind] for kind in ("file", "usershift", "run", "other")), []))
    records = [json.loads(line) for line in lines.stdout.splitlines()]
    assert len(records) == 15
    for record in records:
        jsonschema.validate(record, schema)
        unknown = set(record) - set(schema["properties"])
        assert not unknown, unknown
    assert [record["mtime"] for record in records if record.get("path") == "/srv/t/./old"] == ["-2.500000000"]


def test_the_manual_has_every_command_and_option() -> None:
    text = manual("skarn-relay.8")
    for words in (
        ["run"], ["status"], ["records"], ["dead-letters"], ["check"],
        ["run", "end"], ["runs"], ["wait"], ["manifest"],
        ["subscribers", "add"], ["subscribers", "reset"], ["subscribers", "remove"],
    ):
        assert re.search(rf"^\.(It )?Cm {' '.join(words)}\b", text, re.MULTILINE), words
        told = Relay().command(*words, "--help").stdout
        for option in re.findall(r"--([a-z][a-z-]*)", told):
            assert f"Fl -{option}" in text, option


def test_the_manual_has_every_figure() -> None:
    relay = Relay()
    relay.start()
    relay.client.subscribe("me")
    done = subprocess.run(
        ["curl", "-sS", "--unix-socket", "/run/skarn-relay/socket", "http://relay/metrics"],
        capture_output=True, text=True, check=True,
    )
    names = set(re.findall(r"^skarn_relay_(\w+)", done.stdout, re.MULTILINE))
    assert len(names) == 20
    assert not names - set(re.findall(r"\w+", manual("skarn-relay.8")))
    alerts = (PROJECT / "packaging/prometheus/skarn-alerts.yml").read_text(encoding="utf-8")
    used = set(re.findall(r"skarn_relay_(\w+)", alerts))
    assert len(used) == 4 and used <= names
    board = (PROJECT / "packaging/grafana/skarn-dashboard.json").read_text(encoding="utf-8")
    shown = set(re.findall(r"skarn_relay_(\w+)", board))
    assert len(shown) == 10 and shown <= names, shown - names
    promtool = subprocess.run(
        ["promtool", "check", "metrics"], input=done.stdout, capture_output=True, text=True, check=False
    )
    assert promtool.returncode == 0, promtool.stdout + promtool.stderr


def test_the_manual_has_every_key() -> None:
    source = (PROJECT / "relay/settings.cpp").read_text(encoding="utf-8")
    keys = set(re.findall(r'\{"(\w+)",\s+\w+\(', source))
    assert len(keys) > 25, keys
    assert not keys - set(re.findall(r"\w+", manual("skarn-relay.toml.5")))


def test_the_example_is_right_with_and_without_its_comments() -> None:
    example = (PROJECT / "packaging/example/relay.toml").read_text(encoding="utf-8")
    assert tomllib.loads(example) == {}
    text = re.sub(r"^#(?! )", "", example, flags=re.MULTILINE)
    for name, there in (("beamline", "daemon"), ("vantrel\"\n\n", "nobody\"\n\n"), ('user = "archive"', 'user = "nobody"')):
        text = text.replace(name, there)
    CONFIGURATION.write_text(text, encoding="utf-8")
    done = Relay().command("check", str(CONFIGURATION))
    assert (done.returncode, done.stdout) == (0, "no mistakes; 5 subscribers\n"), done.stderr


def test_the_page_s_way_with_curl_works() -> None:
    page = (DOCS / "relay.md").read_text(encoding="utf-8")
    commands = page.partition("```sh\nrelay() {")[2].partition("```")[0]
    write_configuration(None, [Detector("1", target="/srv/t")])
    relay = Relay()
    relay.start()
    announce(*make_files(20))
    relay.wait_for_last(20)
    script = "set -e\nrelay() {" + commands.replace("start=now", "start=oldest")
    done = subprocess.run(["bash", "-c", script], capture_output=True, text=True, check=True)
    assert done.stdout.splitlines()[-1] == '{"acknowledged":17}'
    assert len(done.stdout.splitlines()) == 22
