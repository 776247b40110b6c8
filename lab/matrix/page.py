"""docs/portability.md: its generated part, made of the last run of each row."""

import json
from collections.abc import Mapping, Sequence
from pathlib import Path
from typing import Any

from lab.common.tree import ROOT
from lab.matrix.results import Outcome, Result, Step
from lab.matrix.rows import ALL_SUITES, ROWS
from lab.matrix.table import tests_of
from lab.matrix.versions import COLUMNS

_DOCS = ROOT / "docs"
PAGE = _DOCS / "portability.md"
RECORDS = _DOCS / "portability/results.json"
_BEGIN = "<!-- Made by ./dev matrix --write; do not edit. -->\n"
_END = "<!-- The end of what is made. -->\n"

# By row: the result with its commit and date, as JSON.
Records = Mapping[str, Mapping[str, Any]]


def keep(folder: Path, result: Result, commit: str, date: str) -> None:
    """Keeps the result of a row for `write`, with those of the same commit's other suites."""
    kept = folder / f"results/{result.row}.json"
    kept.parent.mkdir(parents=True, exist_ok=True)
    record = {"commit": commit, "date": date, **result.to_json()}
    if kept.exists():
        last = json.loads(kept.read_text())
        if last["commit"] == commit:
            again = {step["name"] for step in record["steps"]}
            record["steps"] += [step for step in last["steps"] if step["name"] not in again]
    kept.write_text(json.dumps(record, indent=1) + "\n")


def write(folder: Path) -> None:
    """Writes the page's generated part and what it is made of."""
    kept = {row.name: folder / f"results/{row.name}.json" for row in ROWS}
    records = {name: json.loads(path.read_text()) if path.exists() else _never_run(name)
               for name, path in kept.items()}
    RECORDS.parent.mkdir(exist_ok=True)
    RECORDS.write_text(json.dumps(records, indent=1) + "\n")
    PAGE.write_text(with_tables(PAGE.read_text(), records))


def _never_run(name: str) -> dict[str, Any]:
    return {"commit": "", "date": "", **Result(name).to_json()}


def with_tables(page: str, records: Records) -> str:
    before, _, rest = page.partition(_BEGIN)
    _, _, after = rest.partition(_END)
    return f"{before}{_BEGIN}\n{tables(records)}\n{_END}{after}"


def tables(records: Records) -> str:
    results = {name: Result.from_json(record) for name, record in records.items()}
    outcomes = [[f"`{name}`", records[name]["date"], records[name]["commit"],
                 *(_cell(result, suite) for suite in ALL_SUITES), _time(result)]
                for name, result in results.items()]
    environments = [[f"`{name}`", *(result.versions.get(column, "") for column in COLUMNS)]
                    for name, result in results.items()]
    return "\n".join([_markdown(["row", "date", "commit", *ALL_SUITES, "time"], outcomes),
                      _markdown(["row", *COLUMNS], environments)])


def _cell(result: Result, suite: str) -> str:
    """What became of a suite of the row; nothing for one that the row does not have."""
    if suite not in next((row.suites for row in ROWS if row.name == result.row), ()):
        return ""
    step = result.step(suite) or _first_failure(result)
    if not step:
        return "not run"
    text = tests_of(step) or str(step.outcome)
    return text if step.outcome is Outcome.PASSED else f"**{text}**"


def _first_failure(result: Result) -> Step | None:
    """Without a root or a build no suite passes."""
    return next((step for step in result.steps if step.outcome is not Outcome.PASSED
                 and step.name not in ALL_SUITES), None)


def _time(result: Result) -> str:
    """Without the root, which is made once."""
    seconds = sum(step.seconds for step in result.steps if step.name != "root")
    return f"{seconds / 60:.0f} min"


def _markdown(head: Sequence[str], lines: Sequence[Sequence[str]]) -> str:
    text = [head, ["---"] * len(head), *lines]
    return "".join(f"| {' | '.join(line)} |\n" for line in text)
