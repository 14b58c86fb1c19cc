"""The bed's own judgement: each way to break the promise has to be noticed."""

from __future__ import annotations

import os
import re
from pathlib import Path
from random import Random

import pytest

from faults.bed import Bed, Outcome
from faults.consumer import CheckingConsumer
from faults.fault import Fault, load
from faults.ledger import Ledger
from faults.workload import Workload
from support.waiting import wait_until

SHARE, TARGET = Path("/srv/shares/1"), Path("/srv/images/1")


def produce(name: str = "a.raw", content: bytes = b"whole") -> tuple[Ledger, Path, Path]:
    """A ledger with one file, that file, and its place at the target."""
    TARGET.mkdir(parents=True)
    ledger = Ledger(SHARE, TARGET)
    Workload(SHARE, "any", ledger).write(name, content)
    return ledger, SHARE / name, TARGET / name


def test_a_file_that_moved_and_was_announced_is_right() -> None:
    ledger, source, target = produce()
    assert ledger.look() == 1
    target.write_bytes(b"whole")
    source.unlink()
    assert ledger.look() == 0 and ledger.unannounced() == ["a.raw"]
    ledger.announced("a.raw")
    assert ledger.broken == [] and ledger.unannounced() == []


def test_a_file_that_left_before_it_was_whole_is_noticed() -> None:
    ledger, source, target = produce()
    target.write_bytes(b"who")
    source.unlink()
    ledger.look()
    target.write_bytes(b"whole")
    assert ledger.broken == ["a.raw left the source and is not whole at the target"]


def test_a_record_that_comes_before_the_file_is_whole_is_noticed() -> None:
    ledger, _, target = produce()
    ledger.announced("a.raw")
    target.write_bytes(b"WHOLE")
    ledger.announced("a.raw")
    assert ledger.broken == ["a.raw was announced and is not whole at the target"] * 2


def test_a_record_of_what_was_never_produced_is_noticed() -> None:
    ledger, _, _ = produce()
    ledger.announced("b.raw")
    assert ledger.broken == ["'b.raw' was announced and never produced"]


def test_the_detector_may_delete_and_change_its_files() -> None:
    ledger, source, target = produce()
    ledger.will_withdraw("a.raw")
    source.unlink()
    ledger.look()
    assert ledger.broken == [] and ledger.unannounced() == []
    Workload(SHARE, "any", ledger).write("grows", b"1")
    ledger.will_change("grows", ledger.entries()[0].final)
    (TARGET / "grows").write_bytes(b"whole")
    (SHARE / "grows").unlink()
    ledger.look()
    entry = ledger.entries()[1]
    assert ledger.broken == [] and ledger.is_whole(entry, final=True)
    (TARGET / "grows").write_bytes(b"1")
    assert ledger.is_whole(entry) and not ledger.is_whole(entry, final=True)


def test_what_a_fault_moved_the_target_to_counts_as_the_target() -> None:
    ledger, source, target = produce()
    target.write_bytes(b"whole")
    source.unlink()
    TARGET.rename("/srv/moved")
    ledger.places.append(Path("/srv/moved"))
    ledger.look()
    assert ledger.broken == [] and ledger.unannounced() == ["a.raw"]
    # After a death nobody can announce what is no longer at the target.
    ledger.something_died = True
    assert ledger.unannounced() == [] and ledger.entries()[0].excused


def test_what_was_moved_away_before_the_look_has_to_be_told_as_lost() -> None:
    ledger, source, target = produce()
    ledger.places.append(Path("/srv/moved"))
    target.write_bytes(b"whole")
    source.unlink()
    ledger.look()
    # At its target it has to be announced, whatever the log says.
    ledger.told_lost = {"a.raw"}
    assert ledger.unannounced() == ["a.raw"]
    TARGET.rename("/srv/moved")
    ledger.told_lost = {"other.raw"}
    assert ledger.unannounced() == ["a.raw"]
    ledger.told_lost = {"a.raw"}
    assert ledger.unannounced() == [] and ledger.entries()[0].excused


