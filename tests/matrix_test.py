"""The matrix: its rows, the run of a row, and the results."""

import json
import re
import subprocess
from collections.abc import Callable, Sequence
from pathlib import Path

import pytest

from lab.common import architectures
from lab.common.applicability import NOT_APPLICABLE
from lab.common.tree import ROOT
from lab.matrix import packages, page, suites, versions
from lab.matrix.results import Counts, Outcome, Result, Step, count_tests, failed_tests
from lab.matrix.roots import Impossible, NotCreated
from lab.matrix.rows import ALL_SUITES, ROWS, Row, SelectionError, select
from lab.matrix.run import RowRun
from lab.matrix.table import cell, exit_status, table
from tests.matrix_fakes import FakeRoots, FakeRunner

NOT_RUN = 77
UNIT_REPORT = """\
<testsuite>
  <testcase name="A.Passes" status="run"/>
  <testcase name="A.Fails" status="fail"><failure message=""/></testcase>
  <testcase name="A.Aborts"><error message="setup"/></testcase>
  <testcase name="A.Skipped"><skipped message="no network"/></testcase>
  <testcase name="A.NotHere"><skipped message="{reason}qemu has no ptrace"/></testcase>
</testsuite>
""".format(reason=NOT_APPLICABLE)


def passed(name: str, seconds: float = 1.0, counts: Counts | None = None) -> Step:
    return Step(name, Outcome.PASSED, seconds, counts)


def failed(name: str, reason: str = "A.Fails") -> Step:
    return Step(name, Outcome.FAILED, 1.0, Counts(passed=2, failed=1), reason)


def not_run(name: str) -> Step:
    return Step(name, Outcome.NOT_RUN, 1.0, None, "no network")


# Rows and their selection.

def test_rows_have_unique_names_and_existing_suites() -> None:
    assert len({row.name for row in ROWS}) == len(ROWS)
    known = {each.name for each in architectures.all_of_them()}
    for row in ROWS:
        assert row.suites and set(row.suites) <= set(ALL_SUITES), row
        assert not row.architecture or row.architecture in known, row


def test_without_arguments_all_rows_are_selected() -> None:
    assert select([]) == list(ROWS)


def test_an_argument_selects_a_row_or_some_of_its_suites() -> None:
    whole, part = select(["debian-12", "debian-13:device,unit"])
    assert whole == next(row for row in ROWS if row.name == "debian-12")
    assert (part.name, part.suites) == ("debian-13", ("unit", "device"))


@pytest.mark.parametrize(("argument", "complaint"), [
    ("debian-11", "no row 'debian-11'; there are debian-12, "),
    ("s390x:device", "row 's390x' has no suite 'device'; it has unit, demo"),
    ("armhf:", "row 'armhf' has no suite ''; it has unit, device"),
])
def test_an_unknown_row_or_suite_is_named(argument: str, complaint: str) -> None:
    with pytest.raises(SelectionError, match=re.escape(complaint)):
        select([argument])


def test_a_row_has_the_listed_packages_and_its_own() -> None:
    usual = packages.of_row(Row("usual"))
    assert "libcurl4-openssl-dev" in usual and usual == sorted(set(usual))
    gnutls = packages.of_row(Row("gnutls", replaced_packages={
        "libcurl4-openssl-dev": "libcurl4-gnutls-dev"}))
    assert set(gnutls) ^ set(usual) == {"libcurl4-openssl-dev", "libcurl4-gnutls-dev"}
    arm = packages.of_row(Row("armhf", architecture="armhf", extra_packages=("gdb",)), "ccache")
    assert set(arm) - set(usual) >= {"g++-arm-linux-gnueabihf", "qemu-user-static", "gdb", "ccache"}


# A row's run.

def run_row(tmp_path: Path, row: Row, act: Callable[[Sequence[str], Path], int],
            error: Exception | None = None, source: Path = ROOT) -> tuple[Result, FakeRunner]:
    runner = FakeRunner(act)
    roots = FakeRoots(tmp_path, error)
    return RowRun(row, source, tmp_path, runner, roots, lambda text: None).run(), runner


def acting(tmp_path: Path, **statuses: int) -> Callable[[Sequence[str], Path], int]:
    """Programs that end with these statuses, or with success; ctest and pytest leave a report."""
    def act(argv: Sequence[str], log: Path) -> int:
        tree = tmp_path / "trees/row"
        if "clone" in argv:
            tree.mkdir(parents=True)
            return 0
        log.write_text("some words\n")
        name = next((name for name in statuses if name in " ".join(argv)), "")
        status = statuses.get(name, 0)
        if "ctest" in argv or "pytest" in argv:
            failure = "<failure/>" if status else ""
            report = suites.REPORTS["unit" if "ctest" in argv else "device"]
            (tree / report).write_text(
                f"<suite><testcase name='A.Does'>{failure}</testcase></suite>")
        return status
    return act


