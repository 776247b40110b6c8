"""Documents and code agree."""

import re
import subprocess
from collections.abc import Iterator
from functools import cache
from pathlib import Path

import pytest

from lab.common.tree import ROOT

PAGES = sorted([*ROOT.glob("*.md"), *(ROOT / "docs").glob("*.md"), *(ROOT / "lab").glob("*.md")])
OPERATIONS = (ROOT / "docs/operations.md").read_text()
LOG_MESSAGES = (ROOT / "docs/log-messages.md").read_text()
GENERATOR = "dbus/generator/generate_docs.py"

CODE_BLOCK = re.compile(r"^```.*?^```", re.MULTILINE | re.DOTALL)
LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
TOKEN = re.compile(r'"(?:\\.|[^"\\\n])*"|//[^\n]*|\'(?:\\.|[^\'\\\n])\'')
LOG_START = re.compile(r"\b(?:LOG\((\w+)\)|CHECK\()")
LITERAL = re.compile(r'"((?:\\.|[^"\\])*)"')


def test_the_dbus_page_matches_the_interface_descriptions(tmp_path: Path) -> None:
    page = tmp_path / "dbus-api.md"
    subprocess.run(["/usr/bin/python3", ROOT / GENERATOR, "--output", page], check=True)
    is_fresh = page.read_text() == (ROOT / "docs/dbus-api.md").read_text()
    assert is_fresh, f"docs/dbus-api.md is older than the comments in dbus/*.xml; run {GENERATOR}"


# Links.

def anchors(page: Path) -> set[str]:
    headings = re.findall(r"^#+ +(.*)$", CODE_BLOCK.sub("", page.read_text()), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")
            for heading in headings}


@pytest.mark.parametrize("page", PAGES, ids=lambda page: str(page.relative_to(ROOT)))
def test_every_link_has_a_target(page: Path) -> None:
    for link in LINK.findall(CODE_BLOCK.sub("", page.read_text())):
        if re.match(r"[a-z]+:", link):
            continue
        path, _, anchor = link.partition("#")
        target = page.parent / path if path else page
        assert target.exists(), f"{page.relative_to(ROOT)}: {link}"
        if anchor:
            assert anchor in anchors(target), f"{page.relative_to(ROOT)}: {link}"


def test_every_page_of_the_docs_is_linked_from_another() -> None:
    linked = {(page.parent / link.split("#")[0]).resolve() for page in PAGES
              for link in LINK.findall(page.read_text()) if not re.match(r"[a-z]+:", link)}
    for page in (ROOT / "docs").glob("*.md"):
        assert page.resolve() in linked, page.name


# Log lines.

def sources() -> list[Path]:
    """The sources of the daemon and of the platform, and the templates of the bindings."""
    found = [path for folder in ("ap", "platform") for path in sorted((ROOT / folder).rglob("*.*"))
             if path.suffix in (".cc", ".h") and "testing" not in path.parts
             and not path.name.endswith("_test.cc")]
    return found + sorted((ROOT / "dbus/generator/templates").glob("*.j2"))


def statement(text: str, start: int) -> tuple[str, str]:
    """The arguments in the next parentheses, and the text after them up to the ";"."""
    depth, at, close = 0, text.index("(", start), 0
    while text[at] != ";" or depth:
        literal = TOKEN.match(text, at)
        if literal:
            at = literal.end()
            continue
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        if text[at] == ")" and not depth and not close:
            close = at
        at += 1
    return text[text.index("(", start) + 1:close], text[close + 1:at]


def joined_literals(message: str) -> list[str]:
    """The texts that a statement streams, adjacent literals joined."""
    joined = re.sub(r'"\s*"', "", message)
    return [literal.replace('\\"', '"') for literal in LITERAL.findall(joined)]


def logged() -> Iterator[tuple[str, str]]:
    """The place of each log statement with each of its literal texts; for a CHECK of the daemon
    without a message, its condition, which it logs."""
    for path in sources():
        if path.name == "logging.h":
            continue
        text = path.read_text()
        for match in LOG_START.finditer(text):
            if text[text.rfind("\n", 0, match.start()) + 1:match.start()].lstrip().startswith("//"):
                continue
            condition, message = statement(text, match.start())
            place = f"{path.relative_to(ROOT)}:{text[:match.start()].count(chr(10)) + 1}"
            literals = joined_literals(message)
            if match[1]:
                # The text of a handler's failure is an argument of `GetHandler`.
                literals = literals or re.findall(r'GetHandler\(\s*"([^"]*)"', all_sources())
            elif not literals and path.is_relative_to(ROOT / "ap"):
                literals = [" ".join(condition.split())]
            for literal in literals:
                if re.search(r"\w{2}", literal):
                    yield place, literal.strip()


