#!/usr/bin/python3
"""The benchmarks' command line: takes the numbers of a part, keeps them, and tells them as a page.

    run.py measure PART --output FILE [--quick]      in the sandbox; prints the part's tables
    run.py record --build FOLDER --began SECONDS FILE...   keeps a full run, from every part's FILE
    run.py record --add --build FOLDER FILE...       keeps some parts beside the rest of the last run
    run.py render [--check]                          the page and its plots, from what is kept

Called by scripts/bench.sh. What is kept is docs/performance/results.jsonl, one line for each of
the last two full runs, parts that were added later included. In docs/performance.md everything between marker lines is written here:

    <!-- bench/run.py NAME: begin -->  ...  <!-- bench/run.py NAME: end -->

NAME is "machine", "targets", "PART: TABLE or PLOT" for one table or plot of a part, or "PART" for
all of it that has no place of its own. With --check nothing is written, and the status is 1 if the
page says another thing than the numbers.
"""

from __future__ import annotations

import argparse
import datetime
import importlib
import json
import os
import platform
import re
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Protocol, cast

from results import CannotMeasure, Data, Plot, Target

ROOT = Path(__file__).resolve().parent.parent
PARTS = ("micro", "drain", "durable", "growth", "idle", "figures", "relay")
KEPT = 2  # full runs
MARKER = re.compile(
    r"<!-- bench/run\.py (?P<name>[^>]+): begin -->\n.*?<!-- bench/run\.py (?P=name): end -->\n",
    re.DOTALL,
)
NOTHING_YET = "Nothing of it has been recorded yet.\n"


@dataclass(frozen=True)
class Place:
    """Where a page, its numbers and its plots are."""

    docs: Path = ROOT / "docs"

    @property
    def page(self) -> Path:
        return self.docs / "performance.md"

    @property
    def folder(self) -> Path:
        return self.docs / "performance"

    @property
    def results(self) -> Path:
        return self.folder / "results.jsonl"


class Measure(Protocol):
    """A part's measure.py."""

    def measure(self, quick: bool) -> Data: ...


class Tell(Protocol):
    """A part's tell.py."""

    def targets(self, data: Data) -> list[Target]: ...
    def tables(self, data: Data) -> dict[str, str]: ...
    def plots(self, data: Data) -> list[Plot]: ...


def teller(part: str) -> Tell:
    return cast(Tell, importlib.import_module(f"{part}.tell"))


# Measuring.


def measure(part: str, quick: bool, output: Path) -> None:
    """Takes a part's numbers, writes them down and prints what they say."""
    module = cast(Measure, importlib.import_module(f"{part}.measure"))
    begin = time.monotonic()
    have_packets_of_an_ethernet()
    data = module.measure(quick)
    output.write_text(json.dumps(data) + "\n", encoding="utf-8")
    print(as_text(part, data))
    if quick:
        print("These are figures of the quick form: they say that it works, and nothing else.")
    print(f"{part} took {time.monotonic() - begin:.0f} s", flush=True)


def have_packets_of_an_ethernet() -> None:
    """Gives the sandbox's loopback the packets of an ordinary network: 1,500 bytes.

    Its own hold 64 KB, and a sender with small messages, as an rsync server has when it says what
    it removed, waits for an acknowledgement until it has one that is full.
    """
    subprocess.run(["ip", "link", "set", "lo", "mtu", "1500"], check=True, timeout=30)


def as_text(part: str, data: Data) -> str:
    tell = teller(part)
    pieces = [f"**{name}**\n\n{table.strip()}\n" for name, table in tell.tables(data).items()]
    pieces += [
        f"{'met   ' if target.is_met else 'MISSED'}  {target.what}: "
        f"{with_unit(target.value, target.unit)}, at most {with_unit(target.limit, target.unit)}"
        for target in tell.targets(data)
    ]
    return "\n".join(pieces)


# Keeping.


