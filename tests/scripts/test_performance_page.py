"""The page of the benchmarks: it holds what the committed numbers say, and says it rightly."""

from __future__ import annotations

import copy
import json
import re
import subprocess
import sys
from pathlib import Path

import pytest

import run
from durable import tell as durable
from growth import tell as growth
from idle import tell as idle
from results import Data, Plot, Target

DRAIN = {"size": 1000, "daemon": 0.01, "children": 0.2, "faults": 900, "memory": 3_000_000}
GROWTH: Data = {
    "size": 1000,
    "files": [
        {**DRAIN, "detectors": 1, "files": 1_000, "seconds": 0.2},
        {**DRAIN, "detectors": 1, "files": 10_000, "seconds": 1.0, "daemon": 0.03},
        {**DRAIN, "detectors": 1, "files": 10_000, "seconds": 1.2, "daemon": 0.03},
        {**DRAIN, "detectors": 1, "files": 10_000, "seconds": 9.0, "daemon": 0.03},
        {**DRAIN, "detectors": 1, "files": 101_000, "seconds": 18.18, "daemon": 0.303,
         "memory": 8_000_000},
    ],
    "detectors": [
        {**DRAIN, "detectors": 1, "files": 3_000, "seconds": 0.6},
        {**DRAIN, "detectors": 8, "files": 24_000, "seconds": 2.4, "daemon": 0.16},
    ],
}  # fmt: skip
IDLE: Data = {
    "minpause": 20,
    "cycles": 100,
    "traced": 2,
    "rounds": [
        {
            "daemon": {"cycles": 100, "own": 0.1, "children": ours},
            "floor": {"cycles": 100, "own": 0.0, "children": 0.5},
            "floor with a shell": {"cycles": 100, "own": 0.0, "children": 1.0},
        }
        for ours in (0.5, 0.4, 0.9)
    ],
    "calls": {
        "daemon": {"cycles": 2, "programs": {"skarn": {"read": 20}, "rsync": {"read": 40}}},
        "floor": {"cycles": 1, "programs": {"rsync": {"read": 20, "poll": 5}}},
        "floor with a shell": {"cycles": 1, "programs": {"rsync": {"read": 20}}},
    },
}
DURABLE: Data = {
    "drains": {
        "ext4 small": {
            "kind": "ext4",
            "files": 8_000,
            "size": 20_000,
            "rounds": [
                {
                    "skarn": {"wall": ours, "clients": 1.0, "server": 0.5},
                    "eight_at_once": {"wall": theirs, "clients": 2.0, "server": 0.5},
                }
                for ours, theirs in ((1.0, 2.0), (3.0, 2.5), (4.0, 4.0))
            ],
        }
    },
    "streams": {
        "ext4": {
            "pause": 0.1,
            "rate": 500.0,
            "files": 1_000,
            "cycles": 10,
            "seconds": 2.0,
            "delay_percentiles": [number / 100 for number in range(1, 100)],
            "longest_delay": 1.5,
            "clients": 0.2,
            "server": 0.1,
            "daemon": 0.01,
        }
    },
}
PAGE = "".join(
    f"{name}\n\n<!-- bench/run.py {name}: begin -->\nold\n<!-- bench/run.py {name}: end -->\n\n"
    for name in ("machine", "targets", "growth", "idle: cost of an empty cycle", "idle")
)


def run_of(date: str, **parts: Data) -> Data:
    """One line of the results."""
    return {
        "date": date,
        "machine": {"processor": "one", "cores": "2"},
        "versions": {"skarn": "abc", "rsync": "rsync version 3"},
        "seconds": 600,
        "parts": copy.deepcopy({"growth": GROWTH, "idle": IDLE, **parts}),
    }


def values(targets: list[Target]) -> list[float]:
    return [round(target.value, 6) for target in targets]


