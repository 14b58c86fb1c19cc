"""The account of the relay notices what differs from its promise."""

from __future__ import annotations

import pytest

from faults.behind_relay import differences
from support.relay_process import skarn_relay


def record(seq: int, path: str, kind: str = "file") -> skarn_relay.Record:
    """A record of the log."""
    key = "path" if kind == "file" else "line"
    return skarn_relay.Record({"seq": seq, "kind": kind, key: path})


LOG = [record(1, "usershift: ", "usershift"), record(2, "a"), record(3, "b"), record(4, "c")]
ALL = {"a", "b", "c"}


def account(
    logged: list[skarn_relay.Record] | None = None,
    wanted: set[str] | None = None,
    got: list[str] | None = None,
    unordered: bool = False,
) -> list[str]:
    """What is found to differ, in a log that is right but for what is given."""
    return list(
        differences(
            LOG if logged is None else logged,
            ALL if wanted is None else wanted,
            {"x"},
            {"pipe": ["a", "b", "c"] if got is None else got},
            {"pipe"} if unordered else set(),
        )
    )


def test_what_is_right_is_right() -> None:
    assert account() == []
    assert account(got=["a", "b", "a", "b", "c", "c"]) == [], "what came again does not count"
    assert account(got=["b", "a", "c"], unordered=True) == []
    assert account([*LOG, record(5, "x")], got=["a", "b", "c", "x"]) == [], "x may be announced"


@pytest.mark.parametrize(
    ("logged", "wanted", "got", "sentence"),
    [
        (LOG, {*ALL, "d"}, None, "1 files are missing in the log, among them d"),
        (LOG, {"a", "b"}, None, "1 too many are in the log, among them 'c'"),
        ([*LOG, record(5, "a")], ALL, None, "1 files are in the log twice, among them a"),
        ([*LOG, record(5, "a/./b", "other")], ALL, None, "a line that is no record: 'a/./b'"),
        ([*LOG[:3], record(3, "c")], ALL, None, "a number of the log was given twice"),
        (LOG, ALL, ["a", "c"], "1 files are missing in what subscriber pipe got, among them b"),
        (LOG, ALL, ["a", "b", "c", "d"], "1 too many are in what subscriber pipe got"),
        (LOG, ALL, ["a", "c", "b"], "subscriber pipe got its files in another order"),
    ],
)
def test_each_difference_is_noticed(
    logged: list[skarn_relay.Record], wanted: set[str], got: list[str] | None, sentence: str
) -> None:
    assert any(sentence in found for found in account(logged, wanted, got))