def record(place: Place, build: Path, began: float, files: list[Path]) -> None:
    """Adds a full run to the ones that are kept; the oldest goes."""
    parts = {file.stem: json.loads(file.read_text(encoding="utf-8")) for file in files}
    missing = set(PARTS) - parts.keys()
    if missing:
        sys.exit(f"no full run without {', '.join(sorted(missing))}")
    run = {
        "date": now(),
        "machine": machine(),
        "versions": versions(build),
        "seconds": round(time.time() - began),
        "parts": parts,
    }
    keep(place, [*kept(place), run][-KEPT:])


def add(place: Place, build: Path, files: list[Path]) -> None:
    """Gives parts to the last run that is kept; what it had of them goes to the run before."""
    runs = kept(place)
    if not runs or runs[-1]["machine"] != machine():
        sys.exit("parts can only be added to a full run, and on the same machine")
    for file in files:
        data = json.loads(file.read_text(encoding="utf-8"))
        origin = f"{now()}, skarn {versions(build)['skarn']}"
        for run in reversed(runs):
            added = run.setdefault("added", {})
            before = run["parts"].get(file.stem)
            origin_before = added.get(file.stem, f"{run['date']}, skarn {run['versions']['skarn']}")
            run["parts"][file.stem], added[file.stem] = data, origin
            if before is None:
                break
            data, origin = before, origin_before
    keep(place, runs)


def now() -> str:
    return datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")


def keep(place: Place, runs: list[dict[str, Any]]) -> None:
    place.folder.mkdir(parents=True, exist_ok=True)
    place.results.write_text("".join(json.dumps(each) + "\n" for each in runs), encoding="utf-8")


def kept(place: Place) -> list[dict[str, Any]]:
    """The runs that are kept, the oldest first."""
    if not place.results.exists():
        return []
    lines = place.results.read_text(encoding="utf-8").splitlines()
    return [json.loads(line) for line in lines if line]


