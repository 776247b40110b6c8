"""The lab with a daemon for another processor."""

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

from lab.common import architectures
from lab.common.errors import LabError
from lab.common.tree import ROOT
from lab.device import emulation

# A fake emulator that prints its environment and arguments.
EMULATOR = """\
#!/bin/sh
printf '%s\\n' "$LD_PRELOAD" "$@"
"""
LITTLE, BIG = 1, 2


def program_for(machine: int, order: int, path: Path) -> Path:
    """A file with only the header of an ELF file."""
    number = machine.to_bytes(2, "little" if order == LITTLE else "big")
    path.write_bytes(b"\x7fELF\2" + bytes([order]) + bytes(12) + number)
    return path


@pytest.mark.parametrize(("machine", "order", "name"), [
    (40, LITTLE, "armhf"), (183, LITTLE, "arm64"), (22, BIG, "s390x")])
def test_a_program_is_recognized_by_its_processor(
        tmp_path: Path, machine: int, order: int, name: str) -> None:
    found = architectures.of_program(program_for(machine, order, tmp_path / "program"))
    assert found == architectures.named(name)


@pytest.mark.parametrize("content", [b"", b"#!/bin/sh\n", b"\x7fELF\2\1", bytes(64)])
def test_a_file_of_another_kind_has_no_processor(tmp_path: Path, content: bytes) -> None:
    file = tmp_path / "file"
    file.write_bytes(content)
    assert architectures.of_program(file) is None


def test_a_native_program_is_started_directly() -> None:
    program = Path("/usr/bin/env")
    assert emulation.command(program, "/opt/program") == ["/opt/program"]
    assert emulation.threads_of_its_own(program) == 0
    binds = emulation.binds_of_programs({"/opt/program": program}, Path("/nonexistent"))
    assert binds == ["--ro-bind", "/usr/bin/env", "/opt/program"]


def test_without_the_libraries_of_its_processor_a_program_is_rejected(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("PELMOR_SYSROOT", str(tmp_path))
    with pytest.raises(LabError, match="packaging/cross/sysroot arm64 makes them"):
        emulation.compiler(architectures.named("arm64"))


def test_the_launcher_keeps_name_arguments_and_environment(tmp_path: Path) -> None:
    emulator, launcher = tmp_path / "emulator", tmp_path / "launcher"
    emulator.write_text(EMULATOR)
    emulator.chmod(0o755)
    subprocess.run(["gcc", "-std=c11", "-Wall", "-Wextra", "-Werror", "-static",
                    f'-DEMULATOR="{emulator}"', '-DLOADER="/lib/ld.so"', '-DLIBRARIES="/lib:/usr"',
                    '-DEMULATED_FOLDER="/emulated"', "-o", launcher, ROOT / "lab/device/emulate.c"],
                   check=True)
    run = subprocess.run(["/opt/ap/ap-pelmor", "--help", "two words", ""], executable=launcher,
                         capture_output=True, text=True, check=False,
                         env={"LD_PRELOAD": "/not/for/this.so"})
    assert run.stdout.splitlines()[1:] == [
        "/lib/ld.so", "--library-path", "/lib:/usr", "--argv0", "/opt/ap/ap-pelmor",
        "/emulated/ap-pelmor", "--help", "two words", ""]
    assert run.stdout.splitlines()[0] == "/not/for/this.so"
    # At most one line, from the fake emulator's shell: the launcher itself preloads nothing.
    assert len(run.stderr.splitlines()) <= 1, run.stderr


# Deadlines.

@pytest.mark.parametrize(("factor", "scaled"), [("", 10.0), ("6", 60.0), ("0.1", 10.0)])
def test_deadlines_are_scaled_and_never_shortened(factor: str, scaled: float) -> None:
    environment = {name: value for name, value in os.environ.items()
                   if name != "PELMOR_DEADLINE_FACTOR"}
    if factor:
        environment["PELMOR_DEADLINE_FACTOR"] = factor
    run = subprocess.run(
        [sys.executable, "-c", "from lab.common import deadlines; print(deadlines.scaled(10))"],
        cwd=ROOT, env=environment, capture_output=True, text=True, check=True)
    assert float(run.stdout) == scaled


def test_the_deadline_factor_is_read_in_two_places_only() -> None:
    reads = re.compile(r'(?:environ\.get|environ\[|getenv)\W*"PELMOR_DEADLINE_FACTOR"')
    files = subprocess.run(["git", "ls-files", "*.py", "*.cc", "*.h", "*.c"], cwd=ROOT,
                           capture_output=True, text=True, check=True).stdout.split()
    assert [file for file in files if reads.search((ROOT / file).read_text())] == [
        "lab/common/deadlines.py", "platform/base/testing/run_until.cc"]
