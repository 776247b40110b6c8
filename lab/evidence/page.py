"""results.md: the last result of each long run, with its command."""

from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from lab.common import results
from lab.common.results import Run
from lab.matrix.page import Records, tables

_HEAD = """\
# Results

The last run of each command in this tree. A commit that ends in "+" had uncommitted changes.
"""


@dataclass(frozen=True)
class Source:
    """`name` is that in build/results."""

    name: str
    title: str
    command: str


SOURCES = (
    Source("fuzz", "Fuzz targets", "./dev fuzz"),
    Source("soak", "Endurance run", "./dev soak"),
    Source("coverage", "Coverage", "./dev coverage"),
    Source("mutants", "Mutation test", "./dev mutants"),
    Source("bench", "Benchmarks", "./dev bench"),
)


def _matrix(records: Records) -> str:
    return ("## Other environments\n\nCommand: `./dev matrix`. The last run of each row, on this "
            "machine or as published in\ndocs/portability.md. An empty cell is a suite that the "
            f"row does not have.\n\n{tables(records)}")


def _section(source: Source, run: Run | None) -> str:
    if not run:
        return f"## {source.title}\n\nNot run in this tree. Command: `{source.command}`.\n"
    text = "\n".join(run.lines)
    return (f"## {source.title}\n\nCommand: `{run.command}`. {run.verdict.capitalize()} on "
            f"{run.date} at commit {run.commit}.\n\n```text\n{text}\n```\n")


def _summary(runs: dict[str, Run | None]) -> Iterator[str]:
    yield "| command | result | date | commit |\n| --- | --- | --- | --- |\n"
    for source in SOURCES:
        run = runs[source.name]
        yield (f"| `{run.command}` | {run.verdict} | {run.date} | {run.commit} |\n" if run
               else f"| `{source.command}` | not run | | |\n")


def page(matrix: Records, folder: Path = results.FOLDER) -> str:
    runs = {source.name: results.last(source.name, folder) for source in SOURCES}
    parts = [_HEAD, "".join(_summary(runs)), _matrix(matrix),
             *(_section(source, runs[source.name]) for source in SOURCES)]
    return "\n".join(parts)