def machine() -> dict[str, str]:
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / 2**30
    model = re.search(r"^model name\s*: (.*)", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    return {
        "processor": model[1].strip() if model else platform.machine(),
        "cores": str(os.cpu_count()),
        "memory": f"{memory:.0f} GiB",
        "kernel": platform.release(),
    }


def versions(build: Path) -> dict[str, str]:
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")

    def cached(name: str) -> str:
        found = re.search(rf"^{name}:\w+=(.*)", cache, re.MULTILINE)
        return found[1] if found else "unknown"

    changed = first_line("git", "status", "--porcelain", "--untracked-files=no") != ""
    return {
        "skarn": first_line("git", "rev-parse", "--short=12", "HEAD")
        + (" with changes that are not committed" if changed else ""),
        "rsync": " ".join(first_line("rsync", "--version").split()[:3]),
        "compiler": first_line(cached("CMAKE_CXX_COMPILER"), "--version"),
        "build": cached("CMAKE_BUILD_TYPE"),
    }


def first_line(*command: str) -> str:
    ended = subprocess.run(command, stdout=subprocess.PIPE, check=True, cwd=ROOT, timeout=60)
    return ended.stdout.decode().partition("\n")[0]


# Telling.


def render(place: Place, check: bool) -> int:
    """Writes the page and the plots; or says whether the page is as it would be written."""
    runs = kept(place)
    before = place.page.read_text(encoding="utf-8")
    after = page(before, runs)
    if check:
        return 0 if before == after else 1
    place.page.write_text(after, encoding="utf-8")
    wanted = [plot for plots in plots_of(runs).values() for plot in plots]
    place.folder.mkdir(parents=True, exist_ok=True)
    for old in place.folder.glob("*.svg"):
        if old.stem not in {plot.name for plot in wanted}:
            old.unlink()
    for plot in wanted:
        draw(plot, place.folder / f"{plot.name}.svg")
    return 0


def page(text: str, runs: list[dict[str, Any]]) -> str:
    """The page's text with what the runs say between its marker lines."""
    wanted = pieces(runs)
    names = [found["name"] for found in MARKER.finditer(text)]
    own = {name: wanted.pop(name) for name in names if name in wanted}
    for part in PARTS:
        if part in names:
            rest = [name for name in wanted if name.startswith(f"{part}: ")]
            own[part] = "\n".join(
                (f"**{name.partition(': ')[2]}**\n\n" if "![" not in wanted[name] else "")
                + wanted.pop(name)
                for name in rest
            )
    unknown = set(names) - own.keys()
    if runs and (unknown or wanted):
        sys.exit(
            f"the page has places for {sorted(unknown)}, of which there is nothing, "
            f"and none for {sorted(wanted)}"
        )

    def filled(found: re.Match[str]) -> str:
        name = found["name"]
        return (
            f"<!-- bench/run.py {name}: begin -->\n\n{own.get(name) or NOTHING_YET}\n"
            f"<!-- bench/run.py {name}: end -->\n"
        )

    return MARKER.sub(filled, text)


def pieces(runs: list[dict[str, Any]]) -> dict[str, str]:
    """All that can stand in the page, by name; tables and plots are those of the last run."""
    if not runs:
        return {}
    found = {"machine": machine_table(runs), "targets": targets_table(runs)}
    for part, data in runs[-1]["parts"].items():
        for name, table in teller(part).tables(data).items():
            found[f"{part}: {name}"] = table.strip() + "\n"
    for part, plots in plots_of(runs).items():
        for plot in plots:
            found[f"{part}: {plot.name}"] = f"![{plot.title}](performance/{plot.name}.svg)\n"
    return found


def plots_of(runs: list[dict[str, Any]]) -> dict[str, list[Plot]]:
    if not runs:
        return {}
    return {part: teller(part).plots(data) for part, data in runs[-1]["parts"].items()}


def machine_table(runs: list[dict[str, Any]]) -> str:
    rows = {
        "date": [run["date"] for run in runs],
        **{name: [run["machine"][name] for run in runs] for name in runs[-1]["machine"]},
        **{name: [run["versions"][name] for run in runs] for name in runs[-1]["versions"]},
        "duration": [f"{run['seconds'] / 60:.1f} minutes" for run in runs],
        **{
            f"`{part}` apart from the rest": [run.get("added", {}).get(part, "") for run in runs]
            for part in runs[-1].get("added", {})
        },
    }
    head = [f"| | {' | '.join(run_names(runs))} |", "|---|" + "---|" * len(runs)]
    lines = [f"| {name} | {' | '.join(row)} |" for name, row in rows.items()]
    return "\n".join([*head, *lines]) + "\n"


def targets_table(runs: list[dict[str, Any]]) -> str:
    """Every target of the last run, with its values in all runs."""
    of_runs = [
        {
            (part, target.what): target
            for part, data in run["parts"].items()
            for target in teller(part).targets(data)
        }
        for run in runs
    ]
    lines = [
        f"| part | what | at most | {' | '.join(run_names(runs))} | met |",
        "|---|---|---:|" + "---:|" * len(runs) + "---|",
    ]
    met = 0
    for key, target in of_runs[-1].items():
        every = [of.get(key) for of in of_runs]
        values = [with_unit(each.value, target.unit) if each else "" for each in every]
        is_met = all(each is not None and each.value <= target.limit for each in every)
        met += is_met
        lines.append(
            f"| {key[0]} | {target.what} | {with_unit(target.limit, target.unit)} "
            f"| {' | '.join(values)} | {'yes' if is_met else '**no**'} |"
        )
    count = len(of_runs[-1])
    runs_text = "in both runs" if len(runs) > 1 else "in this run"
    return "\n".join([*lines, "", f"{met} of {count} targets are met {runs_text}."]) + "\n"


def run_names(runs: list[dict[str, Any]]) -> list[str]:
    return ["last run"] if len(runs) == 1 else ["run before", "last run"]


def with_unit(value: float, unit: str) -> str:
    return f"{number(value)} {unit}".rstrip()


def number(value: float) -> str:
    """Three digits of it, or all before the point."""
    size = abs(value)
    if size >= 100:
        return f"{value:,.0f}"
    if size >= 10:
        return f"{value:.1f}"
    if size >= 0.1 or size == 0:
        return f"{value:.2f}"
    return f"{value:.2g}"


# Drawing.


def draw(plot: Plot, output: Path) -> None:
    """Lets gnuplot draw it as SVG."""
    subprocess.run(
        ["gnuplot"], input=script(plot, output).encode(), check=True, timeout=60, cwd=output.parent
    )


def script(plot: Plot, output: Path) -> str:
    """What gnuplot is told."""
    names = [name for name, points in plot.series.items() if points]
    blocks = [
        f"$s{index} << EOD\n"
        + "".join(f"{x:.9g} {y:.9g}\n" for x, y in plot.series[name])
        + "EOD\n"
        for index, name in enumerate(names)
    ]
    lines = [
        # Each line of the key has room of its own below the picture.
        f"set terminal svg size 760,{390 + 20 * len(names)} font 'DejaVu Sans,13' "
        "background rgb 'white' noenhanced",
        f"set output {quoted(output.name)}",
        f"set title {quoted(plot.title)}",
        f"set xlabel {quoted(plot.x_label)} offset 0,0.4",
        f"set ylabel {quoted(plot.y_label)}",
        "set key outside bottom center vertical maxcols 1 Left reverse",
        "set rmargin 6",  # for the last number below the axis
        "set grid xtics ytics linecolor rgb '#dddddd'",
        "set border 3",
        "set tics nomirror",
        "set format x '%.6g'" if not plot.x_is_logarithmic else "set format x '%.0f'",
        "set format y '%.6g'",
        "set logscale x 10" if plot.x_is_logarithmic else "",
        "set logscale y 10" if plot.y_is_logarithmic else "set yrange [0:*]",
        *plot.settings,
    ]
    colours = "#0b6bb5 #d1495b #2e8540 #8a5a00 #6a3d9a #444444 #00868b #e08214".split()
    # Those drawn later lie on top, and are thinner, so that both are seen where they are the same.
    drawn = ", \\\n  ".join(
        f"$s{index} using 1:2 with linespoints linewidth {max(5 - index, 2)} "
        f"pointtype {index % 7 + 4} pointsize 0.8 "
        f"linecolor rgb '{colours[index % len(colours)]}' title {quoted(name)}"
        for index, name in enumerate(names)
    )
    return "".join(blocks) + "\n".join(line for line in lines if line) + f"\nplot {drawn}\n"


def quoted(text: str) -> str:
    return "'" + text.replace("'", "''") + "'"


def main() -> int:
    """Returns the exit status."""
    parser = argparse.ArgumentParser(prog="run.py", description="Takes and tells the benchmarks.")
    commands = parser.add_subparsers(dest="command", required=True)
    measuring = commands.add_parser("measure")
    measuring.add_argument("part", choices=PARTS)
    measuring.add_argument("--output", type=Path, required=True)
    measuring.add_argument("--quick", action="store_true")
    recording = commands.add_parser("record")
    recording.add_argument("--build", type=Path, required=True)
    recording.add_argument("--began", type=float, help="of a full run")
    recording.add_argument("--add", action="store_true", help="to the last full run")
    recording.add_argument("files", type=Path, nargs="+")
    rendering = commands.add_parser("render")
    rendering.add_argument("--check", action="store_true")
    for each in (recording, rendering):
        each.add_argument("--docs", type=Path, default=ROOT / "docs", help="where the page is")
    options = parser.parse_args()
    if options.command == "measure":
        try:
            measure(options.part, options.quick, options.output)
        except CannotMeasure as error:
            sys.exit(f"{options.part} can't be measured here: {error}")
        return 0
    place = Place(options.docs)
    if options.command == "record" and options.add:
        add(place, options.build, options.files)
        return 0
    if options.command == "record":
        record(place, options.build, options.began, options.files)
        return 0
    return render(place, options.check)


if __name__ == "__main__":
    sys.exit(main())
