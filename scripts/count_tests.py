#!/usr/bin/python3
"""Counts the tests of one run: prints what failed or was skipped, then one line with the numbers.

    count_tests.py RESULTS_DIRECTORY

The directory holds ctest.xml, in which every registered test stands, and for each test that
counts its cases itself a JUnit file NAME.xml. A test without such a file counts as one. The
status is 0 only if tests ran and none failed.
"""

from __future__ import annotations

import sys
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field
from pathlib import Path


@dataclass
class Count:
    """How the tests ended: the number that passed, the names of the others."""

    passed: int = 0
    failed: list[str] = field(default_factory=list)
    skipped: list[str] = field(default_factory=list)

    def add(self, name: str, outcome: str) -> None:
        """Counts one test whose outcome is "passed", "failed" or "skipped"."""
        if outcome == "passed":
            self.passed += 1
        elif outcome == "failed":
            self.failed.append(name)
        else:
            self.skipped.append(name)

    def __str__(self) -> str:
        return f"{self.passed} passed, {len(self.failed)} failed, {len(self.skipped)} skipped"


def outcome_of(case: ElementTree.Element) -> str:
    """How one <testcase> ended, as ctest, pytest and GoogleTest write it."""
    if case.find("failure") is not None or case.find("error") is not None:
        return "failed"
    skipped = case.find("skipped")
    if skipped is not None and case.get("status") == "notrun":
        # ctest's own words: a program that is missing is "not run" too, but nobody skipped it.
        return "skipped" if skipped.get("message", "").startswith("SKIP_") else "failed"
    if skipped is not None or case.get("status") in ("notrun", "disabled"):
        return "skipped"
    if case.get("status") in ("fail", "failed"):
        return "failed"
    return "passed"


def count_run(results: Path) -> Count:
    """Counts every test that ctest.xml in `results` names, each by its own file if it has one."""
    count = Count()
    for test in ElementTree.parse(results / "ctest.xml").iter("testcase"):
        name = test.get("name", "?")
        outcome = outcome_of(test)
        inner = Count()
        own_file = results / f"{name}.xml"
        if own_file.exists():
            try:
                for case in ElementTree.parse(own_file).iter("testcase"):
                    inner.add(f"{name}: {case.get('name', '?')}", outcome_of(case))
            except ElementTree.ParseError:
                inner = Count()  # broken off in the middle; what ctest saw counts
        if not inner.passed and not inner.failed and not inner.skipped:
            count.add(name, outcome)
            continue
        count.passed += inner.passed
        count.failed += inner.failed
        count.skipped += inner.skipped
        if outcome == "failed" and not inner.failed:
            # All cases passed and the program failed all the same, as with a leak found at exit.
            count.failed.append(name)
        if outcome == "skipped" and not inner.skipped:
            # A case found that it can't run, and those behind it were not tried.
            count.skipped.append(name)
    return count


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    count = count_run(Path(sys.argv[1]))
    for label, names in (("Failed", count.failed), ("Skipped", count.skipped)):
        for name in names:
            print(f"{label}: {name}")
    print(count)
    return 1 if count.failed or not count.passed else 0


if __name__ == "__main__":
    sys.exit(main())
