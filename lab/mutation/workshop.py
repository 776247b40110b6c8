"""A copy of the tree in which mutants are built and tested one after the other."""

import os
import shutil
import signal
import subprocess
from enum import Enum
from pathlib import Path

from lab.mutation.mutants import Mutant

_TARGETS = ("ap_common_test", "ap_pelmor_test", "ap-pelmor")
_UNIT_TESTS = ("ap/common/ap_common_test", "ap/pelmor/ap_pelmor_test")
# Tests of targets that are not built here, and of the lab itself.
_NOT_OF_THE_DAEMON = ("demo", "examples", "lab", "man_examples", "pelmorctl", "soak_faults")
# Many times the usual duration; a mutant that hangs counts as killed.
_UNIT_SECONDS = 120
# For the model and device tests, which can be slow because of the machine: a mutant that exceeds
# this is undecided.
_DEVICE_SECONDS = 900


class Fate(Enum):
    NOT_BUILT = "does not compile"
    UNIT = "killed by unit tests"
    MODEL = "killed by the model"
    DEVICE = "killed by device tests"
    UNDECIDED = "not decided in time"
    SURVIVED = "survived"


class Workshop:
    def __init__(self, root: Path, place: Path) -> None:
        """Copies the files of `root` that git tracks to `place`, and builds them there."""
        self._place = place
        self._build = place / "build/debug"
        # The output of the last command.
        self._output = place / "build/output.txt"
        shutil.rmtree(place, ignore_errors=True)
        known = subprocess.run(["git", "ls-files"], cwd=root, capture_output=True, text=True,
                               check=True).stdout.splitlines()
        for name in known:
            (place / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(root / name, place / name)
        self._run("cmake", "--preset", "debug")
        self._make()
        fate = self._judged()
        if fate is not Fate.SURVIVED:
            raise RuntimeError(f"The unchanged tree is {fate.value}:\n"
                               + self._output.read_text(errors="replace"))

    def try_out(self, mutant: Mutant) -> Fate:
        source = self._place / mutant.path
        text = source.read_text()
        source.write_text(mutant.apply(text))
        try:
            return self._judged() if self._make() else Fate.NOT_BUILT
        finally:
            source.write_text(text)

    def _judged(self) -> Fate:
        """Runs the fastest tests first."""
        if not self._units_pass():
            return Fate.UNIT
        try:
            if not self._pytest_passes("tests/model"):
                return Fate.MODEL
            left_out = (f"--ignore=tests/device/{name}_test.py" for name in _NOT_OF_THE_DAEMON)
            if not self._pytest_passes("tests/device", *left_out):
                return Fate.DEVICE
        except subprocess.TimeoutExpired:
            return Fate.UNDECIDED
        return Fate.SURVIVED

    def _make(self) -> bool:
        return self._run("ninja", "-C", str(self._build), *_TARGETS)

    def _units_pass(self) -> bool:
        try:
            return all(self._run(str(self._build / test), "--gtest_fail_fast",
                                 seconds=_UNIT_SECONDS)
                       for test in _UNIT_TESTS)
        except subprocess.TimeoutExpired:
            return False

    def _pytest_passes(self, *tests: str) -> bool:
        return self._run("/usr/bin/python3", "-m", "pytest", "-x", "-q", "-n4", "-p",
                         "no:cacheprovider", *tests, seconds=_DEVICE_SECONDS)

    def _run(self, *command: str, seconds: float | None = None) -> bool:
        environment = {**os.environ, "PELMOR_MODEL_SHORTEST": "no",
                       "PELMOR_DAEMON": str(self._build / "ap/pelmor/ap-pelmor")}
        self._output.parent.mkdir(exist_ok=True)
        with self._output.open("wb") as output, \
                subprocess.Popen(command, cwd=self._place, env=environment, stdout=output,
                                 stderr=subprocess.STDOUT, start_new_session=True) as running:
            try:
                return running.wait(timeout=seconds) == 0
            except subprocess.TimeoutExpired:
                # Its children, too: they would disturb the tests of the next mutant.
                os.killpg(running.pid, signal.SIGKILL)
                raise