def test_growth_is_told_by_medians_a_file() -> None:
    # 0.18 ms a file against 0.12, 3 µs against 3, 5 MB for 100,000 more files; then 0.1 ms
    # against 0.2, and 6.67 µs against 3.33.
    assert values(growth.targets(GROWTH)) == [1.5, 1.0, 50.0, 0.5, 2.0]
    assert [target.is_met for target in growth.targets(GROWTH)] == [False, True, True, True, False]
    table = growth.tables(GROWTH)["more files"]
    assert "| 10,000 | 3 | 1.20 (1.00, 9.00) | 120 | 30.0 | 3.00 | 900 |" in table
    assert [plot.name for plot in growth.plots(GROWTH)] == ["growth-files", "growth-detectors"]


def test_an_empty_cycle_is_told_by_the_median_of_the_rounds_ratios() -> None:
    # (0.1 + 0.5) / 0.5 in the middle round; 30 calls against 25; then half of the floor, and 20.
    assert values(idle.targets(IDLE)) == [1.2, 1.2, 0.6, 1.5]
    tables = idle.tables(IDLE)
    costs = tables["cost of an empty cycle"]
    assert "| an empty cycle of the daemon | 6.00 (5.00, 10.00) |" in costs
    assert "| `skarn` | 10.0 | 0.0 | 0.0 |" in tables["system calls by program"]
    assert "| `read` | +10.0 |\n| `poll` | -5.0 |" in tables["system calls that differ"]


def test_drains_onto_a_disk_are_told_by_the_median_of_the_rounds_ratios() -> None:
    (target,) = durable.targets(DURABLE)
    assert (target.value, target.limit) == (1.0, 1.1)  # of 0.5, 1.2 and 1, not 3 / 2.5
    assert target.what.startswith("ext4, 8,000 × 20 kB: time of `skarn`")
    tables = durable.tables(DURABLE)
    start = "| ext4 | 8,000 × 20 kB | `skarn` | 3 | 3.000 | 1.000 to 4.000 | 1.00 | 1.00 | 0.50 |"
    assert start in tables["drains"]
    assert "| ext4 | 0.1 | 500 | 0.500 | 0.990 | 1.500 | 100 | 0.10 |" in tables["streams"]


def test_a_target_is_met_only_if_all_runs_meet_it() -> None:
    good = copy.deepcopy(GROWTH)
    good["files"][-1]["seconds"] = 10.1
    table = run.targets_table([run_of("first"), run_of("second", growth=good)])
    what = "growth | time a file, 101,000 files against 10,000"
    assert f"| {what} | 1.25 | 1.50 | 0.83 | **no** |" in table
    assert "| growth | daemon's peak memory, each further file up to 101,000 | 120 bytes " in table
    assert "4 of 9 targets are met in both runs." in table
    assert "5 of 9 targets are met in this run." in run.targets_table([run_of("x", growth=good)])
    # A target that the run before did not have is not met in both.
    before = copy.deepcopy(GROWTH)
    before["files"][-1]["files"] = 50_500
    assert f"| {what} | 1.25 |  | 0.83 | **no** |" in run.targets_table(
        [run_of("first", growth=before), run_of("second", growth=good)]
    )


def test_the_page_gets_each_table_where_it_has_a_place_for_it() -> None:
    text = run.page(PAGE, [run_of("a day"), run_of("the next day")])
    assert "old" not in text and run.page(text, [run_of("a day"), run_of("the next day")]) == text
    assert "| date | a day | the next day |" in text
    assert text.count("| an empty cycle of the daemon |") == 1
    assert text.index("| an empty cycle of the daemon |") < text.index("**system calls by")
    assert "**more files**" in text and "(performance/growth-files.svg)" in text


def test_a_table_without_a_place_and_a_place_without_a_table_are_mistakes() -> None:
    with pytest.raises(SystemExit, match="growth: more files"):
        run.page(PAGE.replace("run.py growth:", "run.py elsewhere:"), [run_of("a day")])
    extra = "<!-- bench/run.py idle: what: begin -->\n<!-- bench/run.py idle: what: end -->\n"
    with pytest.raises(SystemExit, match="idle: what"):
        run.page(PAGE + extra, [run_of("a day")])


