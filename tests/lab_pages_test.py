"""The limits that the pages about the lab state are those of its code."""

import pytest

from lab.coverage import __main__ as coverage
from lab.common.tree import ROOT
from lab.console.feed import KEPT_LINES
from lab.fleet.plan import INTERVALS, REQUEST_SECONDS
from lab.matrix.roots import MAX_ROOT_AGE_DAYS
from lab.soak.minute import FAULT_SECONDS
from lab.soak.verdict import MOST_GROWTH


@pytest.mark.parametrize(("page", "statement"), [
    ("lab", f"The latest {KEPT_LINES:,} lines are kept"),
    ("fleet", f"A run has {INTERVALS} upload intervals"),
    ("fleet", f"With intervals of {REQUEST_SECONDS} seconds or less"),
    ("portability", f"and after {MAX_ROOT_AGE_DAYS} days"),
    ("reliability", f"Each minute begins with {FAULT_SECONDS:g} seconds of another of its"),
    ("reliability", f"may grow by {100 * MOST_GROWTH:g} % at most"),
    ("reliability", f"requires {coverage.GOALS['ap']} and {coverage.GOALS['platform']}"),
])
def test_a_page_states_the_limit_of_the_code(page: str, statement: str) -> None:
    assert statement in " ".join((ROOT / f"docs/{page}.md").read_text().split())