def outcomes(result: Result) -> dict[str, str]:
    return {step.name: str(step.outcome) for step in result.steps}


def test_a_row_builds_and_runs_its_suites(tmp_path: Path) -> None:
    result, _ = run_row(tmp_path, Row("row"), acting(tmp_path))
    assert outcomes(result) == dict.fromkeys(("root", "build", "unit", "device", "demo"), "passed")
    assert result.step("unit").counts == Counts(passed=1)
    assert result.outcome is Outcome.PASSED


def test_a_failed_suite_does_not_stop_the_others(tmp_path: Path) -> None:
    result, _ = run_row(tmp_path, Row("row"), acting(tmp_path, ctest=8))
    assert outcomes(result) == {"root": "passed", "build": "passed", "unit": "failed",
                                "device": "passed", "demo": "passed"}
    assert result.step("unit").reason.startswith("A.Does (see ")
    assert result.outcome is Outcome.FAILED


def test_without_a_build_no_suite_is_run(tmp_path: Path) -> None:
    result, _ = run_row(tmp_path, Row("row"), acting(tmp_path, **{"--build": 2}))
    assert outcomes(result) == {"root": "passed", "build": "failed"}
    assert result.outcome is Outcome.FAILED


def test_a_suite_without_any_test_fails(tmp_path: Path) -> None:
    def act(argv: Sequence[str], log: Path) -> int:
        acting(tmp_path)(argv, log)
        for report in (tmp_path / "trees").rglob("*.xml"):
            report.write_text("<suite/>")
        return 0
    result, _ = run_row(tmp_path, Row("row", suites=("unit",)), act)
    assert outcomes(result)["unit"] == "failed"


def test_a_suite_that_cannot_run_here_is_skipped(tmp_path: Path) -> None:
    result, _ = run_row(tmp_path, Row("row", suites=("device", "boot")),
                        acting(tmp_path, **{"tests/boot/run": NOT_RUN}))
    assert outcomes(result)["boot"] == "not run"
    assert result.step("boot").reason == "some words"
    assert result.outcome is Outcome.NOT_RUN


@pytest.mark.parametrize(("error", "outcome"), [
    (NotCreated("no network"), Outcome.NOT_RUN),
    (Impossible("E: Unable to locate package g++"), Outcome.FAILED),
])
def test_a_missing_root_is_explained(tmp_path: Path, error: Exception, outcome: Outcome) -> None:
    result, runner = run_row(tmp_path, Row("row"), acting(tmp_path), error)
    assert not runner.commands
    assert result.outcome is outcome and result.step("root").reason == str(error)


def test_a_row_without_namespaces_is_skipped(tmp_path: Path) -> None:
    result, _ = run_row(tmp_path, Row("row"), acting(tmp_path, **{"/usr/bin/true": 1}))
    assert outcomes(result) == {"root": "not run"}
    assert "no namespaces can be made here" in result.step("root").reason


def test_the_sysroot_is_mounted_once_it_exists(tmp_path: Path) -> None:
    row = Row("row", suites=("unit",), architecture="armhf")
    sysroot = tmp_path / "source/build/sysroot/armhf"
    (sysroot / "var/lib/dpkg").mkdir(parents=True)
    (sysroot / "var/lib/dpkg/status").touch()
    _, runner = run_row(tmp_path, row, acting(tmp_path), source=tmp_path / "source")
    place = "/src/build/sysroot/armhf"
    [trial] = [argv for argv in runner.commands if argv[-1] == "/usr/bin/true"]
    assert place not in trial
    assert all(place in argv for argv in runner.commands if "cmake" in argv or "ctest" in argv)


def test_a_row_is_built_with_its_compiler_and_environment() -> None:
    clang = [command.argv for command in suites.build(Row("clang", compiler="clang++-19"), 2)]
    strict = "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON"
    assert ("cmake", "--preset", "release", strict, "-DCMAKE_CXX_COMPILER=clang++-19") in clang
    arm = Row("armhf", suites=("device",), architecture="armhf", environment={"A": "1"})
    assert [command.argv for command in suites.build(arm, 2)] == [
        ("cmake", "--preset", "armhf", strict),
        ("cmake", "--build", "--preset", "armhf", "-j", "2", "--target", "ap-pelmor", "pelmorctl",
         "record-cc", "record-c", "report-c", "reporter", "reporter-c")]
    device = suites.run(arm, "device", 2)
    policy = "tests/bus_policy_test.py"
    assert policy in suites.run(Row("row"), "device", 2).argv
    assert policy not in device.argv
    assert device.environment == {"A": "1", "PELMOR_DAEMON": "build/armhf/ap/pelmor/ap-pelmor"}


