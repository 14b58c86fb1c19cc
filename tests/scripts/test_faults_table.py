"""The table of fault runs: it says what the results say, and the document holds it."""

from __future__ import annotations

import json
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "scripts/faults_table.py"
BEGIN = "<!-- table of scripts/faults_table.py: begin -->"
END = "<!-- table of scripts/faults_table.py: end -->"


def result(name: str, **changed: object) -> str:
    """One line of results."""
    row: dict[str, object] = {
        "fault": name, "title": f"{name} happens", "seed": 1, "injected": 10, "daemon_kills": 2,
        "copy_kills": 3, "files": 1000, "bytes": 1, "lost": 0, "never_announced": 0,
        "announced_twice": 0, "excused": 0, "withdrawn": 0, "cut": 0, "recovered_in": 1.0,
        "broken": [], "command": "any", **changed,
    }  # fmt: skip
    return json.dumps(row) + "\n"


def run(*arguments: str | Path) -> int:
    """The script's status."""
    return subprocess.run([SCRIPT, *arguments], timeout=60, check=False).returncode


def test_runs_of_one_fault_are_added_up_between_the_marker_lines() -> None:
    results, document = Path("/srv/results.jsonl"), Path("/srv/doc.md")
    results.write_text(
        result("one", recovered_in=2.5, announced_twice=4)
        + result("two", lost=1, never_announced=2)
        + result("one", injected=990, files=234)
    )
    document.write_text(f"before\n{BEGIN}\nold\n{END}\nafter\n")
    assert run("--check", results, document) == 1
    assert run(results, document) == 0
    assert run("--check", results, document) == 0
    text = document.read_text()
    assert text.startswith(f"before\n{BEGIN}\n") and text.endswith(f"{END}\nafter\n")
    assert "old" not in text
    assert "| one happens | `one` | 2 | 1,000 | 1,234 | 0 | 0 | 4 | 2.5 s |" in text
    assert "| two happens | `two` | 1 | 10 | 1,000 | 1 | 2 | 0 | 1.0 s |" in text
    assert "| **all** |  | 3 | 1,010 | 2,234 | 1 | 2 | 4 | 2.5 s |" in text
    assert "6 deaths of the daemon and 9 of copy processes" in text


def test_lives_of_one_kind_are_added_up_in_the_table_of_cuts() -> None:
    results, document = Path("/srv/power.jsonl"), Path("/srv/doc.md")
    row: dict[str, object] = {
        "disk": "ext4", "life": "drain", "parts": 2, "seed": 1, "cuts": 12, "files": 3000,
        "lost": 0, "never_announced": 0, "again": 5, "went_on": 7, "stayed": 0,
        "recovered_in": 1.5, "broken": [], "command": "any",
    }  # fmt: skip
    worse: dict[str, object] = {**row, "lost": 1, "never_announced": 2}
    elsewhere: dict[str, object] = {**row, "disk": "xfs", "parts": 1}
    rows = [row, worse, elsewhere]
    results.write_text("".join(json.dumps(each) + "\n" for each in rows))
    begin, end = (line.replace(".py:", ".py --power:") for line in (BEGIN, END))
    document.write_text(f"{BEGIN}\nother\n{END}\n{begin}\nold\n{end}\nafter\n")
    assert run("--power", "--check", results, document) == 1
    assert run("--power", results, document) == 0
    assert run("--power", "--check", results, document) == 0
    text = document.read_text()
    assert text.startswith(f"{BEGIN}\nother\n{END}\n{begin}\n") and "old" not in text
    assert "| ext4 | a share full of files | two | 24 | 6,000 | 1 | 2 | 14 | 1.5 s |" in text
    assert "| xfs | a share full of files | one file system | 12 | 3,000 | 0 | 0 | 7 |" in text
    assert "| **all** | | | 36 | 9,000 | 1 | 2 | 21 | 1.5 s |" in text


def test_a_document_without_the_marker_lines_is_left_alone() -> None:
    results, document = Path("/srv/results.jsonl"), Path("/srv/doc.md")
    results.write_text(result("one"))
    document.write_text("nothing\n")
    assert run(results, document) == 1
    assert document.read_text() == "nothing\n"


def test_the_committed_document_holds_the_table_of_the_committed_results() -> None:
    assert run("--check") == 0
    assert run("--power", "--check") == 0


def test_the_committed_results_are_enough_and_good() -> None:
    text = (ROOT / "docs/reliability/results.jsonl").read_text(encoding="utf-8")
    rows = [json.loads(line) for line in text.splitlines()]
    assert sum(row["injected"] for row in rows) >= 1000
    assert sum(row["daemon_kills"] for row in rows) >= 200
    assert sum(row["copy_kills"] for row in rows) >= 200
    for row in rows:
        assert (row["lost"], row["never_announced"], row["broken"]) == (0, 0, []), row


def test_the_committed_cuts_are_enough_and_good() -> None:
    text = (ROOT / "docs/reliability/power.jsonl").read_text(encoding="utf-8")
    rows = [json.loads(line) for line in text.splitlines()]
    assert sum(row["cuts"] for row in rows) >= 500
    assert {row["disk"] for row in rows} == {"ext4", "xfs", "btrfs"}
    for row in rows:
        assert (row["lost"], row["never_announced"], row["broken"]) == (0, 0, []), row
