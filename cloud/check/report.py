"""Results as text, as JSON and as JUnit's XML."""

import json
import re
import textwrap
from collections import Counter
from collections.abc import Iterable
from xml.etree import ElementTree

from cloud.check.rules import Rule
from cloud.check.run import Outcome, Result

_WIDTH = 100
_NAME_WIDTH = 25
_PROPERTIES = ("demand", "reason", "consequence", "remedy")
# What XML 1.0 cannot contain.
_NOT_XML = re.compile("[^\t\n\r\u0020-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")


def line(result: Result) -> str:
    """A result for people; a failure with the rule's explanation."""
    first = f"{result.outcome:<8} {result.rule.name:<{_NAME_WIDTH}}"
    if result.outcome == Outcome.PASSED:
        return first.rstrip()
    if result.outcome == Outcome.SKIPPED:
        return f"{first} {result.text}"
    rows = [("seen", result.text), *((name, getattr(result.rule, name)) for name in _PROPERTIES)]
    return "\n".join([first.rstrip(), *(_wrapped(f"{name}:", text) for name, text in rows)])


def _wrapped(label: str, text: str) -> str:
    return textwrap.fill(text, _WIDTH, initial_indent=f"         {label:<13}",
                         subsequent_indent=" " * 22)


def summary(results: list[Result], seconds: float) -> str:
    counted = Counter(result.outcome for result in results)
    return (f"{len(results)} rules: {counted[Outcome.PASSED]} passed, "
            f"{counted[Outcome.FAILED]} failed, {counted[Outcome.SKIPPED]} skipped, "
            f"in {seconds:.1f} s")


def as_json(results: list[Result]) -> str:
    return json.dumps({"rules": [
        {"name": result.rule.name, "section": result.rule.section, "outcome": result.outcome,
         "text": result.text, "seconds": round(result.seconds, 3)}
        | {name: getattr(result.rule, name) for name in _PROPERTIES} for result in results]},
        indent=1, ensure_ascii=False) + "\n"


def as_junit(results: list[Result], seconds: float) -> str:
    counted = Counter(result.outcome for result in results)
    suite = ElementTree.Element("testsuite", {
        "name": "pelmor-cloud-check", "tests": str(len(results)), "errors": "0",
        "failures": str(counted[Outcome.FAILED]), "skipped": str(counted[Outcome.SKIPPED]),
        "time": f"{seconds:.3f}"})
    for result in results:
        case = ElementTree.SubElement(suite, "testcase", {
            "classname": result.rule.section, "name": result.rule.name,
            "time": f"{result.seconds:.3f}"})
        text = _NOT_XML.sub("\ufffd", result.text)
        if result.outcome == Outcome.FAILED:
            failure = ElementTree.SubElement(case, "failure", {"message": text})
            failure.text = "\n".join(f"{name}: {getattr(result.rule, name)}"
                                     for name in _PROPERTIES)
        elif result.outcome == Outcome.SKIPPED:
            ElementTree.SubElement(case, "skipped", {"message": text})
    return ElementTree.tostring(suite, encoding="unicode", xml_declaration=True) + "\n"


def listing(rules: Iterable[Rule]) -> str:
    return "\n".join(f"{rule.name:<{_NAME_WIDTH}} {rule.demand}" for rule in rules)


def markdown(rules: Iterable[Rule]) -> str:
    """The tables of docs/cloud.md."""
    lines: list[str] = []
    section = ""
    for rule in rules:
        if rule.section != section:
            section = rule.section
            lines += ["", f"### {section}", "", "| rule | why | otherwise | remedy |",
                      "|---|---|---|---|"]
        lines.append(f"| `{rule.name}`: {rule.demand} | {rule.reason} | {rule.consequence} | "
                     f"{rule.remedy} |")
    return "\n".join(lines).strip()