def test_a_lean_row_tests_the_build_for_a_device_image() -> None:
    row = Row("row", suites=("device",), lean=True)
    assert [command.argv[:3] for command in suites.build(row, 2)] == [
        ("packaging/lean/libcurl",), ("cmake", "--preset", "lean"),
        ("cmake", "--build", "--preset")]
    device = suites.run(row, "device", 2)
    assert "tests/lean" in device.argv
    assert "tests/lean" not in suites.run(Row("row"), "device", 2).argv
    assert device.environment["PELMOR_DAEMON"] == "build/lean/ap/pelmor/ap-pelmor"


def test_the_source_of_libcurl_is_fetched_outside_of_the_root(tmp_path: Path) -> None:
    row = Row("row", suites=("device",), lean=True)
    _, runner = run_row(tmp_path, row, acting(tmp_path), source=tmp_path / "source")
    [fetch] = [argv for argv in runner.commands if argv[-2:] == ["source", row.release]]
    assert "--unshare-net" not in fetch
    place = f"/src/build/libcurl/{row.release}"
    assert all(place in argv for argv in runner.commands if argv[-1] == "packaging/lean/libcurl")


def test_without_the_source_of_libcurl_a_lean_row_is_not_run(tmp_path: Path) -> None:
    result, _ = run_row(tmp_path, Row("row", suites=("device",), lean=True),
                        acting(tmp_path, **{"packaging/lean/libcurl source": 77}))
    assert outcomes(result) == {"root": "not run"}
    assert result.step("root").reason == "no source of libcurl: some words"


def test_a_row_tests_the_last_commit(tmp_path: Path) -> None:
    source = tmp_path / "source"
    git = ["git", "-C", source, "-c", "user.name=a", "-c", "user.email=a@example.com"]
    subprocess.run(["git", "init", "--quiet", source], check=True)
    (source / "file").write_text("committed")
    subprocess.run([*git, "add", "file"], check=True)
    subprocess.run([*git, "commit", "--quiet", "-m", "one"], check=True)
    (source / "file").write_text("changed")
    (source / "other").touch()

    def act(argv: Sequence[str], log: Path) -> int:
        if "clone" in argv:
            subprocess.run(argv[argv.index("git"):], check=True)
        return 0
    folder = tmp_path / "folder"
    folder.mkdir()
    RowRun(Row("row"), source, folder, FakeRunner(act), FakeRoots(folder), lambda text: None).run()
    assert (folder / "trees/row/file").read_text() == "committed"
    assert not (folder / "trees/row/other").exists()


# Results.

def test_tests_are_counted_by_outcome(tmp_path: Path) -> None:
    report = tmp_path / "report.xml"
    report.write_text(UNIT_REPORT)
    assert count_tests(report) == Counts(passed=1, failed=2, skipped=1, not_applicable=1)
    assert failed_tests(report) == ["A.Fails", "A.Aborts"]


def test_a_result_survives_json() -> None:
    result = Result("row", [passed("root"), failed("unit")], {"libc": "2.36"})
    assert Result.from_json(json.loads(json.dumps(result.to_json()))) == result


@pytest.mark.parametrize(("steps", "status"), [
    ([[passed("root")], [passed("root")]], 0),
    ([[passed("root")], [not_run("root")]], NOT_RUN),
    ([[passed("root"), failed("unit")], [not_run("root")]], 1),
    ([[passed("root"), not_run("boot"), failed("unit")]], 1),
    ([[passed("root")], []], NOT_RUN),
])
def test_the_exit_status_is_the_worst_outcome(steps: list[list[Step]], status: int) -> None:
    assert exit_status([Result("row", each) for each in steps]) == status


def test_the_table_has_a_line_per_row_and_the_reasons_of_failures() -> None:
    text = table([
        Result("one", [passed("root", 61.4), passed("device", 9.6, Counts(5, 0, 0, 2))]),
        Result("another", [passed("root"), failed("unit"), not_run("boot")])])
    assert [re.split("  +", line) for line in text.splitlines()] == [
        ["row", "root", "unit", "device", "boot", "result"],
        ["one", "passed, 61 s", "5 passed, not applicable: 2, 10 s", "passed"],
        ["another", "passed, 1 s", "1 of 3 FAILED, 2 passed, 1 s", "not run", "failed"],
        [""],
        ["another: unit: failed: A.Fails"],
        ["another: boot: not run: no network"]]
    assert cell(None) == ""


