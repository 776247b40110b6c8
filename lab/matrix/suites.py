"""The commands that build a row and run its suites, as they are run in the tree's root."""

from collections.abc import Mapping
from dataclasses import dataclass, field

from lab.matrix.rows import BOOT, DEMO, DEVICE, UNIT, Row

_WARNINGS_ARE_ERRORS = "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON"
PYTHON = "/usr/bin/python3"
# Within the tree; a suite that writes none counts as one test.
REPORTS = {UNIT: "build/unit.xml", DEVICE: "build/device.xml"}
# What the device tests run in a device.
_PROGRAMS = ("ap-pelmor", "pelmorctl", "record-cc", "record-c")


@dataclass(frozen=True)
class Command:
    argv: tuple[str, ...]
    environment: Mapping[str, str] = field(default_factory=dict)
    # Booting a device takes the whole machine, and a root of its own.
    on_the_machine: bool = False


def build(row: Row, jobs: int) -> list[Command]:
    """What must be built for the row's suites."""
    options = () if row.compiler == "g++" else (f"-DCMAKE_CXX_COMPILER={row.compiler}",)
    commands = []
    for preset in _presets(row):
        targets = () if UNIT in row.suites else ("--target", *_PROGRAMS)
        commands += [Command(("cmake", "--preset", preset, _WARNINGS_ARE_ERRORS, *options)),
                     Command(("cmake", "--build", "--preset", preset, "-j", str(jobs), *targets))]
    if BOOT in row.suites:
        commands.append(Command(("packaging/build",)))
    return commands


def _presets(row: Row) -> list[str]:
    if row.architecture:
        return [row.architecture]
    return [preset for preset, suites in (("debug", {UNIT}), ("release", {DEVICE, DEMO}))
            if suites & set(row.suites)]


def _bus_tests(row: Row) -> tuple[str, ...]:
    """Those of the package's policy, on the buses of the row; an emulated one has the machine's."""
    return () if row.architecture else ("tests/bus_policy_test.py",)


def run(row: Row, suite: str, jobs: int) -> Command:
    """What runs a suite of the row; it exits with 77 where it can't be run."""
    daemon = f"build/{row.architecture or 'release'}/ap/pelmor/ap-pelmor"
    if suite == UNIT:
        return Command(("ctest", "--preset", row.architecture or "debug", "-j", str(jobs),
                        "--output-junit", f"../../{REPORTS[UNIT]}"), row.environment)
    if suite == DEVICE:
        # Tests across processes wait more than they work.
        return Command((PYTHON, "-m", "pytest", "-q", "-p", "no:cacheprovider", "-n", str(4 * jobs),
                        "--dist", "loadgroup", f"--junitxml={REPORTS[DEVICE]}", "tests/device",
                        *_bus_tests(row)),
                       {**row.environment, "PELMOR_DAEMON": daemon})
    if suite == DEMO:
        return Command((PYTHON, "-m", "lab.device.demo", "--daemon", daemon), row.environment)
    return Command(("tests/boot/run", "build/package"), row.environment, on_the_machine=True)