def all_sources() -> str:
    return "\n".join(path.read_text() for path in sources())


def test_the_texts_of_log_lines_are_found() -> None:
    texts = {text for _, text in logged()}
    assert len(texts) > 60
    assert {"Starting pelmor daemon", "Error uploading metrics:", "Unable to load lsb-release",
            "network_time_callback_.is_null()", "Pelmor.Manager.RegisterAsync() failed.",
            "No metrics will be sent: STATSD_HOST and STATSD_PORT must be an address and a port "
            "number, not '"} <= texts


def test_every_log_line_is_explained() -> None:
    page = " ".join(LOG_MESSAGES.replace("\\|", "|").split())
    missing = [f"{place}: {text}" for place, text in logged() if text not in page]
    assert not missing, "docs/log-messages.md does not explain:\n" + "\n".join(missing)


def test_the_page_of_log_lines_has_no_links_because_it_is_installed_alone() -> None:
    assert LINK.findall(LOG_MESSAGES) == []


def test_every_explained_log_line_exists() -> None:
    code = " ".join(re.sub(r'"\s*"', "", all_sources()).replace('\\"', '"').split())
    rows = re.findall(r"^\| (?:INFO|WARNING|ERROR|FATAL) \| `(.+?)` \|", LOG_MESSAGES, re.MULTILINE)
    assert len(rows) > 25
    assert [row for row in rows for part in row.replace("\\|", "|").removeprefix(
        "Check failed: ").split("…") if part.strip() not in code] == []


# Its configuration, files and metrics.

def unexplained(names: set[str]) -> list[str]:
    """Those that docs/operations.md does not have."""
    return sorted(name for name in names if f"`{name}`" not in OPERATIONS)


def test_every_configuration_key_and_file_is_explained() -> None:
    configuration = (ROOT / "ap/common/configuration.h").read_text()
    keys = set(re.findall(r'"(PELMOR_\w+)"', configuration))
    places = set(re.findall(r'"(/(?:etc|var|tmp)/[\w./-]+)"', all_sources()))
    assert len(keys) == 5 and len(places) >= 4
    assert unexplained(keys | places) == []


def test_every_self_metric_is_explained() -> None:
    names = set(re.findall(r'"(AccessPoint\.\w+\.\w+)"', all_sources()))
    assert len(names) == 6
    assert unexplained(names) == []


# Security.

@cache
def names_of_tests() -> set[str]:
    cases = re.compile(r"^TEST(?:_[FP])?\((\w+), (\w+)\)", re.MULTILINE)
    units = {f"{suite}.{name}" for folder in ("ap", "client", "dbus", "pelmorctl", "platform")
             for path in (ROOT / folder).rglob("*_test.cc") for suite, name in
             cases.findall(path.read_text())}
    return units.union(*(re.findall(r"^def (test_\w+)\(", path.read_text(), re.MULTILINE)
                         for path in (ROOT / "tests").rglob("*_test.py")))


def test_each_security_rule_names_existing_tests() -> None:
    page = (ROOT / "docs/security.md").read_text()
    rows = re.findall(r"^\| (.+) \| (.+) \|$", page[page.index("| rule | tests |"):],
                      re.MULTILINE)[1:]
    assert len(rows) > 20
    known = names_of_tests()
    for rule, held_by in rows:
        named = re.findall(r"`([^`]+)`", held_by)
        assert named, rule
        assert set(named) <= known, rule


# Evidence.

def numbers(prefix: str, last: int) -> list[str]:
    return [f"{prefix}-{number}" for number in range(1, last + 1)]


REQUIREMENTS = [
    "I (1)", *(f"I (2)({letter})" for letter in "abcdefghijklm"),
    *(f"II ({number})" for number in range(1, 9)),
    *numbers("ACM", 2), *numbers("AUM-1", 2), "AUM-2", "AUM-3", "AUM-4", *numbers("AUM-5", 2),
    "AUM-6", *numbers("SUM", 3), *numbers("SSM", 3),
    *numbers("SCM", 4), "RLM-1", "NMM-1", "TCM-1", *numbers("CCK", 3), *numbers("GEC", 6), "CRY-1"]