def test_versions_are_read_from_the_packages_of_the_root(tmp_path: Path) -> None:
    status = tmp_path / "var/lib/dpkg/status"
    status.parent.mkdir(parents=True)
    status.write_text("".join(
        f"Package: {name}\nStatus: install ok {state}\nVersion: {version}\n\n"
        for name, state, version in (
            ("g++-12", "installed", "12.2.0-14"), ("libc6", "installed", "2.36-9+deb12u10"),
            ("libcurl4", "deinstall", "7.0-1"), ("libcurl3-gnutls", "installed", "7.88.1-10"),
            ("libgnutls30", "installed", "3.7.9-2"), ("libsystemd0", "installed", "252.38-1"),
            ("libssl3", "installed", "3.0.16-1"), ("dbus-daemon", "installed", "1.14.10-1"))))
    row = Row("gnutls", replaced_packages={"libcurl4-openssl-dev": "libcurl4-gnutls-dev"})
    assert versions.of_row(row, tmp_path, None) == {
        "compiler": "GCC 12.2.0", "libc": "2.36", "libcurl": "7.88.1", "systemd": "252.38",
        "TLS library": "GnuTLS 3.7.9", "bus": "dbus-daemon 1.14.10"}


# The page.

def test_the_page_shows_the_last_run_of_every_row() -> None:
    records = json.loads(page.RECORDS.read_text())
    assert list(records) == [row.name for row in ROWS], "run ./dev matrix, then with --write"
    text = page.PAGE.read_text()
    assert page.with_tables(text, records) == text, "run ./dev matrix --write"


def test_the_page_states_the_findings_of_each_row() -> None:
    section = page.PAGE.read_text().partition("## Differences between the rows")[2]
    assert re.findall(r"^- `([^`]+)`: \S", section, re.MULTILINE) == [row.name for row in ROWS]


@pytest.mark.parametrize(("steps", "cells"), [
    ([passed("root"), passed("build"), passed("device", 1.0, Counts(5)), passed("boot", 59.0)],
     "|  | 5 passed |  | passed | 1 min |"),
    ([passed("root"), passed("build"), failed("device")],
     "|  | **1 of 3 FAILED, 2 passed** |  | not run | 0 min |"),
    ([passed("root"), Step("build", Outcome.FAILED, 1.0, None, "cmake failed")],
     "|  | **failed** |  | **failed** | 0 min |"),
    ([not_run("root")], "|  | **not run** |  | **not run** | 0 min |"),
])
def test_the_page_shows_each_suite_or_the_failed_step(
        steps: list[Step], cells: str) -> None:
    record = {"commit": "abc", "date": "2026-01-02", **Result("dbus-broker", steps, {}).to_json()}
    assert f"| `dbus-broker` | 2026-01-02 | abc {cells}\n" in page.tables({"dbus-broker": record})


def test_separately_run_suites_are_merged_into_one_result(tmp_path: Path) -> None:
    def kept() -> Result:
        return Result.from_json(json.loads((tmp_path / "results/row.json").read_text()))
    page.keep(tmp_path, Result("row", [passed("root"), passed("unit")]), "abc", "2026-01-02")
    page.keep(tmp_path, Result("row", [passed("root"), failed("device")]), "abc", "2026-01-02")
    assert outcomes(kept()) == {"root": "passed", "unit": "passed", "device": "failed"}
    page.keep(tmp_path, Result("row", [passed("root"), passed("demo")]), "def", "2026-01-03")
    assert outcomes(kept()) == {"root": "passed", "demo": "passed"}, "of another commit"


def test_the_page_marks_rows_that_were_never_run(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(page, "PAGE", tmp_path / "portability.md")
    monkeypatch.setattr(page, "RECORDS", tmp_path / "portability/results.json")
    page.PAGE.write_text(page.with_tables("", {}))
    page.keep(tmp_path, Result("armhf", [passed("root"), passed("unit")]), "abc", "2026-01-02")
    page.write(tmp_path)
    assert "| `armhf` | 2026-01-02 | abc | passed | not run |" in page.PAGE.read_text()
    assert "| `s390x` |  |  | not run |  | not run |" in page.PAGE.read_text()
    assert list(json.loads(page.RECORDS.read_text())) == [row.name for row in ROWS]
