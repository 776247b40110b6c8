"""Runs the examples of docs/lab.md."""

import inspect
import json
import re
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

from lab.common.tree import ROOT
from lab.console.__main__ import _arguments
from lab.console.controls import CONTROLS
from lab.console.fields import read_all

GUIDE = (ROOT / "docs/lab.md").read_text()
EXAMPLES = re.findall(r"```python\n(.*?)```", GUIDE, re.DOTALL)


def names_in(example: str) -> list[str]:
    return re.findall(r"^def (test_\w+)", example, re.MULTILINE)


def test_there_are_three_examples() -> None:
    assert [len(names_in(example)) for example in EXAMPLES] == [1, 1, 1]


@pytest.mark.parametrize("example", EXAMPLES, ids=lambda example: names_in(example)[0])
def test_an_example_passes(example: str, tmp_path: Path) -> None:
    scope: dict[str, Any] = {}
    exec(compile(example, "docs/lab.md", "exec"), scope)
    test = scope[names_in(example)[0]]
    given = {"tmp_path": tmp_path} if inspect.signature(test).parameters else {}
    test(**given)


def test_an_example_with_a_wrong_assertion_fails(tmp_path: Path) -> None:
    wrong = EXAMPLES[1].replace('"12"\n', '"13"\n')
    assert wrong != EXAMPLES[1]
    with pytest.raises(AssertionError):
        test_an_example_passes(wrong, tmp_path)


def test_the_script_uses_an_existing_control() -> None:
    body, control = re.findall(r"curl --json '(.*?)' .*?/api/controls/(\w+)", GUIDE, re.DOTALL)[0]
    assert read_all(CONTROLS[control].fields, json.loads(body))["status"] == 503


def test_the_commands_exist() -> None:
    help_text = subprocess.run([sys.executable, "-m", "lab.console", "--help"], cwd=ROOT, text=True,
                               capture_output=True, check=True).stdout
    commands = re.findall(r"^\./dev lab((?:.*\\\n)*.*)", GUIDE, re.MULTILINE)
    used = [re.findall(r"(?<!\S)--[a-z-]+", command.split("#")[0]) for command in commands]
    assert ["--log", "--provisioned"] in used and any("--client-id" in options for options in used)
    for option in {option for options in used for option in options} | {"--port"}:
        assert option in help_text, option
    assert _arguments([]).port == 8088
