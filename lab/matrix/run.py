"""Runs a row: its root, a fresh clone of the tree's last commit in it, the build, the suites."""

import os
import shutil
import time
from collections.abc import Callable, Sequence
from pathlib import Path

from lab.common.architectures import named
from lab.matrix import packages, suites, versions
from lab.matrix.results import Counts, Outcome, Result, Step, count_tests, failed_tests
from lab.matrix.roots import Impossible, NotCreated, Roots
from lab.matrix.rows import Row
from lab.matrix.space import Runner, in_root, on_the_machine
from lab.matrix.suites import Command

NOT_RUN = 77
# The path of the tree in a root.
TREE = "/src"
# The variables with which the caller enables a compiler cache.
_LAUNCHER = "CMAKE_CXX_COMPILER_LAUNCHER"
_CACHE_VARIABLE, _CACHE_PLACE = "CCACHE_DIR", "/tmp/ccache"

Report = Callable[[str], None]


class RowRun:
    """One run of one row of the tree `source`, whose folders and logs are in `folder`."""

    def __init__(self, row: Row, source: Path, folder: Path, runner: Runner, roots: Roots,
                 report: Report) -> None:
        self._row = row
        self._source = source
        self._tree = folder / "trees" / row.name
        self._logs = folder / "logs"
        self._runner = runner
        self._roots = roots
        self._report = report
        self._jobs = os.cpu_count() or 1
        self._root = Path()
        self._sysroot: Path | None = None
        self._libcurl_source: Path | None = None

    def run(self) -> Result:
        """Runs all steps. Stops if the root or the build fails, but not if a suite does."""
        result = Result(self._row.name)
        if not self._add(result, "root", self._make_root):
            return result
        result.versions = versions.of_row(self._row, self._root, self._sysroot)
        if self._add(result, "build", self._build):
            for suite in self._row.suites:
                self._add(result, suite, lambda suite=suite: self._run_suite(suite))
        return result

    def _add(self, result: Result, name: str,
             do: Callable[[], tuple[Outcome, Counts | None, str]]) -> bool:
        self._report(f"{self._row.name}: {name}")
        self._log(name).unlink(missing_ok=True)
        began = time.monotonic()
        outcome, counts, reason = do()
        result.steps.append(Step(name, outcome, time.monotonic() - began, counts, reason))
        if reason:
            self._report(f"{self._row.name}: {name}: {outcome}: {reason}")
        return outcome is Outcome.PASSED

    # The steps.

    def _make_root(self) -> tuple[Outcome, Counts | None, str]:
        launcher = os.environ.get(_LAUNCHER, "")
        self._logs.mkdir(parents=True, exist_ok=True)
        try:
            self._root = self._roots.get(self._row.release,
                                         packages.of_row(self._row, launcher))
            if self._row.architecture:
                self._sysroot = self._make_sysroot()
            if self._row.lean:
                self._libcurl_source = self._fetch_libcurl()
        except NotCreated as error:
            return Outcome.NOT_RUN, None, str(error)
        except Impossible as error:
            return Outcome.FAILED, None, str(error)
        log = self._log("root")
        if self._runner.run(self._inside(Command(("/usr/bin/true",))), log, self._source) != 0:
            return Outcome.NOT_RUN, None, f"no namespaces can be made here (see {log})"
        return Outcome.PASSED, None, ""

    def _make_sysroot(self) -> Path:
        architecture = named(self._row.architecture)
        log = self._log("root")
        status = self._runner.run(
            on_the_machine(["packaging/cross/sysroot", architecture.name]), log, self._source)
        if status != 0:
            raise NotCreated(f"no sysroot: {_last_line(log)}")
        return self._source / "build/sysroot" / architecture.name

    def _fetch_libcurl(self) -> Path:
        """There is no network inside the root."""
        log = self._log("root")
        status = self._runner.run(
            on_the_machine(["packaging/lean/libcurl", "source", self._row.release]), log,
            self._source)
        if status != 0:
            raise NotCreated(f"no source of libcurl: {_last_line(log)}")
        return self._source / "build/libcurl" / self._row.release

    def _build(self) -> tuple[Outcome, Counts | None, str]:
        if not self._clone():
            return Outcome.FAILED, None, self._failure("build", "git clone failed")
        for command in suites.build(self._row, self._jobs):
            if self._execute(command, "build") != 0:
                return Outcome.FAILED, None, self._failure("build", f"{command.argv[0]} failed")
        return Outcome.PASSED, None, ""

    def _run_suite(self, suite: str) -> tuple[Outcome, Counts | None, str]:
        status = self._execute(suites.run(self._row, suite, self._jobs), suite)
        if status == NOT_RUN:
            return Outcome.NOT_RUN, None, _last_line(self._log(suite))
        report = self._tree / suites.REPORTS[suite] if suite in suites.REPORTS else None
        counts = count_tests(report) if report and report.exists() else None
        if status == 0 and (not report or counts and counts.passed):
            return Outcome.PASSED, counts, ""
        names = failed_tests(report) if counts else []
        return Outcome.FAILED, counts, self._failure(suite, ", ".join(names) or f"status {status}")

    # Helpers of the steps.

    def _clone(self) -> bool:
        shutil.rmtree(self._tree, ignore_errors=True)
        self._tree.parent.mkdir(parents=True, exist_ok=True)
        clone = on_the_machine(["git", "clone", "--quiet", str(self._source), str(self._tree)])
        if self._runner.run(clone, self._log("build"), self._source) != 0:
            return False
        (self._tree / "build").mkdir()
        # Keeps the root that the boot test makes, too.
        (self._source / "build/boot").mkdir(parents=True, exist_ok=True)
        (self._tree / "build/boot").symlink_to(self._source / "build/boot")
        return True

    def _execute(self, command: Command, step: str) -> int:
        log = self._log(step)
        if command.on_the_machine:
            return self._runner.run(on_the_machine(command.argv), log, self._tree,
                                    os.environ | command.environment)
        return self._runner.run(self._inside(command), log, self._source)

    def _inside(self, command: Command) -> list[str]:
        environment = dict(command.environment)
        binds = {TREE: self._tree} if self._tree.exists() else {}
        if self._sysroot and binds:
            binds[f"{TREE}/build/sysroot/{self._sysroot.name}"] = self._sysroot
        if self._libcurl_source and binds:
            binds[f"{TREE}/build/libcurl/{self._libcurl_source.name}"] = self._libcurl_source
        if launcher := os.environ.get(_LAUNCHER):
            environment |= {_LAUNCHER: launcher, "CCACHE_BASEDIR": TREE, "CCACHE_NOHASHDIR": "1",
                            **_cache_settings()}
        if cache := os.environ.get(_CACHE_VARIABLE):
            binds[_CACHE_PLACE] = Path(cache)
        return in_root(self._root, binds, TREE if TREE in binds else "/", environment,
                       command.argv)

    def _failure(self, step: str, what: str) -> str:
        return f"{what} (see {self._log(step)})"

    def _log(self, step: str) -> Path:
        return self._logs / f"{self._row.name}-{step}"


def _cache_settings() -> dict[str, str]:
    kept = {name: value for name, value in os.environ.items() if name == "CCACHE_SLOPPINESS"}
    return kept | {_CACHE_VARIABLE: _CACHE_PLACE, "CCACHE_COMPILERCHECK": "content"}


def _last_line(log: Path) -> str:
    lines: Sequence[str] = log.read_text(errors="replace").splitlines() if log.exists() else []
    return lines[-1] if lines else "no message"
