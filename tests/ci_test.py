"""The steps of continuous integration, and their results."""

import re
import shutil
import subprocess
from pathlib import Path

import pytest

from lab.common.tree import ROOT

STEPS = ["test", "test asan unit", "lint all", "fuzz all 10", "package check", "evidence",
         "matrix debian-13:unit,device armhf:device", "boot-test"]
# Those from here on need root and a mirror.
FIRST_OPTIONAL = STEPS.index("evidence")


def run_with(folder: Path, codes: dict[str, int]) -> subprocess.CompletedProcess[str]:
    """Runs it with a fake ./dev whose commands exit with these codes, by default 0."""
    shutil.copytree(ROOT / ".ci", folder / ".ci")
    cases = "".join(f'"{command}") exit {code} ;; ' for command, code in codes.items())
    (folder / "dev").write_text(f'#!/bin/sh\ncase "$*" in {cases} *) exit 0 ;; esac\n')
    (folder / "dev").chmod(0o755)
    return subprocess.run([folder / ".ci/run"], capture_output=True, text=True, check=False)


def summary(output: str) -> list[tuple[str, str]]:
    """The command of each step, with its result."""
    return [(command, result) for result, command in
            re.findall(r"^ *\d+:\d\d  (passed|failed|not run) +\./dev (.*)$", output, re.MULTILINE)]


def test_each_step_is_listed_with_its_time(tmp_path: Path) -> None:
    ran = run_with(tmp_path, {})
    assert ran.returncode == 0
    assert summary(ran.stdout) == [(step, "passed") for step in STEPS]


@pytest.mark.parametrize("step", STEPS)
def test_a_failed_step_is_the_last(tmp_path: Path, step: str) -> None:
    ran = run_with(tmp_path, {step: 1})
    assert ran.returncode == 1
    assert summary(ran.stdout) == [*((passed, "passed") for passed in STEPS[:STEPS.index(step)]),
                                   (step, "failed")]


def test_a_step_that_cannot_run_here_is_not_a_failure(tmp_path: Path) -> None:
    ran = run_with(tmp_path, {step: 77 for step in STEPS[FIRST_OPTIONAL:]})
    assert ran.returncode == 0
    assert summary(ran.stdout)[FIRST_OPTIONAL:] == [
        (step, "not run") for step in STEPS[FIRST_OPTIONAL:]]


def test_a_test_step_that_cannot_run_is_a_failure(tmp_path: Path) -> None:
    assert run_with(tmp_path, {"test": 77}).returncode == 77
