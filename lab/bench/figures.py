"""A figure: a measurement next to its baseline and its goal; and the table of all figures."""

import enum
import statistics
from collections.abc import Sequence
from dataclasses import asdict, dataclass
from typing import Any


class Verdict(enum.StrEnum):
    MET = "met"
    MISSED = "missed"
    UNMEASURED = "not measured"
    NO_GOAL = "-"


@dataclass(frozen=True)
class Goal:
    """At most so much: of the ratio to the baseline, of the figure itself, or of what it has more
    than the baseline."""

    most: float
    of_ratio: bool = True
    of_excess: bool = False

    def __str__(self) -> str:
        if self.of_excess:
            return f"≤ baseline + {number(self.most)}"
        return f"≤ {number(self.most)}{'' if self.of_ratio else ' itself'}"


@dataclass(frozen=True)
class Figure:
    """Medians of the runs of daemon and baseline. A figure without a baseline is possible, and so
    is one that was not measured, with the reason in `why`."""

    key: str
    what: str
    unit: str
    goal: Goal | None = None
    ours: tuple[float, ...] = ()
    baseline: tuple[float, ...] = ()
    why: str = ""

    @property
    def median(self) -> float | None:
        return statistics.median(self.ours) if self.ours else None

    @property
    def baseline_median(self) -> float | None:
        return statistics.median(self.baseline) if self.baseline else None

    @property
    def ratio(self) -> float | None:
        if self.median is None or not self.baseline_median:
            return None
        return self.median / self.baseline_median

    @property
    def excess(self) -> float | None:
        if self.median is None or self.baseline_median is None:
            return None
        return self.median - self.baseline_median

    def _judged(self) -> float | None:
        if self.goal and self.goal.of_excess:
            return self.excess
        return self.ratio if self.goal and self.goal.of_ratio else self.median

    @property
    def verdict(self) -> Verdict:
        judged = self._judged()
        if judged is None:
            return Verdict.UNMEASURED
        if not self.goal:
            return Verdict.NO_GOAL
        return Verdict.MET if judged <= self.goal.most else Verdict.MISSED

    def as_json(self) -> dict[str, Any]:
        goal = self.goal and asdict(self.goal)
        return {"figure": self.key, "what": self.what, "unit": self.unit, "daemon": self.median,
                "baseline": self.baseline_median, "ratio": self.ratio, "goal": goal,
                "verdict": str(self.verdict), "why": self.why,
                "runs": {"daemon": self.ours, "baseline": self.baseline}}


def number(value: float | None) -> str:
    """With three digits that count, or all before the point."""
    if value is None:
        return "-"
    if abs(value) >= 100 or value == int(value):
        return f"{value:,.0f}".replace(",", " ")
    return f"{value:.3g}"


_HEAD = ("figure", "what", "daemon", "baseline", "ratio", "goal", "verdict")


def _cells(figure: Figure) -> tuple[str, ...]:
    return (figure.key, f"{figure.what}, {figure.unit}", number(figure.median),
            number(figure.baseline_median), number(figure.ratio), str(figure.goal or "-"),
            f"{figure.verdict}: {figure.why}" if figure.why else str(figure.verdict))


def table(figures: Sequence[Figure]) -> str:
    """In Markdown, its columns aligned for the eye."""
    rows = [_HEAD, *map(_cells, figures)]
    widths = [max(len(row[column]) for row in rows) for column in range(len(_HEAD))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |"
             for row in rows]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)
