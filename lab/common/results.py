"""The last result of each long run, for the page of ./dev evidence: build/results/NAME.json."""

import enum
import json
import os
import subprocess
import time
from collections.abc import Iterable
from dataclasses import asdict, dataclass
from pathlib import Path

from lab.common.tree import ROOT

FOLDER = ROOT / "build/results"


class Verdict(enum.StrEnum):
    PASSED = "passed"
    FAILED = "failed"


@dataclass(frozen=True)
class Run:
    """A finished run. `lines` is what it reported; a commit that ends in "+" had uncommitted
    changes."""

    command: str
    verdict: Verdict
    commit: str
    date: str
    lines: tuple[str, ...]


def _git(*arguments: str) -> str:
    return subprocess.run(["git", *arguments], cwd=ROOT, capture_output=True, text=True,
                          check=True).stdout.strip()


def _commit() -> str:
    return _git("rev-parse", "--short", "HEAD") + ("+" if _git("status", "--porcelain") else "")


def keep(name: str, command: str, passed: bool, lines: Iterable[str],
         folder: Path = FOLDER) -> None:
    """Replaces the last result of this name."""
    run = Run(command, Verdict.PASSED if passed else Verdict.FAILED, _commit(),
              time.strftime("%Y-%m-%d", time.gmtime()), tuple(lines))
    folder.mkdir(parents=True, exist_ok=True)
    new = folder / f"{name}.{os.getpid()}"
    new.write_text(json.dumps(asdict(run), indent=1, ensure_ascii=False) + "\n")
    new.rename(folder / f"{name}.json")


def last(name: str, folder: Path = FOLDER) -> Run | None:
    kept = folder / f"{name}.json"
    if not kept.exists():
        return None
    fields = json.loads(kept.read_text())
    return Run(fields["command"], Verdict(fields["verdict"]), fields["commit"], fields["date"],
               tuple(fields["lines"]))
