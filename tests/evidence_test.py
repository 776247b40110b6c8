"""The bills of materials, the package notes and the results that ./dev evidence writes."""

import hashlib
import json
import os
import re
import shutil
import subprocess
import sysconfig
from collections.abc import Callable
from datetime import datetime
from email.utils import parsedate_to_datetime
from pathlib import Path

import pytest

from lab.common import results
from lab.common.tree import ROOT
from lab.evidence import __main__ as evidence
from lab.evidence import components, debian, page, subject, validation
from lab.evidence.components import Build, Component, Linkage
from lab.evidence.debian import UnknownOrigin
from lab.matrix import page as matrix_page
from lab.matrix.results import Result

LIBRARIES = Path("/usr/lib") / sysconfig.get_config_var("MULTIARCH")
NOTE = '{"type":"deb","os":"debian","version":"1.2","architecture":"amd64"}'
PROJECT = """\
cmake_minimum_required(VERSION 3.25)
project(sample LANGUAGES CXX)
list(APPEND CMAKE_MODULE_PATH {root}/cmake)
include(Shipped)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${{PROJECT_BINARY_DIR}}/bin)
add_link_options(-Wl,--as-needed)
add_library(own STATIC own.cc)
add_library(other STATIC other.cc)
add_executable(sample main.cc)
target_link_libraries(sample PRIVATE own systemd)
pelmor_ships(sample sample-package)
"""
MAIN = """\
#include <nlohmann/json_fwd.hpp>
#include <systemd/sd-bus.h>
int own();
int main() {{ return sd_bus_default(nullptr) + own() + {status}; }}
"""
CONTROL = """\
Package: sample
Version: 1.2
Architecture: amd64
Maintainer: A Maintainer <maintainer@quintara.example>
Description: a sample
"""


def run(*command: str | Path) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def build_sample(folder: Path, *options: str, status: int = 0) -> Path:
    """Builds a program and a package of it, laid out as by packaging/build."""
    source = folder / "amd64/source"
    source.mkdir(parents=True)
    (source / "CMakeLists.txt").write_text(PROJECT.format(root=ROOT))
    (source / "main.cc").write_text(MAIN.format(status=status))
    (source / "own.cc").write_text("#include <glob.h>\nint own() { return 0; }\n")
    (source / "other.cc").write_text("#include <ftw.h>\n")
    build = source / "build/package"
    run("cmake", "-G", "Ninja", "-S", source, "-B", build, *options)
    run("cmake", "--build", build)
    content = folder / "content"
    (content / "DEBIAN").mkdir(parents=True)
    (content / "DEBIAN/control").write_text(CONTROL)
    (content / "usr/bin").mkdir(parents=True)
    shutil.copy(build / "bin/sample", content / "usr/bin")
    (content / "usr/bin/link").symlink_to("sample")
    (content / "usr/bin/script").write_text("#!/bin/sh\n")
    run("dpkg-deb", "--root-owner-group", "--build", content, folder / "sample_1.2_amd64.deb")
    # Not read: a package of debug information.
    (folder / "sample-dbgsym_1.2_amd64.deb").touch()
    return build