def requirements(page: str) -> list[list[str]]:
    """The cells of each row of a requirement: number, requirement, daemon, documents, tests."""
    rows = [line.strip("| ").split(" | ") for line in page.splitlines()
            if re.match(r"\| (?:II? \(|[A-Z]{3}-)", line)]
    assert all(len(row) == 5 for row in rows)
    return rows


EVIDENCE = requirements((ROOT / "docs/evidence.md").read_text())


def test_every_requirement_has_one_row() -> None:
    assert [row[0] for row in EVIDENCE] == REQUIREMENTS


@pytest.mark.parametrize("row", EVIDENCE, ids=lambda row: row[0])
def test_each_requirement_names_a_document_and_existing_tests_or_the_integrator(
        row: list[str]) -> None:
    _, _, daemon, documents, tests = row
    assert LINK.search(documents)
    named = re.findall(r"`([^`]+)`", tests)
    # The commands exist by another test.
    assert {name for name in named if not name.startswith("./dev ")} <= names_of_tests()
    assert named or (tests == "integrator" and "integrator: " in daemon)


# The security policy.

def test_the_support_period_is_stated_once() -> None:
    stated = [page.name for page in PAGES for line in page.read_text().splitlines()
              if line.startswith("Support period: ")]
    assert stated == ["SECURITY.md"]
    others = [page.name for page in PAGES if page.name not in {"SECURITY.md", "CHANGELOG.md"}
              and re.search(r"support[^.]*\b\d+ (?:months|years)", page.read_text())]
    assert others == []


def test_the_security_policy_has_every_part() -> None:
    assert {"report-a-vulnerability", "supported-versions", "how-fixes-are-announced",
            "threat-model"} <= anchors(ROOT / "SECURITY.md")


def test_the_advisory_template_has_every_field_that_an_advisory_needs() -> None:
    template = (ROOT / "docs/advisory-template.md").read_text()
    for field in ("Identifier", "Affected versions", "Fixed in", "Severity", "Exploited"):
        assert f"| {field} | <" in template
    for part in ("Effect", "What to do", "Workaround", "How to detect it", "Cause and fix"):
        assert f"\n## {part}\n\n<" in template


# Releases.

def test_the_changelog_has_the_version_that_is_built() -> None:
    version = re.search(r"^project\(.* VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text(),
                        re.MULTILINE)
    changelog = (ROOT / "CHANGELOG.md").read_text()
    assert version and re.search(rf"^## \[{re.escape(version[1])}\]", changelog, re.MULTILINE)
    for heading in re.findall(r"^### (.*)$", changelog, re.MULTILINE):
        assert heading in {"Added", "Changed", "Deprecated", "Removed", "Fixed", "Security"}


# A device's own platform.

def test_the_headers_that_a_platform_must_provide_are_listed() -> None:
    users = [*(ROOT / "ap").rglob("*.cc"), *(ROOT / "ap").rglob("*.h"),
             *(ROOT / "dbus/generator/templates").glob("*.j2"),
             *(ROOT / "dbus/generator").glob("[cg]*.py")]
    text = "\n".join(path.read_text() for path in users if "testing" not in path.parts
                     and not path.name.endswith(("_test.cc", "_test.py")))
    needed = set(re.findall(r'"((?:base|dbus|kestle|metrics)/[\w/]+\.h)"', text))
    page = (ROOT / "docs/architecture.md").read_text()
    listed = page[page.index("They must provide"):page.index("- the CMake targets")]
    assert set(re.findall(r"`([\w/]+\.h)`", listed)) == needed


def test_the_targets_that_a_platform_must_provide_are_listed() -> None:
    linked = "\n".join((ROOT / path / "CMakeLists.txt").read_text()
                       for path in ("ap/common", "ap/pelmor", "dbus"))
    needed = {target for line in re.findall(r"target_link_libraries\((.*?)\)", linked, re.DOTALL)
              for target in re.findall(r"\b(?:base|dbus|kestle\w*|metrics)\b(?!_)", line)}
    page = (ROOT / "docs/architecture.md").read_text()
    listed = page[page.index("- the CMake targets"):page.index("In `CMakeLists.txt`")]
    assert set(re.findall(r"`([a-z_]+)`", listed)) == needed
