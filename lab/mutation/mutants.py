"""The mutants of a C++ source: each differs from it by one small change."""

import re
from collections.abc import Iterator
from dataclasses import dataclass

# Replacements: limits of comparisons, conditions, operators and truth values.
_SWAPS = (
    (re.compile(r" == "), " != "), (re.compile(r" != "), " == "),
    (re.compile(r" < "), " <= "), (re.compile(r" <= "), " < "),
    (re.compile(r" > "), " >= "), (re.compile(r" >= "), " > "),
    (re.compile(r" && "), " || "), (re.compile(r" \|\| "), " && "),
    (re.compile(r" \+ "), " - "), (re.compile(r" - "), " + "),
    (re.compile(r"(?<![\w)\]])!(?=[\w(])"), ""),
    (re.compile(r"\btrue\b"), "false"), (re.compile(r"\bfalse\b"), "true"),
)
_NUMBER = re.compile(r"(?<![\w.'])\d+(?![\w.'])")
# A call or an assignment on one line.
_STATEMENT = re.compile(r"^\s+(?!return\b|const\b|auto\b|delete\b|using\b)[\w:*]+"
                        r"(?:[\w:.>\-\[\]]*\(.*\)(?: << .*)?| [-+]?= .*);$")
_IS_START = re.compile(r"(?:[{};]|\)|:|\belse)\s*$")
_TEXT_OR_COMMENT = re.compile(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'|//.*$')


@dataclass(frozen=True)
class Mutant:
    """A line, numbered from 1, and its replacement."""

    path: str
    line: int
    old: str
    new: str

    def apply(self, text: str) -> str:
        lines = text.split("\n")
        assert lines[self.line - 1] == self.old, self
        lines[self.line - 1] = self.new
        return "\n".join(lines)

    def __str__(self) -> str:
        return f"{self.path}:{self.line}: {self.old.strip()}  ->  {self.new.strip() or '(nothing)'}"


def mutants(path: str, text: str) -> Iterator[Mutant]:
    before = ""
    for number, line in enumerate(text.split("\n"), 1):
        # Blanked, so that columns stay the same.
        code = _TEXT_OR_COMMENT.sub(lambda found: " " * len(found[0]), line)
        if code.strip() and not code.startswith("#"):
            for new in _changed(line, code, before):
                yield Mutant(path, number, line, new)
            before = code


def _changed(line: str, code: str, before: str) -> Iterator[str]:
    for pattern, new in _SWAPS:
        for found in pattern.finditer(code):
            yield line[:found.start()] + new + line[found.end():]
    for found in _NUMBER.finditer(code):
        yield line[:found.start()] + str(int(found[0]) + 1) + line[found.end():]
    whole = _STATEMENT.match(code) and code.count("(") == code.count(")")
    if whole and (not before or _IS_START.search(before)):
        # An empty statement, since one may be required.
        yield line[:len(line) - len(line.lstrip())] + ";"