def test_render_writes_the_page_and_says_whether_it_holds() -> None:
    docs = Path("/srv/docs")
    place = run.Place(docs)
    place.folder.mkdir(parents=True)
    place.page.write_text(PAGE)
    (place.folder / "of-old.svg").write_text("")
    place.results.write_text(json.dumps(run_of("a day")) + "\n")
    assert run.render(place, check=True) == 1
    assert run.render(place, check=False) == 0
    assert run.render(place, check=True) == 0
    assert sorted(path.stem for path in place.folder.glob("*.svg")) == [
        "growth-detectors",
        "growth-files",
    ]


def test_the_last_two_runs_are_kept() -> None:
    place, build = run.Place(Path("/srv/docs")), Path("/srv/build")
    build.mkdir()
    (build / "CMakeCache.txt").write_text(
        f"CMAKE_CXX_COMPILER:STRING={sys.executable}\nCMAKE_BUILD_TYPE:STRING=Release\n"
    )
    files = [Path("/srv", f"{part}.json") for part in run.PARTS]
    for number in range(3):
        for file in files:
            file.write_text(json.dumps({"number": number}))
        run.record(place, build, 0.0, files)
    kept = run.kept(place)
    assert [each["parts"]["idle"]["number"] for each in kept] == [1, 2]
    assert kept[0]["versions"]["build"] == "Release"
    assert kept[0]["versions"]["compiler"].startswith("Python 3")
    with pytest.raises(SystemExit, match="no full run without micro"):
        run.record(place, build, 0.0, files[1:])


def test_a_part_can_be_added_to_the_last_full_run(monkeypatch: pytest.MonkeyPatch) -> None:
    place, build, file = run.Place(Path("/srv/docs")), Path("/srv/build"), Path("/srv/durable.json")
    file.write_text(json.dumps(DURABLE))
    monkeypatch.setattr(run, "versions", lambda _: {"skarn": "new"})
    with pytest.raises(SystemExit, match="only be added to a full run"):
        run.add(place, build, [file])
    here = {"machine": run.machine()}
    run.keep(place, [run_of("first") | here, run_of("second") | here])
    page = PAGE + "<!-- bench/run.py durable: begin -->\n<!-- bench/run.py durable: end -->\n"
    assert "recorded yet" in run.page(page, run.kept(place))
    run.add(place, build, [file])
    first, second = run.kept(place)
    assert "durable" not in first["parts"] and second["parts"]["durable"] == DURABLE
    text = run.page(page, run.kept(place))
    assert "| ext4 | 8,000 × 20 kB | `skarn` | 3 |" in text and "recorded yet" not in text
    assert f"| `durable` apart from the rest |  | {second['added']['durable']} |" in text
    # The next time, both have it; a part of the full run goes to the run before just so.
    run.add(place, build, [file])
    assert all(each["parts"]["durable"] == DURABLE for each in run.kept(place))
    idle_file = Path("/srv/idle.json")
    idle_file.write_text(json.dumps({**IDLE, "minpause": 1}))
    run.add(place, build, [idle_file])
    first, second = run.kept(place)
    assert (first["parts"]["idle"]["minpause"], second["parts"]["idle"]["minpause"]) == (20, 1)
    assert first["added"]["idle"] == "second, skarn abc"
    here["machine"]["processor"] = "another"
    run.keep(place, [run_of("first") | here])
    with pytest.raises(SystemExit, match="on the same machine"):
        run.add(place, build, [file])


def test_a_plot_names_its_series_and_axes() -> None:
    plot = Plot("p", "it's a title", "files", "s", {"a": [(1, 2)], "none": []}, True, False)
    script = run.script(plot, Path("/srv/p.svg"))
    assert "set title 'it''s a title'" in script and "set xlabel 'files'" in script
    assert "title 'a'" in script and "none" not in script
    assert "set logscale x 10" in script and "set logscale y" not in script


def test_the_committed_page_holds_what_the_committed_numbers_say() -> None:
    script = run.ROOT / "bench/run.py"
    assert subprocess.run([script, "render", "--check"], timeout=60, check=False).returncode == 0


def test_every_picture_of_the_committed_page_is_there_and_no_other() -> None:
    place = run.Place()
    named = set(re.findall(r"\(performance/(\S+\.svg)\)", place.page.read_text(encoding="utf-8")))
    assert named == {path.name for path in place.folder.glob("*.svg")}
