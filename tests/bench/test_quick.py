"""Each part of the benchmarks in its quick form: it runs, and what it gives can be told."""

from __future__ import annotations

import json
from pathlib import Path

import pytest

import run
from results import CannotMeasure


@pytest.mark.parametrize("part", run.PARTS)
def test_a_part_runs_and_can_be_told(part: str, capsys: pytest.CaptureFixture[str]) -> None:
    output = Path("/srv/part.json")
    try:
        run.measure(part, True, output)
    except CannotMeasure as error:
        pytest.exit(str(error), 77)  # what ctest takes for skipped
    printed = capsys.readouterr().out
    tell = run.teller(part)
    data = json.loads(output.read_text(encoding="utf-8"))
    targets, tables = tell.targets(data), tell.tables(data)
    assert targets and tables
    for target in targets:
        assert target.value > 0 and target.limit > 0, target
        assert target.what in printed
    for table in tables.values():
        assert table.strip() in printed
    for plot in tell.plots(data):
        assert any(plot.series.values()), plot.name
        run.draw(plot, Path("/srv", f"{plot.name}.svg"))
        assert "</svg>" in Path("/srv", f"{plot.name}.svg").read_text(encoding="utf-8")
