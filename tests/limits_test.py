"""Documents, comments and tests state the limits that the code has."""

import re
import subprocess
from collections.abc import Iterator
from dataclasses import dataclass
from functools import cache

import pytest

from lab.common.tree import ROOT

OPERATIONS = "docs/operations.md"
# Releases, measurements, inputs and durations of tools; and this file.
NOT_SEARCHED = ("CHANGELOG.md", "docs/fleet/", "lab/fuzz/", "third_party/", ".ci/", "dev",
                "tests/limits_test.py")
SOURCES = ("ap/", "platform/")
# Between two words: white space, with the marker of a comment or of a test's name.
GAP = r"(?:[\s_#]|//)+"


@dataclass(frozen=True)
class Limit:
    """A constant, its value as the code writes it, and a pattern of the texts that state it."""

    constant: str
    value: str
    stated: str

    def pattern(self) -> re.Pattern[str]:
        return re.compile(rf"(?<![a-z0-9])(?:{self.stated})(?![a-z0-9])".replace(" ", GAP),
                          re.IGNORECASE)


LIMITS = (
    Limit("kMaxLogRecords", "20",
          r"(?:20|twenty)(?: log| newer| older)? (?:logs?|records)|newest 20|past 20"
          r"|(?:MOST|FULL)_LOGS = 20"),
    Limit("kMaxUploadPoints", "1000",
          r"(?:1,?000|(?:a )?thousand)(?: such)? points?|newest (?:1,?000|thousand)"
          r"|1,?000 younger|among the thousand|(?:MOST_POINTS|FULL|FULL_REQUEST) = 1000"),
    Limit("kMaxPointAge", "base::TimeDelta::FromMinutes(30)",
          r"(?:30|thirty) minutes|half an hour|(?:POINT_)?AGE = 30 \* 60"),
    Limit("kHttpTimeout", "base::TimeDelta::FromSeconds(10)",
          "(?:10|ten) seconds|ANSWER_(?:DEADLINE|SECONDS) = 10"),
    Limit("kRefreshInterval", "base::TimeDelta::FromSeconds(30)",
          "(?:30|thirty) seconds|half a minute|REFRESH_INTERVAL = 30"),
    Limit("kMaxLogMessageBytes", "8192", "8192"),
    Limit("kFatalLinePatience", "TimeDelta::FromSeconds(1)", "for one second"),
    Limit("kMaxFileBytes", "size_t{1024} * 1024",
          r"(?:larger than|at most|start \|) 1 MiB"),
    Limit("kMaxResponseBodyBytes", "size_t{1024} * 1024",
          r"first (?:1 )?(?:MiB|mebibyte)|1 MiB (?:is kept|of its body|that it keeps)"
          r"|which 1 MiB|answer takes 1 MiB|BODY_BYTES = 1024 \* 1024"),
    Limit("kMaxResponseHeaderBytes", "size_t{256} * 1024", r"256 KiB|HEAD_BYTES = 256 \* 1024"),
)


@cache
def texts() -> dict[str, str]:
    listed = subprocess.run(["git", "grep", "-lI", ""], cwd=ROOT, capture_output=True, text=True,
                            check=True).stdout.splitlines()
    return {name: (ROOT / name).read_text() for name in listed
            if not name.startswith(NOT_SEARCHED)}


def places(pattern: re.Pattern[str], folders: tuple[str, ...] = ("",)) -> Iterator[
        tuple[str, re.Match[str]]]:
    """Each match, with its file and line."""
    for name, text in texts().items():
        for match in pattern.finditer(text) if name.startswith(folders) else ():
            line = text[:match.start()].count("\n") + 1
            yield f"{name}:{line}", match


def faults(limit: Limit) -> str:
    """The lines to change when the code has another value; empty when nothing is wrong."""
    [(place, found)] = places(re.compile(rf"\b{limit.constant} = ([^;]+);"), SOURCES)
    stated = {where: " ".join(match[0].split()) for where, match in places(limit.pattern())}
    stated.pop(place, None)
    if found[1] != limit.value:
        return "\n".join([f"{place}: {limit.constant} is {found[1]}; still stated as "
                          f"{limit.value} in tests/limits_test.py and here:",
                          *(f"  {where}: {text}" for where, text in stated.items())])
    if not any(where.startswith(OPERATIONS) for where in stated):
        return f"{OPERATIONS} does not state {limit.constant}, {limit.value}"
    return ""


@pytest.mark.parametrize("limit", LIMITS, ids=lambda limit: limit.constant)
def test_a_limit_is_stated_as_the_code_has_it(limit: Limit) -> None:
    if found := faults(limit):
        pytest.fail(found, pytrace=False)


def test_a_changed_limit_is_reported_with_every_line_that_states_the_old_value() -> None:
    stale = Limit("kMaxResponseHeaderBytes", "size_t{128} * 1024", "256 KiB|512 KiB")
    first, *others = faults(stale).splitlines()
    assert re.fullmatch(r"platform/kestle/http/curl_transfer\.h:\d+: kMaxResponseHeaderBytes is "
                        r"size_t\{256\} \* 1024; still stated as size_t\{128\} \* 1024 in "
                        r"tests/limits_test\.py and here:", first)
    assert any(re.fullmatch(r"  docs/operations\.md:\d+: 256 KiB", line) for line in others)


def test_a_limit_that_the_operations_page_does_not_state_is_reported() -> None:
    assert faults(Limit("kMaxLogMessageBytes", "8192", "8193")) == (
        "docs/operations.md does not state kMaxLogMessageBytes, 8192")


def test_a_statement_is_found_across_lines_comments_and_names_of_tests() -> None:
    pattern = LIMITS[0].pattern()
    for text in ("the newest\n20", "// the newest\n// 20", "more_than_twenty_records_are"):
        assert pattern.search(text), text
    assert not pattern.search("newest 200")
