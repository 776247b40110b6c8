"""The result of a row: the outcome, the time and the counts of each step."""

import enum
import xml.etree.ElementTree as ElementTree
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any

from lab.common.applicability import NOT_APPLICABLE


class Outcome(enum.StrEnum):
    PASSED = "passed"
    FAILED = "failed"
    NOT_RUN = "not run"


@dataclass(frozen=True)
class Counts:
    """The tests of a suite by outcome."""

    passed: int = 0
    failed: int = 0
    skipped: int = 0
    not_applicable: int = 0

    @property
    def total(self) -> int:
        return self.passed + self.failed + self.skipped + self.not_applicable


@dataclass(frozen=True)
class Step:
    """A step of a row: "root", "build" or a suite."""

    name: str
    outcome: Outcome
    seconds: float
    counts: Counts | None = None
    # Why it failed or was not run; empty when it passed.
    reason: str = ""


@dataclass
class Result:
    """The steps of a row, and the versions of its packages."""

    row: str
    steps: list[Step] = field(default_factory=list)
    versions: dict[str, str] = field(default_factory=dict)

    @property
    def outcome(self) -> Outcome:
        outcomes = {step.outcome for step in self.steps}
        if Outcome.FAILED in outcomes:
            return Outcome.FAILED
        if Outcome.NOT_RUN in outcomes or not outcomes:
            return Outcome.NOT_RUN
        return Outcome.PASSED

    def step(self, name: str) -> Step | None:
        return next((step for step in self.steps if step.name == name), None)

    def to_json(self) -> dict[str, Any]:
        return asdict(self)

    @staticmethod
    def from_json(value: dict[str, Any]) -> "Result":
        steps = [Step(step["name"], Outcome(step["outcome"]), step["seconds"],
                      Counts(**step["counts"]) if step["counts"] else None, step["reason"])
                 for step in value["steps"]]
        return Result(value["row"], steps, dict(value["versions"]))


def count_tests(report: Path) -> Counts:
    """Counts the tests of a report in JUnit's format, as written by ctest and pytest."""
    counted = {"passed": 0, "failed": 0, "skipped": 0, "not_applicable": 0}
    for case in ElementTree.parse(report).iter("testcase"):
        counted[_kind_of(case)] += 1
    return Counts(**counted)


def _kind_of(case: ElementTree.Element) -> str:
    if case.find("failure") is not None or case.find("error") is not None:
        return "failed"
    skipped = case.find("skipped")
    if skipped is None:
        return "passed"
    return "not_applicable" if NOT_APPLICABLE in skipped.get("message", "") else "skipped"


def failed_tests(report: Path) -> list[str]:
    """The names of the tests that failed."""
    return [case.get("name", "?") for case in ElementTree.parse(report).iter("testcase")
            if _kind_of(case) == "failed"]
