"""A copy of the tree in which mutants are built and tried, one after the other."""

import os
import shutil
import subprocess
from enum import Enum
from pathlib import Path

from tests.mutation.mutants import Mutant

_TARGETS = ("ap_common_test", "ap_pelmor_test", "ap-pelmor")
_UNIT_TESTS = ("ap/common/ap_common_test", "ap/pelmor/ap_pelmor_test")
# Of what is not built here, or of the lab itself.
_NOT_OF_THE_DAEMON = ("demo", "examples", "lab", "man_examples", "pelmorctl", "soak_faults")
# Longer than each takes unbroken: a mutant that hangs is found out too.
_UNIT_SECONDS = 60
_DEVICE_SECONDS = 300


class Fate(Enum):
    NOT_BUILT = "does not compile"
    UNIT = "killed by unit tests"
    DEVICE = "killed by device tests"
    SURVIVED = "survived"


class Workshop:
    def __init__(self, root: Path, place: Path) -> None:
        """Copies what git knows of `root` to `place`, and builds it there."""
        self._place = place
        self._build = place / "build/debug"
        shutil.rmtree(place, ignore_errors=True)
        known = subprocess.run(["git", "ls-files"], cwd=root, capture_output=True, text=True,
                               check=True).stdout.splitlines()
        for name in known:
            (place / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(root / name, place / name)
        self._run("cmake", "--preset", "debug")
        self._make()
        if not (self._units_pass() and self._devices_pass()):
            raise RuntimeError("The tests fail before anything is broken")

    def try_out(self, mutant: Mutant) -> Fate:
        source = self._place / mutant.path
        text = source.read_text()
        source.write_text(mutant.apply(text))
        try:
            if not self._make():
                return Fate.NOT_BUILT
            if not self._units_pass():
                return Fate.UNIT
            return Fate.SURVIVED if self._devices_pass() else Fate.DEVICE
        finally:
            source.write_text(text)

    def _make(self) -> bool:
        return self._run("ninja", "-C", str(self._build), *_TARGETS)

    def _units_pass(self) -> bool:
        return all(self._run(str(self._build / test), "--gtest_fail_fast", seconds=_UNIT_SECONDS)
                   for test in _UNIT_TESTS)

    def _devices_pass(self) -> bool:
        os.environ["PELMOR_DAEMON"] = str(self._build / "ap/pelmor/ap-pelmor")
        left_out = (f"--ignore=tests/device/{name}_test.py" for name in _NOT_OF_THE_DAEMON)
        return self._run("/usr/bin/python3", "-m", "pytest", "-x", "-q", "-n4", "-p",
                         "no:cacheprovider", "tests/device", *left_out, seconds=_DEVICE_SECONDS)

    def _run(self, *command: str, seconds: float | None = None) -> bool:
        try:
            return subprocess.run(command, cwd=self._place, capture_output=True, timeout=seconds,
                                  check=False).returncode == 0
        except subprocess.TimeoutExpired:
            return False
