"""What no linter checks of the sources: lengths, and that an exception states its reason."""

import ast
import re
import subprocess
from collections.abc import Iterator

from lab.common.tree import ROOT

MOST_HEADER_LINES = 150
MOST_SOURCE_LINES = 400
MOST_FUNCTION_LINES = 40


def sources(*patterns: str) -> Iterator[tuple[str, str]]:
    """The path and the text of each of our files."""
    listed = subprocess.run(
        ["git", "ls-files", "-co", "--exclude-standard", *patterns, ":!third_party"], cwd=ROOT,
        capture_output=True, text=True, check=True).stdout.split()
    for path in listed:
        if (ROOT / path).is_file():
            yield path, (ROOT / path).read_text()


def longer(most: int, *patterns: str) -> list[str]:
    return [f"{path}: {text.count(chr(10))} lines" for path, text in sources(*patterns)
            if text.count("\n") > most]


def test_no_header_is_too_long() -> None:
    # The interface of the client library, most of which is its documentation.
    assert longer(MOST_HEADER_LINES, "*.h", ":!client/pelmor/client.h") == []


def test_no_source_is_too_long() -> None:
    assert longer(MOST_SOURCE_LINES, "*.cc", "*.c", "*.py", "*.js") == []


def functions(text: str) -> Iterator[tuple[str, int]]:
    """The name and the number of lines of each function of a Python source."""
    for node in ast.walk(ast.parse(text)):
        if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
            yield node.name, (node.end_lineno or 0) - node.lineno + 1


def test_no_python_function_is_too_long() -> None:
    assert [f"{path}: {name} has {lines} lines" for path, text in sources("*.py")
            for name, lines in functions(text) if lines > MOST_FUNCTION_LINES] == []


# What a comment tells a linter to overlook, and the reason behind it. An end needs none.
EXCEPTION = re.compile(
    r"(?P<what>(?://|#) *(?:NOLINT(?:NEXTLINE|BEGIN)?(?:\([^)]*\))?|"
    r"cppcheck-suppress(?:\[[\w, ]+\]| \w+)|"
    r"noqa(?:: *[A-Z]\d+(?:, *[A-Z]\d+)*)?|type: ignore(?:\[[\w, -]+\])?|"
    r"shellcheck disable=[\w,]+))(?P<reason>.*)")


def without_reason(text: str) -> list[str]:
    return [match["what"] for match in EXCEPTION.finditer(text)
            if not re.search(r"\w{2}", match["reason"])]


def test_an_exception_to_a_lint_rule_states_its_reason() -> None:
    shell = ("dev", ".ci/run", "*.sh", "*.bash", "packaging/*", "tests/boot/run")
    assert [f"{path}: {what}" for path, text in sources("*.cc", "*.h", "*.c", "*.py", *shell)
            for what in without_reason(text)] == []


def test_a_missing_reason_is_found() -> None:
    assert without_reason("f();  // NOLINT" "(a-b)\ng();  # noqa" ": E402") == [
        "// NOLINT" "(a-b)", "# noqa" ": E402"]
    assert without_reason("f()  # noqa" "\ng()  # noqa" ": E1, F2\n// NOLINT" "(a-b, c-d)") == [
        "# noqa", "# noqa" ": E1, F2", "// NOLINT" "(a-b, c-d)"]
    assert without_reason("f();  // NOLINT" "(a-b): it converts silently.") == []
