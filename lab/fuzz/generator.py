"""Fuzzes the bindings generator with mutated interface descriptions.

    generator.py [-max_total_time=SECONDS] [-seed=N] [-artifact_prefix=PREFIX] FOLDER...

Each input gives either the same bindings twice, or an error that names the
file. The options and the report are those of the other targets. Given a file
instead of folders, runs that input alone.
"""

import contextlib
import functools
import hashlib
import io
import pathlib
import random
import re
import sys
import tempfile
import time
import traceback

import generate_bindings

from lab.common.tree import ROOT

_TOOL = ROOT / "dbus/generator"
_SOURCES = {str(path) for path in _TOOL.glob("*.py")}
# Parsing the templates takes a hundred times as long as one input.
generate_bindings._environment = functools.cache(generate_bindings._environment)

# Attribute values, and text between attributes.
_VALUES = [
    b"", b"a.b", b"a.b.C", b"/", b"/a/b", b"x", b"Name", b"GetObjectPath", b"class", b"int",
    b"x&#10;", b"\xc3\xa9", b"s", b"v", b"ay", b"a{sv}", b"a{s&#10;}", b"a{sa{sv}}", b"(ss)",
    b"in", b"out", b"read", b"readwrite", b"a{s" * 2000 + b"s" + b"}" * 2000]
_PIECES = [
    b"<", b">", b"/>", b'"', b"&lt;", b"&#0;", b"&#55296;", b"<!-- -->", b"<![CDATA[", b"]]>",
    b"&a;", b"<node>", b"</node>", b"<arg/>", b'<annotation name="x" value="y"/>',
    b'<arg name="z" type="s" direction="out"/>', b'<property name="P" type="v" access="read"/>',
    b'<method name="M"/>', b'<signal name="S"/>', b' xmlns="x"', b"n:", b"\0", b"\n"]
_PROLOGUES = [
    b'<?xml version="1.0" encoding="%s"?>' % encoding
    for encoding in (b"utf-8", b"utf-16", b"shift_jis", b"latin-1", b"none")
] + [b"<!DOCTYPE node [<!ENTITY a 'b'>]>", b"\xef\xbb\xbf", b"\xff\xfe"]
_ATTRIBUTE = re.compile(rb'"[^"]*"')
_MAX_BYTES = 20000


class Coverage:
    """The pairs of consecutive lines that the tool has executed."""

    def __init__(self):
        self.edges = set()

    def run(self, function):
        """Whether the function executed a new pair."""
        known, before = len(self.edges), [None]
        edges = self.edges

        def on_line(frame, event, _):
            here = (frame.f_code.co_name, frame.f_lineno)
            edges.add((before[0], here))
            before[0] = here
            return on_line

        def on_call(frame, *_):
            return on_line if frame.f_code.co_filename in _SOURCES else None

        sys.settrace(on_call)
        try:
            function()
        finally:
            sys.settrace(None)
        return len(edges) > known


def _generate(kind, folder, file):
    """The exit code, and the bindings or the error."""
    header, source = folder / "b.h", folder / "b.cc"
    arguments = [kind, "--header", str(header), "--source", str(source), "--include", "b.h"]
    if kind == "proxies":
        arguments += ["--service", "a.b", "--object-manager", "/a"]
    errors = io.StringIO()
    with contextlib.redirect_stderr(errors):
        code = generate_bindings.main([*arguments, str(file)])
    if code == 0:
        return code, header.read_bytes() + source.read_bytes()
    return code, errors.getvalue()


def _try(data, folder):
    file = folder / "input.xml"
    file.write_bytes(data)
    for kind in ("adaptor", "proxies"):
        code, result = _generate(kind, folder, file)
        assert (code, result) == _generate(kind, folder, file), "two runs differ"
        if code != 0:
            assert code == 1, f"exit code {code}"
            # One line, "error: FILE: FAULT".
            assert re.fullmatch(rf"error: {re.escape(str(file))}: \S[^\n]*\n", result), result


def _replace_attribute(data, dice):
    spans = [match.span() for match in _ATTRIBUTE.finditer(data)]
    start, end = dice.choice(spans or [(0, 0)])
    return data[:start] + b'"' + dice.choice(_VALUES) + b'"' + data[end:]


def _replace_span(data, others, dice):
    at, size = dice.randint(0, len(data)), dice.choice((0, 1, 8, 64))
    other, start = dice.choice(others), dice.randint(0, 500)
    piece = dice.choice((
        b"", dice.choice(_PIECES), bytes([dice.randrange(256)]), data[at:at + size] * 3,
        other[start:start + dice.choice((8, 64, 256))]))
    return data[:at] + piece + data[at + size:]


def _mutate(data, others, dice):
    for _ in range(dice.randint(1, 3)):
        kind = dice.randrange(8)
        if kind == 0:
            data = dice.choice(_PROLOGUES) + data
        elif kind < 5:
            data = _replace_attribute(data, dice)
        else:
            data = _replace_span(data, others, dice)
    return data[:_MAX_BYTES]


def _options(arguments):
    options = dict(a[1:].split("=", 1) for a in arguments if a.startswith("-"))
    return options, [pathlib.Path(a) for a in arguments if not a.startswith("-")]


def _fuzz(options, folders, scratch):
    corpus = [path.read_bytes() for folder in folders for path in sorted(folder.iterdir())]
    dice = random.Random(int(options.get("seed", 1)))
    coverage, executions, start = Coverage(), 0, time.monotonic()
    seconds = float(options.get("max_total_time", 30))
    waiting = list(corpus)
    while waiting or time.monotonic() - start < seconds:
        data = waiting.pop() if waiting else _mutate(dice.choice(corpus), corpus, dice)
        executions += 1
        try:
            is_new = coverage.run(lambda: _try(data, scratch))
        except Exception:  # pylint: disable=broad-except
            crash = options.get("artifact_prefix", "") + "crash-" + hashlib.sha1(data).hexdigest()
            pathlib.Path(crash).write_bytes(data)
            traceback.print_exc()
            print(f"Test unit written to {crash}")
            return 1
        if is_new:
            corpus.append(data)
            name = hashlib.sha1(data).hexdigest()
            (folders[0] / name).write_bytes(data)
    print(f"cov: {len(coverage.edges)} ft: {len(coverage.edges)} corp: {len(corpus)}")
    print(f"stat::number_of_executed_units: {executions}")
    print(f"stat::average_exec_per_sec: {executions / (time.monotonic() - start):.0f}")
    return 0


def main(arguments):
    options, paths = _options(arguments)
    with tempfile.TemporaryDirectory() as scratch:
        if paths[0].is_file():
            for path in paths:
                _try(path.read_bytes(), pathlib.Path(scratch))
            return 0
        return _fuzz(options, paths, pathlib.Path(scratch))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
