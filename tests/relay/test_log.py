"""The log on disk: what becomes of it when the disk is full, read-only, or has damaged it."""

from __future__ import annotations

import fcntl
import os
import sqlite3
import subprocess
import threading
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

from support.relay_process import LOG, Relay, announce, make_files
from support.waiting import wait_until

DATABASE = LOG / "relay.db"


@pytest.fixture
def small_disk() -> Iterator[None]:
    """The log's folder on a file system of its own, of a few megabytes."""
    LOG.mkdir(parents=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m,mode=0700", "tmpfs", LOG], check=True)
    yield
    subprocess.run(["umount", "--lazy", LOG], check=True)


def test_the_lock_of_one_that_was_just_killed_is_waited_for() -> None:
    """A child between its fork and its program holds it an instant longer."""
    LOG.mkdir(parents=True)
    lock = (LOG / "lock").open("w", encoding="ascii")
    fcntl.flock(lock, fcntl.LOCK_EX)
    timer = threading.Timer(0.3, lock.close)
    timer.start()
    Relay().start()
    timer.join()


def test_a_full_disk_stalls_it_and_it_goes_on_by_itself(small_disk: None) -> None:
    relay = Relay()
    relay.start()
    paths = make_files(2000)
    announce(paths[0])
    relay.wait_for_last(1)
    full = LOG / "full"
    subprocess.run(["dd", "if=/dev/zero", f"of={full}"], stderr=subprocess.DEVNULL, check=False)
    announce(*paths[1:])
    wait_until(lambda: relay.status()["stalls"] == 1, "it to stall")
    status = relay.status()
    assert "full" in status["problem"] and status["bytes_waiting"] > 0
    assert "nothing is taken out of the pipe, and copying will wait: " in relay.messages()
    assert relay.command("status").stdout.startswith("STALLED for ")
    full.unlink()
    relay.wait_for_last(2000)
    assert relay.paths() == paths
    wait_until(lambda: relay.status()["problem"] == "", "no problem")
    assert "records are taken out of the pipe again" in relay.messages()


def test_killed_while_the_disk_is_full_nothing_is_lost(small_disk: None) -> None:
    relay = Relay()
    relay.start()
    paths = make_files(1000)
    announce(*paths[:500])
    relay.wait_for_last(500)
    full = LOG / "full"
    subprocess.run(["dd", "if=/dev/zero", f"of={full}"], stderr=subprocess.DEVNULL, check=False)
    announce(*paths[500:])
    wait_until(lambda: relay.status()["stalls"] > 0, "it to stall")
    relay.kill()
    full.unlink()
    relay.start()
    relay.wait_for_last(1000)
    assert relay.paths() == paths


def test_a_read_only_file_system_stalls_it(small_disk: None) -> None:
    relay = Relay()
    relay.start()
    paths = make_files(3)
    announce(paths[0])
    relay.wait_for_last(1)
    relay.kill()  # what it has open for writing would keep the file system as it is
    relay.start()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", "/mnt"], check=True)
    subprocess.run(["umount", "/mnt"], check=True)
    done = subprocess.run(["mount", "-o", "remount,ro", LOG], check=False, capture_output=True)
    if done.returncode != 0:
        relay.stop()
        subprocess.run(["mount", "-o", "remount,ro", LOG], check=True)
        relay.start(wait=False)
        assert relay.process is not None and relay.process.wait(30) == 1
        assert "cannot open" in relay.messages()
        subprocess.run(["mount", "-o", "remount,rw", LOG], check=True)
        relay.start()
    announce(*paths[1:])
    subprocess.run(["mount", "-o", "remount,rw", LOG], check=True)
    relay.wait_for_last(3)
    assert relay.paths() == paths


def damaged() -> list[Path]:
    return sorted(LOG.glob("damaged-*.db"))


@pytest.mark.parametrize("where", ["header", "middle", "everywhere"])
def test_a_damaged_database_is_set_aside_and_named(where: str) -> None:
    relay = Relay()
    relay.start()
    subscription = relay.client.subscribe("me")
    paths = make_files(20000, "/srv/t/" + "d" * 100)
    announce(*paths)
    relay.wait_for_last(20000)
    subscription.acknowledge(100)
    last = relay.status()["last"]
    relay.stop()
    size = DATABASE.stat().st_size
    with DATABASE.open("r+b") as file:
        if where == "middle":
            file.seek(size // 2)
            file.write(os.urandom(size // 20))
        else:
            file.write(os.urandom(100 if where == "header" else size))
    relay.start()
    announce("/srv/t/./new")
    wait_until(lambda: "/srv/t/./new" in relay.paths(), "the new record")
    (aside,) = damaged()
    assert aside.stat().st_size == size
    assert f"is set aside as {aside}" in relay.messages()
    assert "records of the damaged database were carried over" in relay.messages()
    found = relay.records()
    assert found[-1].path == "/srv/t/./new" and found[-1].seq > last
    assert len({record.seq for record in found}) == len(found)
    if where == "middle":
        assert len(found) > 15000, "what can be read is carried over"
        assert [each["acknowledged"] for each in relay.status()["subscribers"]] == [100]


def test_a_database_that_has_forgotten_its_last_records_is_set_aside() -> None:
    """SQLite takes a damaged write-ahead log for the end of it, and says nothing."""
    relay = Relay()
    relay.start()
    paths = make_files(50)
    announce(*paths[:-1])
    relay.wait_for_last(49)
    numbers = [record.seq for record in relay.records()]
    relay.kill()
    with DATABASE.with_name("relay.db-wal").open("r+b") as file:
        file.write(b"damaged")
    relay.start()
    assert "lacks what was written into it last" in relay.messages()
    assert len(damaged()) == 1
    announce(paths[-1])
    wait_until(lambda: paths[-1] in relay.paths(), "the new record")
    assert relay.records()[-1].seq > numbers[-1], "a number was given twice"
    relay.kill()
    relay.start()
    assert len(damaged()) == 1, "set aside again"


def test_a_database_damaged_while_it_runs() -> None:
    relay = Relay()
    relay.start()
    paths = make_files(5000)
    announce(*paths)
    relay.wait_for_last(5000)
    relay.stop()
    relay.start()
    with DATABASE.open("r+b") as file:
        file.write(os.urandom(DATABASE.stat().st_size))
    announce("/srv/t/./new")
    wait_until(lambda: "/srv/t/./new" in relay.paths(), "the new record")
    assert len(damaged()) == 1
    assert relay.answers()


def test_a_database_of_a_newer_version_is_not_touched() -> None:
    relay = Relay()
    relay.start()
    relay.stop()
    with sqlite3.connect(DATABASE) as database:
        database.execute("PRAGMA user_version = 99")
    relay.start(wait=False)
    assert relay.process is not None and relay.process.wait(30) == 1
    assert "was written by a newer version of skarn-relay (schema 99" in relay.messages()
    assert not damaged()


def test_old_records_go_when_all_have_them_and_not_before() -> None:
    relay = Relay('[log]\nkeep = "1s"\n')
    relay.start()
    slow, quick = relay.client.subscribe("slow"), relay.client.subscribe("quick")
    paths = make_files(100)
    announce(*paths)
    relay.wait_for_last(100)
    quick.acknowledge(100)
    slow.acknowledge(40)
    wait_until(lambda: relay.status()["first"] == 41, "what all have to go")
    time.sleep(11)
    assert relay.status()["first"] == 41
    assert [record.seq for record in slow.fetch()] == list(range(41, 101))
    slow.acknowledge(100)
    wait_until(lambda: relay.status()["first"] == 0, "the rest to go")
    relay.stop()
    relay.start()
    announce(make_files(1, prefix="later")[0])
    relay.wait_for_last(101)
    assert [record.seq for record in relay.records()] == [101], "no number is given twice"


def test_a_subscriber_s_own_bound_is_said_when_it_bites() -> None:
    relay = Relay('[log]\nkeep = "1s"\n')
    relay.start()
    lagging = relay.client.subscribe("lagging", max_backlog=30)
    announce(*make_files(100))
    relay.wait_for_last(100)
    wait_until(lambda: relay.status()["first"] == 71, "all but thirty to go")
    assert [record.seq for record in lagging.fetch()] == list(range(71, 101))
    wait_until(lambda: relay.status()["subscribers"][0]["dropped"] == 70, "the count")
    assert "subscriber lagging lags by more than its max_backlog: 70 records" in relay.messages()


def test_the_schema_is_the_documented_one() -> None:
    relay = Relay()
    relay.start()
    relay.stop()
    with sqlite3.connect(DATABASE) as database:
        tables = {
            name: [row[1] for row in database.execute(f"PRAGMA table_info({name})")]
            for (name,) in database.execute("SELECT name FROM sqlite_master WHERE type = 'table'")
        }
        assert database.execute("PRAGMA user_version").fetchone() == (2,)
        assert database.execute("PRAGMA journal_mode").fetchone() == ("wal",)
    documented = Path(os.environ["SKARN_DOCS"], "relay.md").read_text(encoding="utf-8")
    for table, columns in tables.items():
        assert f"| `{table}` | " + ", ".join(f"`{column}`" for column in columns) in documented
