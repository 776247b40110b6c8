"""The table of results for a terminal, and the exit status."""

from collections.abc import Sequence

from lab.matrix.results import Outcome, Result, Step
from lab.matrix.rows import ALL_SUITES

NOT_RUN = 77
STEPS = ("root", "build", *ALL_SUITES)
_MOST_REASON = 300


def exit_status(results: Sequence[Result]) -> int:
    """1 if a row failed, else 77 if one was not run, else 0."""
    outcomes = {result.outcome for result in results}
    if Outcome.FAILED in outcomes:
        return 1
    return NOT_RUN if Outcome.NOT_RUN in outcomes else 0


def cell(step: Step | None) -> str:
    """A step in a few words; empty if the row does not have it."""
    if not step:
        return ""
    if step.outcome is Outcome.NOT_RUN:
        return "not run"
    return f"{tests_of(step) or step.outcome}, {step.seconds:.0f} s"


def tests_of(step: Step) -> str:
    """The counts of a suite's tests; empty for a step without."""
    counts = step.counts
    if not counts:
        return ""
    words = [f"{counts.passed} passed"]
    if counts.failed:
        words.insert(0, f"{counts.failed} of {counts.total} FAILED")
    if counts.skipped:
        words.append(f"{counts.skipped} skipped")
    if counts.not_applicable:
        words.append(f"not applicable: {counts.not_applicable}")
    return ", ".join(words)


def table(results: Sequence[Result]) -> str:
    """A line per row, then the reasons of failed and skipped rows."""
    lines = [["row", *STEPS, "result"]]
    lines += [[result.row, *(cell(result.step(name)) for name in STEPS), str(result.outcome)]
              for result in results]
    used = [column for column in range(len(lines[0])) if any(line[column] for line in lines[1:])]
    widths = {column: max(len(line[column]) for line in lines) for column in used}
    text = ["  ".join(line[column].ljust(widths[column]) for column in used).rstrip()
            for line in lines]
    reasons = [f"{result.row}: {step.name}: {step.outcome}: {_shortened(step.reason)}"
               for result in results for step in result.steps if step.reason]
    return "\n".join([*text, *(["", *reasons] if reasons else [])])


def _shortened(reason: str) -> str:
    return reason if len(reason) <= _MOST_REASON else f"{reason[:_MOST_REASON]}…"
