"""How scripts/count_tests.py reads what ctest, pytest and GoogleTest left."""

from __future__ import annotations

import subprocess
from dataclasses import dataclass
from pathlib import Path

import pytest

SCRIPT = Path(__file__).parents[2] / "scripts" / "count_tests.py"

PASSED = '<testcase name="passes" status="run"/>'
FAILED = '<testcase name="fails" status="fail"><failure message=""/></testcase>'
SKIPPED = (
    '<testcase name="skips" status="notrun"><skipped message="SKIP_RETURN_CODE=77"/></testcase>'
)
DISABLED = '<testcase name="rests" status="disabled"/>'
MISSING = (
    '<testcase name="misses" status="notrun">'
    '<skipped message="Unable to find executable"/></testcase>'
)


@dataclass
class Answer:
    """What the script said: its status and its lines."""

    status: int
    lines: list[str]


@pytest.fixture
def results() -> Path:
    """An empty directory for the results."""
    folder = Path("/srv/results")
    folder.mkdir()
    return folder


def count(results: Path, *cases: str, **own_files: str) -> Answer:
    """Runs the script on a ctest.xml with these cases and on the tests' own files."""
    (results / "ctest.xml").write_text(f"<testsuite>{''.join(cases)}</testsuite>")
    for name, text in own_files.items():
        (results / f"{name}.xml").write_text(text)
    run = subprocess.run(
        ["/usr/bin/python3", str(SCRIPT), str(results)], capture_output=True, text=True, timeout=60
    )
    assert not run.stderr
    return Answer(run.returncode, run.stdout.splitlines())


def test_each_outcome_is_counted(results: Path) -> None:
    answer = count(results, PASSED, FAILED, SKIPPED, DISABLED, MISSING)
    assert answer == Answer(
        1,
        [
            "Failed: fails",
            "Failed: misses",
            "Skipped: skips",
            "Skipped: rests",
            "1 passed, 2 failed, 2 skipped",
        ],
    )


def test_a_skip_alone_is_no_failure_but_is_said(results: Path) -> None:
    answer = count(results, PASSED, SKIPPED)
    assert answer == Answer(0, ["Skipped: skips", "1 passed, 0 failed, 1 skipped"])


def test_nothing_that_passed_is_a_failure(results: Path) -> None:
    assert count(results, SKIPPED).status == 1
    assert count(results) == Answer(1, ["0 passed, 0 failed, 0 skipped"])


def test_a_file_of_its_own_is_counted_case_by_case(results: Path) -> None:
    pytest_file = (
        '<testsuites><testsuite><testcase name="one"/><testcase name="two"><skipped/></testcase>'
        '<testcase name="three"><error/></testcase></testsuite></testsuites>'
    )
    google_file = (
        '<testsuites><testsuite><testcase name="four" status="run" result="completed"/>'
        '<testcase name="five" status="notrun" result="suppressed"/></testsuite></testsuites>'
    )
    answer = count(results, FAILED, PASSED, fails=pytest_file, passes=google_file)
    assert answer == Answer(
        1,
        [
            "Failed: fails: three",
            "Skipped: fails: two",
            "Skipped: passes: five",
            "2 passed, 1 failed, 2 skipped",
        ],
    )


def test_a_program_that_fails_after_its_cases_counts_as_failed(results: Path) -> None:
    own_file = '<testsuites><testsuite><testcase name="one"/></testsuite></testsuites>'
    answer = count(results, FAILED, fails=own_file)
    assert answer == Answer(1, ["Failed: fails", "1 passed, 1 failed, 0 skipped"])


def test_one_that_is_given_up_after_its_first_cases_counts_as_skipped(results: Path) -> None:
    own_file = '<testsuites><testsuite><testcase name="one"/></testsuite></testsuites>'
    answer = count(results, SKIPPED, skips=own_file)
    assert answer == Answer(0, ["Skipped: skips", "1 passed, 0 failed, 1 skipped"])


@pytest.mark.parametrize("text", ["", "<testsuites><testcase name='on", "<testsuites/>"])
def test_a_file_that_breaks_off_does_not_hide_the_test(results: Path, text: str) -> None:
    answer = count(results, FAILED, fails=text)
    assert answer == Answer(1, ["Failed: fails", "0 passed, 1 failed, 0 skipped"])
