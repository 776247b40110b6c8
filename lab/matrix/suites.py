"""The commands that build a row and run its suites, in the root of the tree."""

from collections.abc import Mapping
from dataclasses import dataclass, field

from lab.matrix.rows import BOOT, DEMO, DEVICE, UNIT, Row

_WARNINGS_ARE_ERRORS = "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON"
PYTHON = "/usr/bin/python3"
# Within the tree; a suite without a report counts as one test.
REPORTS = {UNIT: "build/unit.xml", DEVICE: "build/device.xml"}
# The programs that the device tests run.
_PROGRAMS = ("ap-pelmor", "pelmorctl", "record-cc", "record-c", "report-c", "reporter",
             "reporter-c")


@dataclass(frozen=True)
class Command:
    argv: tuple[str, ...]
    environment: Mapping[str, str] = field(default_factory=dict)
    # The boot test runs on the host and makes its own root.
    on_the_machine: bool = False


def build(row: Row, jobs: int) -> list[Command]:
    """The targets for the suites of the row."""
    options = () if row.compiler == "g++" else (f"-DCMAKE_CXX_COMPILER={row.compiler}",)
    commands = [Command(("packaging/lean/libcurl",))] if row.lean else []
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
    return [preset for preset, suites in (("debug", {UNIT}), (_optimised(row), {DEVICE, DEMO}))
            if suites & set(row.suites)]


def _optimised(row: Row) -> str:
    return "lean" if row.lean else "release"


def _further_tests(row: Row) -> tuple[str, ...]:
    """The tests of the bus policy, but not for emulated rows, whose buses are the host's; and those
    of a lean build."""
    return ((() if row.architecture else ("tests/bus_policy_test.py",))
            + (("tests/lean",) if row.lean else ()))


def run(row: Row, suite: str, jobs: int) -> Command:
    """The command of a suite; its exit code is 77 if it cannot run here."""
    daemon = f"build/{row.architecture or _optimised(row)}/ap/pelmor/ap-pelmor"
    if suite == UNIT:
        return Command(("ctest", "--preset", row.architecture or "debug", "-j", str(jobs),
                        "--output-junit", f"../../{REPORTS[UNIT]}"), row.environment)
    if suite == DEVICE:
        # Tests across processes mostly wait.
        return Command((PYTHON, "-m", "pytest", "-q", "-p", "no:cacheprovider", "-n", str(4 * jobs),
                        "--dist", "loadgroup", f"--junitxml={REPORTS[DEVICE]}", "tests/device",
                        *_further_tests(row)),
                       {**row.environment, "PELMOR_DAEMON": daemon})
    if suite == DEMO:
        return Command((PYTHON, "-m", "lab.device.demo", "--daemon", daemon), row.environment)
    return Command(("tests/boot/run", "build/package"), row.environment, on_the_machine=True)
