"""Reports the test coverage of a build of the preset `coverage` after its tests:
`python3 -m lab.coverage BUILD`. Fails below the goals.

It omits tests, their helpers, generated code, and branches of exceptions, which are not used."""

import json
import os
import subprocess
import sys
from collections import defaultdict
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from lab.common import results
from lab.common.tree import ROOT

# In percent of the lines.
GOALS = {"ap": 95, "platform": 90}
LEFT_OUT = (".*_test[.]cc", ".*/testing/.*")
# The number of listed files with untested lines.
SHOWN_FILES = 15


@dataclass
class Count:
    """The number of lines or branches, and how many of them ran."""

    lines: int = 0
    lines_run: int = 0
    branches: int = 0
    branches_run: int = 0

    def add(self, file: dict[str, Any]) -> None:
        self.lines += file["line_total"]
        self.lines_run += file["line_covered"]
        self.branches += file["branch_total"]
        self.branches_run += file["branch_covered"]

    def line_percent(self) -> float:
        return 100 * self.lines_run / self.lines

    def __str__(self) -> str:
        share = f"{100 * self.branches_run / self.branches:5.1f} %" if self.branches else "      –"
        return (f"{self.lines_run:5} of {self.lines:5} {self.line_percent():5.1f} %  "
                f"{self.branches_run:5} of {self.branches:5} {share}")


def measured(build: Path) -> list[dict[str, Any]]:
    """The source files with their counts."""
    filters = [option for folder in GOALS for option in ("--filter", f"{ROOT}/{folder}/")]
    excludes = [option for pattern in LEFT_OUT for option in ("--exclude", pattern)]
    report = subprocess.run(
        ["gcovr", "--root", ROOT, *filters, *excludes, "--exclude-throw-branches",
         "--exclude-unreachable-branches", "-j", str(os.cpu_count()), "--json-summary", "-", build],
        check=True, stdout=subprocess.PIPE, text=True)
    return json.loads(report.stdout)["files"]


def report(files: list[dict[str, Any]]) -> bool:
    """Prints the counts; returns whether they reach the goals."""
    folders: dict[str, Count] = defaultdict(Count)
    parts: dict[str, Count] = defaultdict(Count)
    for file in files:
        folder = str(Path(file["filename"]).parent)
        folders[folder].add(file)
        parts[folder.split("/")[0]].add(file)
    lines = [f"{'':28}  lines                  branches",
             *(f"{name + '/':28} {count}"
               for name, count in [*sorted(folders.items()), *sorted(parts.items())])]
    print("\n".join(lines))
    least = sorted(files, key=lambda file: file["line_covered"] - file["line_total"])
    for file in least[:SHOWN_FILES]:
        if missing := file["line_total"] - file["line_covered"]:
            print(f"{file['filename']}: {missing} lines not run")
    missed = [name for name, goal in GOALS.items() if parts[name].line_percent() < goal]
    for name in missed:
        print(f"{name}/ is below its goal of {GOALS[name]} % of the lines", file=sys.stderr)
    results.keep("coverage", "./dev coverage", not missed, lines)
    return not missed


def main() -> int:
    return 0 if report(measured(Path(sys.argv[1]).resolve())) else 1


if __name__ == "__main__":
    sys.exit(main())