@pytest.fixture(scope="module")
def sample(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("sample")
    build_sample(folder, f"-DPELMOR_PACKAGE_NOTE={NOTE}")
    return folder


@pytest.fixture(scope="module")
def described(sample: Path) -> subject.Subject:
    return subject.of_package(sample / "sample_1.2_amd64.deb",
                              Build(sample / "amd64/source/build/package"))


# The components.

def by_name(described: subject.Subject) -> dict[str, Component]:
    return {component.name: component for component in described.components}


def test_a_bill_lists_what_the_linker_and_the_compiler_read(described: subject.Subject) -> None:
    found = {name: one.linkage for name, one in by_name(described).items()}
    assert found["libsystemd.so.0"] == found["libc.so.6"] == Linkage.SHARED
    assert found["libgcc.a"] == found["Scrt1.o"] == Linkage.STATIC
    assert found["nlohmann-json3-dev"] == Linkage.HEADERS


def test_a_bill_has_no_part_of_the_tree_and_no_unused_library(described: subject.Subject) -> None:
    # The linker reads libm for libstdc++, but the program does not need it.
    assert {"libown.a", "own.cc.o", "libm.so.6"}.isdisjoint(by_name(described))


def test_headers_are_those_of_the_sources_that_are_linked_in(sample: Path) -> None:
    build = Build(sample / "amd64/source/build/package")
    names = {path.name for path in build.headers(build.target("sample"))}
    assert "glob.h" in names and "ftw.h" not in names


@pytest.mark.parametrize("targets", [[], ["a/sample: LINKER", "b/sample: LINKER"]])
def test_a_program_that_is_not_of_one_target_is_an_error(
        sample: Path, targets: list[str], monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(Build, "_ninja", lambda *_: targets)
    with pytest.raises(UnknownOrigin, match=f"has {len(targets)} targets for sample"):
        Build(sample / "amd64/source/build/package").target("sample")


def test_every_shared_library_of_a_program_is_listed(sample: Path,
                                                     described: subject.Subject) -> None:
    listed = {name for name, one in by_name(described).items() if one.linkage is Linkage.SHARED}
    assert listed == components.needed(sample / "content/usr/bin/sample")


def test_a_component_has_the_version_supplier_licence_and_hash_of_its_file(
        described: subject.Subject) -> None:
    library = by_name(described)["libsystemd.so.0"]
    shown = run("dpkg-query", "--show", "--showformat=${Version}\n${Maintainer}", "libsystemd0")
    assert [library.package.version, library.package.supplier] == shown.splitlines()
    assert library.package.licence == "LGPL-2.1-or-later"
    content = (LIBRARIES / "libsystemd.so.0").read_bytes()
    assert library.digest == hashlib.sha256(content).hexdigest()


def test_a_library_that_the_linker_did_not_read_is_an_error(sample: Path) -> None:
    with pytest.raises(UnknownOrigin, match="did not read .*libsystemd.so.0"):
        list(components.libraries(sample / "content/usr/bin/sample", []))


def test_every_file_of_a_bill_is_checked_for_changes(
        sample: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    build, checked = Build(sample / "amd64/source/build/package"), set[Path]()
    monkeypatch.setattr(Build, "check_unchanged", lambda *arguments: checked.update(arguments[2]))
    components.components(build, sample / "content/usr/bin/sample")
    read = build.headers("bin/sample"), build.linked("bin/sample")
    assert all(read) and checked == set.union(*read)


def test_a_library_that_was_installed_after_the_build_is_an_error(tmp_path: Path) -> None:
    made, library = tmp_path / "made", tmp_path / "library"
    made.touch()
    # Installed with the time at which it was made.
    library.touch()
    os.utime(library, (0, 0))
    Build(tmp_path).check_unchanged("made", [made])
    os.utime(made, (1, 1))
    with pytest.raises(UnknownOrigin, match="library is newer than made: build it again"):
        Build(tmp_path).check_unchanged("made", [library])


# The bills.

def write_bills(packages: Path, folder: Path) -> dict[str, bytes]:
    assert evidence.main(["--bills-only", "--packages", str(packages), str(folder)]) == 0
    return {path.name: path.read_bytes() for path in (folder / "sbom").iterdir()}


def test_bills_of_two_builds_in_two_places_are_identical(sample: Path, tmp_path: Path) -> None:
    other = tmp_path / "in/another/and/longer/place"
    build_sample(other, f"-DPELMOR_PACKAGE_NOTE={NOTE}")
    # The format of a package has the times of its files.
    shutil.copy(sample / "sample_1.2_amd64.deb", other)
    (tmp_path / "1/sbom").mkdir(parents=True)
    (tmp_path / "1/sbom/of_a_removed_package.spdx.json").touch()
    first, second = write_bills(sample, tmp_path / "1"), write_bills(other, tmp_path / "2")
    assert set(first) == {"sample_1.2_amd64.spdx.json", "sample_1.2_amd64.cdx.json"}
    assert first == second


def test_a_bill_has_the_name_version_and_hash_of_its_package(
        sample: Path, described: subject.Subject) -> None:
    package = (sample / "sample_1.2_amd64.deb").read_bytes()
    assert (described.file_name, described.supplier, described.digest) == (
        "sample_1.2_amd64", "A Maintainer <maintainer@quintara.example>",
        hashlib.sha256(package).hexdigest())
    names = [one.name for one in described.components]
    assert names == sorted(names) and len(names) > 5


def test_a_package_is_described_by_the_build_of_its_architecture(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    for architecture in ("amd64", "armhf"):
        (tmp_path / f"a_1_{architecture}.deb").touch()
    monkeypatch.setattr(evidence, "Build", lambda folder: folder)
    monkeypatch.setattr(evidence, "of_package", lambda deb, build: build)
    assert list(evidence._packages(tmp_path)) == [
        tmp_path / f"{architecture}/source/build/package" for architecture in ("amd64", "armhf")]


def test_the_daemon_of_a_lean_image_is_described(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    folder = tmp_path / "build/lean-armhf"
    daemon, made = folder / "image/usr/sbin/ap-pelmor", folder / "ap/ap-pelmor"
    for file in (made, daemon):
        file.parent.mkdir(parents=True)
        file.write_text(file.parent.name)
    (folder / "build.ninja").write_text("rule link\n command = true\nbuild ap/ap-pelmor: link\n")
    monkeypatch.setattr(evidence, "ROOT", tmp_path)
    monkeypatch.setattr(subject, "components", lambda *_: set())
    [image] = evidence._images()
    assert (image.name, image.architecture, image.digest) == (
        "ap-pelmor-lean", "armhf", hashlib.sha256(b"sbin").hexdigest())
    os.utime(daemon, (0, 0))
    with pytest.raises(UnknownOrigin, match="is older than .*/ap-pelmor: run ./dev lean again"):
        list(evidence._images())


def test_the_time_of_a_bill_is_that_of_the_changelog(monkeypatch: pytest.MonkeyPatch) -> None:
    changed = re.findall(r"^ -- .*>  (.*)", (ROOT / "packaging/debian/changelog").read_text(),
                         re.MULTILINE)[0]
    monkeypatch.delenv("SOURCE_DATE_EPOCH", raising=False)
    assert datetime.fromisoformat(subject.created()) == parsedate_to_datetime(changed)
    monkeypatch.setenv("SOURCE_DATE_EPOCH", "60")
    assert subject.created() == "1970-01-01T00:01:00Z"


@pytest.mark.parametrize(("valid", "status"), [(True, 0), (False, 1)])
def test_an_invalid_bill_fails_the_command(sample: Path, tmp_path: Path, valid: bool, status: int,
                                           monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evidence, "are_valid", lambda *_: valid)
    monkeypatch.setattr(evidence, "_images", lambda: iter(()))
    assert evidence.main(["--packages", str(sample), str(tmp_path)]) == status
    assert (tmp_path / "results.md").read_text().startswith("# Results\n")


@pytest.mark.parametrize(("reason", "status"), [
    (evidence.NotCreated("no mirror"), 77), (evidence.Impossible("no such package"), 1)])
def test_without_a_validator_the_command_exits_with_77_or_fails(
        sample: Path, tmp_path: Path, reason: Exception, status: int,
        monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    def not_here(*_: object) -> bool:
        raise reason
    monkeypatch.setattr(evidence, "are_valid", not_here)
    monkeypatch.setattr(evidence, "_images", lambda: iter(()))
    assert evidence.main(["--packages", str(sample), str(tmp_path)]) == status
    assert str(reason) in capsys.readouterr().err


@pytest.mark.parametrize(("status", "written", "reported"), [
    (0, "2 valid bills of materials\n", "2 valid bills of materials"),
    (1, "x.spdx.json: no name\n", "x.spdx.json: no name"),
    (137, "", "the validator ended with status 137 and wrote nothing")])
def test_bills_are_valid_only_if_the_validator_says_so(
        tmp_path: Path, status: int, written: str, reported: str,
        monkeypatch: pytest.MonkeyPatch) -> None:
    def run(_runner: object, argv: list[str], log: Path, _folder: object) -> int:
        assert " -BP - x.cdx.json x.spdx.json <<" in argv[-1]
        with log.open("a") as file:
            file.write(written)
        return status
    monkeypatch.setattr(validation.Runner, "run", run)
    monkeypatch.setattr(validation.Roots, "get", lambda *_: tmp_path)
    (tmp_path / "logs").mkdir()
    for file in ("logs/validation", "x.spdx.json", "x.cdx.json"):
        (tmp_path / file).write_text("older\n")
    said: list[str] = []
    assert validation.are_valid(tmp_path, tmp_path, said.append) == (status == 0)
    assert said == [reported]


def test_a_relative_folder_can_be_validated(sample: Path, tmp_path: Path,
                                            monkeypatch: pytest.MonkeyPatch) -> None:
    validated = []
    monkeypatch.setattr(evidence, "are_valid",
                        lambda folder, *_: validated.append(folder) or True)
    monkeypatch.setattr(evidence, "_images", lambda: iter(()))
    monkeypatch.chdir(tmp_path)
    assert evidence.main(["--packages", str(sample), "out"]) == 0
    assert validated == [tmp_path / "out/sbom"]


def test_without_packages_the_command_fails(tmp_path: Path) -> None:
    assert evidence.main(["--packages", str(tmp_path), str(tmp_path / "out"), "--bills-only"]) == 1


def break_licence(_folder: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delitem(debian.LICENCES, "systemd")


def break_build(folder: Path, _monkeypatch: pytest.MonkeyPatch) -> None:
    shutil.rmtree(folder / "amd64")


def break_package(folder: Path, _monkeypatch: pytest.MonkeyPatch) -> None:
    (folder / "sample_1.2_amd64.deb").write_text("")


def break_path(_folder: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("PATH", "/")


@pytest.mark.parametrize(("broken", "said"), [
    (break_licence, "evidence: add the licence of systemd to LICENCES"),
    (break_build, "evidence: no build of sample in .*: build it again"),
    (break_package, "dpkg-deb: .*\nevidence: .*dpkg-deb.* non-zero exit status"),
    (break_path, "evidence: .*No such file or directory: 'dpkg-deb'")])
def test_what_is_missing_for_a_bill_is_named(
        sample: Path, tmp_path: Path, broken: Callable[[Path, pytest.MonkeyPatch], None],
        said: str, monkeypatch: pytest.MonkeyPatch, capfd: pytest.CaptureFixture[str]) -> None:
    shutil.copytree(sample, tmp_path / "copy")
    broken(tmp_path / "copy", monkeypatch)
    assert evidence.main(["--packages", str(tmp_path / "copy"), str(tmp_path), "--bills-only"]) == 1
    assert re.match(said, capfd.readouterr().err)


# The notes.

def note_of(binary: Path) -> str:
    return "".join(re.findall(r"Packaging Metadata: (.*)", run("readelf", "--notes", binary)))


def test_a_packaged_program_carries_the_note_of_its_package(sample: Path) -> None:
    note = json.loads(note_of(sample / "content/usr/bin/sample"))
    assert note == {"name": "sample-package", **json.loads(NOTE)}


def test_a_plain_build_has_no_note() -> None:
    for program in ("ap/pelmor/ap-pelmor", "pelmorctl/pelmorctl", "client/libpelmor.so"):
        assert note_of(ROOT / "build/release" / program) == ""


def test_each_program_names_the_package_that_ships_it() -> None:
    rules = (ROOT / "packaging/debian/rules").read_text()
    for folder, program, component, package in (
            ("ap/pelmor", "ap-pelmor", "daemon", "ap-pelmor"),
            ("pelmorctl", "pelmorctl", "tools", "pelmor-tools"),
            ("client", "pelmor", "client", "libpelmor0")):
        lists = (ROOT / folder / "CMakeLists.txt").read_text()
        assert f"pelmor_ships({program} {package})" in lists
        assert f"DESTDIR=debian/{package} cmake --install $(BUILD) --component {component}" in rules


# The results.

def test_a_command_that_did_not_run_is_reported_as_such(tmp_path: Path) -> None:
    text = page.page(matrix_page.latest(tmp_path), tmp_path)
    assert text.count("| not run | | |") == len(page.SOURCES)
    assert all(f"| `{source.command}` | not run | | |" in text for source in page.SOURCES)


@pytest.mark.parametrize(("passed", "verdict"), [(True, "passed"), (False, "failed")])
def test_the_last_result_of_a_command_is_on_the_page(tmp_path: Path, passed: bool,
                                                     verdict: str) -> None:
    results.keep("soak", "./dev soak 5", True, ["an older line"], tmp_path)
    results.keep("soak", "./dev soak 7", passed, ["the line"], tmp_path)
    kept = results.last("soak", tmp_path)
    assert kept and kept.commit.startswith(run("git", "-C", ROOT, "rev-parse", "--short",
                                               "HEAD").strip())
    text = page.page(matrix_page.latest(tmp_path), tmp_path)
    assert f"| `./dev soak 7` | {verdict} | {kept.date} | {kept.commit} |" in text
    assert "\nthe line\n" in text and "an older line" not in text


def test_a_row_of_the_matrix_is_shown_with_its_newest_result(tmp_path: Path) -> None:
    published, here = tmp_path / "published.json", tmp_path / "results"
    here.mkdir()

    def record(date: str) -> dict[str, object]:
        return {"commit": "", "date": date, **Result("x").to_json()}
    published.write_text(json.dumps({"older": record("2026-01-01"), "newer": record("2026-03-01")}))
    for row in ("older", "newer"):
        (here / f"{row}.json").write_text(json.dumps(record("2026-02-01")))
    latest = matrix_page.latest(tmp_path, published)
    assert {row: latest[row]["date"] for row in latest} == {"older": "2026-02-01",
                                                            "newer": "2026-03-01"}