def test_the_consumer_passes_records_on_and_notices_strange_ones() -> None:
    ledger, _, target = produce()
    target.write_bytes(b"whole")
    consumer = CheckingConsumer({f"{TARGET}/.": ledger})
    consumer.come()
    with open(consumer.path, "wb", buffering=0) as pipe:
        pipe.write(b"usershift: 1 2\n")
        pipe.write(f"{TARGET}/./a.raw\n".encode())
        pipe.write(b"/elsewhere/a.raw\n")
        consumer.leave()
        pipe_is_kept_by = consumer.is_there
        consumer.come()
        pipe.write(f"{TARGET}/./a.raw\n".encode())
        wait_until(lambda: consumer.records == 3, "the record that came while it was away")
    consumer.leave()
    assert not pipe_is_kept_by
    assert len(ledger.entries()[0].records) == 2
    assert ledger.broken == ["a record names no file of any target: '/elsewhere/a.raw'"]


def test_the_workload_follows_from_the_seed() -> None:
    contents: list[list[tuple[str, str]]] = []
    for seed in ("7", "7", "8"):
        ledger = Ledger(SHARE / seed, TARGET)
        workload = Workload(Path("/srv") / f"share{len(contents)}", seed, ledger)
        workload.write_some(50)
        contents.append([(entry.name, entry.final) for entry in ledger.entries()])
    assert contents[0] == contents[1] != contents[2]


class Unlucky(Random):
    """Deletes as many files at once as a seed may want."""

    def randint(self, a: int, b: int) -> int:
        return b


def test_vanishing_files_are_none_that_have_to_stay(monkeypatch: pytest.MonkeyPatch) -> None:
    bed = Bed("any")
    monkeypatch.setattr(bed, "wait_copying", lambda timeout: [])
    workload, ledger = bed.stations[0].workload, bed.stations[0].ledger
    names_with_blanks = load()["names-with-blanks"]()
    assert names_with_blanks.inject(bed, Random(1)) == 4
    workload.write("a.raw", b"leaves")
    assert load()["files-vanish"]().inject(bed, Unlucky(1)) == 1
    assert not (SHARE / "a.raw").exists()
    names_with_blanks.heal(bed)
    assert ledger.broken == []


def test_lists_of_a_dead_daemon_with_the_same_number_keep_nobody_busy() -> None:
    for number in range(os.getpid(), os.getpid() + 2000):
        Path(f"/tmp/file_list_{number}_1_0").touch()
    bed = Bed("any")
    bed.install()
    with bed:
        bed.start_daemon()
        mine = Path(f"/tmp/file_list_{bed.daemon.pid}_1_0")
        assert mine.exists() and not bed.is_busy()
        mine.unlink()
        mine.touch()
        assert bed.is_busy()
        bed.daemon.end()


def judged(bed: Bed, outcome: Outcome) -> list[str]:
    """What the bed says of the state that it finds."""
    bed.judge([Fault()], outcome)
    return list(outcome.broken)


def test_every_difference_at_the_end_is_noticed() -> None:
    bed = Bed("any")
    station = bed.stations[0]
    TARGET.mkdir(parents=True)
    for name in ("stays.raw", "lost.raw", "silent.raw", "twice.raw", "right.raw"):
        station.workload.write(name, b"whole")
        if name != "stays.raw":
            (SHARE / name).unlink()
        if name not in ("stays.raw", "lost.raw"):
            (TARGET / name).write_bytes(b"whole")
    (TARGET / "extra.raw").touch()
    (TARGET / ".right.raw.AbC123").touch()
    Path("/tmp/file_list_1_2_0").touch()
    for name in ("twice.raw", "twice.raw", "right.raw"):
        station.ledger.announced(name)
    outcome = Outcome()
    found = [re.sub(r": .* s after it was written$", "", line) for line in judged(bed, outcome)]
    assert found == [
        "stays.raw is still at the source",
        "lost.raw is lost: neither at the source nor whole here",
        "lost.raw was never announced",
        "silent.raw was never announced",
        "twice.raw was announced twice though nothing died",
        "/srv/images/1/.right.raw.AbC123 is at the target and was never produced",
        "/srv/images/1/extra.raw is at the target and was never produced",
        "/tmp/file_list_1_2_0 is left",
    ]
    assert (outcome.lost, outcome.never_announced, outcome.announced_twice) == (1, 2, 1)


def test_every_fault_has_a_name_and_a_title_of_its_own() -> None:
    kinds = load()
    assert len(kinds) > 20
    assert len({kind.title for kind in kinds.values()}) == len(kinds)
