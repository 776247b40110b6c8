#!/usr/bin/env python3
"""Writes the reference of D-Bus interfaces from the comments in their descriptions.

    generate_docs.py [--output FILE] [DESCRIPTION...]

By default, writes docs/dbus-api.md from this tree's descriptions. The comment at the top of a file
documents the interface, one before a method that method, and one before properties all of them up
to the next comment. A method's comment may end with lines "argument: text".
"""

import argparse
import dataclasses
import pathlib
import re
import sys
import textwrap
from xml.dom import Node, minidom
from xml.parsers.expat import ExpatError

ROOT = pathlib.Path(__file__).resolve().parents[2]
OUTPUT = ROOT / "docs/dbus-api.md"
COMMAND = "dbus/generator/generate_docs.py"

_BASIC = {"y": "byte", "b": "boolean", "n": "int16", "q": "uint16", "i": "int32", "u": "uint32",
          "x": "int64", "t": "uint64", "d": "double", "s": "string", "o": "object path",
          "g": "signature", "h": "file descriptor", "v": "variant"}
_ARGUMENT_LINE = re.compile(r" +(\w+): +(\S.*)")
_WIDTH = 100

_INTRODUCTION = f"""\
<!-- Generated from the comments in dbus/*.xml: change those, then run {COMMAND}. -->
# D-Bus API

All interfaces are on the system bus. Their descriptions are installed in
`/usr/share/dbus-1/interfaces`, that of the first one by the package libpelmor-client-dev.
"""


class DocsError(Exception):
    """The text is for the author of the description."""


@dataclasses.dataclass
class Member:
    """A method or a property, with its comment."""

    element: minidom.Element
    comment: str
    # False if the comment is shared with an earlier member.
    own_comment: bool

    @property
    def name(self):
        return self.element.getAttribute("name")


def default_descriptions():
    """The daemon's own interface first, then those that it calls."""
    found = (ROOT / "dbus").glob("*.xml")
    return sorted(found, key=lambda path: (".ap." not in path.name, path.name))


def render(paths):
    return "\n".join([_INTRODUCTION, *(_interface(path) for path in paths)])


def _interface(path):
    try:
        document = minidom.parse(str(path))
    except (OSError, ExpatError) as error:
        raise DocsError(f"{path}: {error}") from error
    node = document.documentElement
    interfaces = node.getElementsByTagName("interface")
    about = [_text(child) for child in document.childNodes if child.nodeType == Node.COMMENT_NODE]
    if len(interfaces) != 1 or len(about) != 1:
        raise DocsError(f"{path}: expected one interface and one comment above it")
    members = list(_members(interfaces[0], path))
    lines = [f"## {interfaces[0].getAttribute('name')}", "", _paragraphs(about[0]), ""]
    if node.hasAttribute("name"):
        lines += [f"Object: `{node.getAttribute('name')}`", ""]
    for member in members:
        if member.element.tagName == "method":
            lines += _method(member, path)
    lines += _properties([each for each in members if each.element.tagName == "property"])
    return "\n".join(lines)


def _members(interface, path):
    comment, own = "", False
    for child in interface.childNodes:
        if child.nodeType == Node.COMMENT_NODE:
            comment, own = _text(child), True
        elif child.nodeType == Node.ELEMENT_NODE:
            if not comment or (child.tagName != "property" and not own):
                raise DocsError(f"{path}: {child.getAttribute('name')}: no comment before it")
            yield Member(child, comment, own)
            own = False


def _method(method, path):
    arguments = method.element.getElementsByTagName("arg")
    text, about = _split(method.comment)
    unknown = set(about) - {each.getAttribute("name") for each in arguments}
    if unknown:
        raise DocsError(f"{path}: {method.name}: no argument {' or '.join(sorted(unknown))}")
    lines = [f"### {method.name}", "", _paragraphs(text), ""]
    if arguments:
        lines += ["| argument | | type | |", "|---|---|---|---|"]
    for each in arguments:
        name, signature = each.getAttribute("name"), each.getAttribute("type")
        lines.append(f"| `{name}` | {each.getAttribute('direction') or 'in'} | `{signature}`, "
                     f"{type_in_words(signature)} | {_cell(about.get(name, ''))} |")
    return lines + [""] if arguments else lines


def _properties(properties):
    if not properties:
        return []
    lines = ["### Properties", "", "| property | type | |", "|---|---|---|"]
    for each in properties:
        signature = each.element.getAttribute("type")
        # A shared comment is written once.
        about = _cell(each.comment) if each.own_comment else "〃"
        lines.append(f"| `{each.name}` | `{signature}`, {type_in_words(signature)} | {about} |")
    return lines + [""]


def _split(comment):
    """The text of a method's comment, and the texts on arguments from its last lines."""
    text, about, last = [], {}, None
    for line in comment.splitlines():
        match = _ARGUMENT_LINE.fullmatch(line)
        if match:
            last = match[1]
            about[last] = match[2]
        elif last and line.startswith(" "):
            about[last] += " " + line.strip()
        else:
            text.append(line)
    return "\n".join(text), about


def _text(comment):
    return textwrap.dedent(comment.data.strip("\n").rstrip()).strip()


def _paragraphs(text):
    return "\n\n".join(textwrap.fill(" ".join(_escaped(part).split()), _WIDTH)
                       for part in re.split(r"\n\s*\n", text))


def _cell(text):
    return _escaped(" ".join(text.split())).replace("|", r"\|")


def _escaped(text):
    return re.sub(r"([\\`*<\[])", r"\\\1", text)


def type_in_words(signature):
    words, rest = _first_type(signature)
    if rest:
        raise DocsError(f"'{signature}' is not one complete type")
    return words


def _first_type(signature):
    if not signature:
        raise DocsError("a type is missing")
    code, rest = signature[0], signature[1:]
    if code in _BASIC:
        return _BASIC[code], rest
    if signature.startswith("ay"):
        return "bytes", rest[1:]
    if signature.startswith("a{"):
        key, rest = _first_type(rest[1:])
        value, rest = _first_type(rest)
        return f"dictionary of {key} to {value}", _closed(rest, "}")
    if code == "a":
        item, rest = _first_type(rest)
        return f"array of {item}", rest
    if code == "(":
        fields = []
        while rest and not rest.startswith(")"):
            field, rest = _first_type(rest)
            fields.append(field)
        return f"structure of {', '.join(fields)}", _closed(rest, ")")
    raise DocsError(f"unknown type code '{code}'")


def _closed(rest, bracket):
    if not rest.startswith(bracket):
        raise DocsError(f"'{bracket}' is missing in a type")
    return rest[1:]


def main(arguments):
    parser = argparse.ArgumentParser(description="Writes the reference of D-Bus interfaces.")
    parser.add_argument("--output", type=pathlib.Path, default=OUTPUT, help="the page to write")
    parser.add_argument("descriptions", nargs="*", help="this tree's own by default")
    options = parser.parse_args(arguments)
    try:
        text = render(options.descriptions or default_descriptions())
    except DocsError as error:
        print(f"error: {error}", file=sys.stderr)
        return 1
    options.output.write_text(text, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
