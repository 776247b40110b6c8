"""Parses the status line that the daemon publishes to its supervisor."""

import re

Value = int | bool | str
Status = dict[str, dict[str, Value]]

PREFIX = "STATUS="
_VALUE = r'-?\d+|[a-z]+|"[ -!#-\[\]-~]*"'
_SECTION = rf"[a-z_]+(?: [a-z_]+=(?:{_VALUE}))+"
_LINE = re.compile(rf"{_SECTION}(?:; {_SECTION})*")
_PART = re.compile(rf"(?P<section>[a-z_]+)(?= )|(?P<key>[a-z_]+)=(?P<value>{_VALUE})")
_WORDS = {"yes": True, "no": False}


def parse(line: str) -> Status:
    """By section and key; "yes" and "no" are booleans. Raises a `ValueError` when the line does not
    follow the grammar in ap-pelmor(8)."""
    if not _LINE.fullmatch(line):
        raise ValueError(f"no status: {line!r}")
    status: Status = {}
    for part in _PART.finditer(line):
        if part["section"]:
            section = status.setdefault(part["section"], {})
        else:
            section[part["key"]] = _value(part["value"])
    return status


def _value(text: str) -> Value:
    if re.fullmatch(r"-?\d+", text):
        return int(text)
    return _WORDS.get(text, text.strip('"'))
