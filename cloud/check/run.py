"""Checks a cloud against the rules, in their order."""

import time
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from enum import StrEnum

from cloud.check.all_rules import ALL
from cloud.check.cloud import Cloud, Skip
from cloud.check.connection import Broken
from cloud.check.rules import Failure, Rule


class Outcome(StrEnum):
    PASSED = "pass"
    FAILED = "fail"
    SKIPPED = "skipped"


@dataclass(frozen=True)
class Result:
    rule: Rule
    outcome: Outcome
    # What was seen, or why the rule was skipped.
    text: str
    seconds: float


def selected(names: Iterable[str]) -> list[Rule]:
    """The named rules with those that they need, in order; all, without names."""
    wanted, waiting = set(), list(names) or list(ALL)
    while waiting:
        name = waiting.pop()
        wanted.add(name)
        waiting += {*ALL[name].needs, *ALL[name].after} - wanted
    return [rule for rule in ALL.values() if rule.name in wanted]


class Run:
    def __init__(self, cloud: Cloud, report: Callable[[Result], None]) -> None:
        self._cloud = cloud
        self._report = report
        self._outcomes: dict[str, Outcome] = {}
        # By the rule that an answer violated, what was seen first.
        self._broken: dict[str, str] = {}

    def check(self, rules: Iterable[Rule]) -> list[Result]:
        results = []
        for rule in rules:
            began = time.monotonic()
            outcome, text = self._outcome(rule)
            self._outcomes[rule.name] = outcome
            results.append(Result(rule, outcome, self._cloud.masked(text),
                                  time.monotonic() - began))
            self._report(results[-1])
        merged = {result.rule.name: result for result in [*results, *self._late(results)]}
        return list(merged.values())

    def _outcome(self, rule: Rule) -> tuple[Outcome, str]:
        for need in rule.needs:
            if self._outcomes.get(need) != Outcome.PASSED:
                return Outcome.SKIPPED, f"needs {need}"
        try:
            self._cloud.check_time()
            rule.check(self._cloud)
        except Failure as failure:
            return Outcome.FAILED, str(failure)
        except Skip as skip:
            return Outcome.SKIPPED, str(skip)
        except Broken as broken:
            self._broken.setdefault(broken.rule, f"{rule.name}: {broken}")
            if broken.rule != rule.name:
                return Outcome.SKIPPED, f"violates {broken.rule}: {broken}"
        if rule.name in self._broken:
            return Outcome.FAILED, self._broken[rule.name]
        return Outcome.PASSED, ""

    def _late(self, results: list[Result]) -> list[Result]:
        """A failure for each rule that was violated after its check, or without one."""
        failed = {result.rule.name for result in results if result.outcome == Outcome.FAILED}
        late = [Result(ALL[name], Outcome.FAILED, self._cloud.masked(text), 0.0)
                for name, text in self._broken.items() if name not in failed]
        for result in late:
            self._report(result)
        return late
