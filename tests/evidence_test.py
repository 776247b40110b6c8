"""The bills of materials, the package notes and the results that ./dev evidence writes."""

import dataclasses
import hashlib
import json
import os
import re
import shutil
import subprocess
import sysconfig
from pathlib import Path

import pytest

from lab.common import results
from lab.common.tree import ROOT
from lab.evidence import __main__ as evidence
from lab.evidence import components, cyclonedx, debian, page, spdx, subject
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
add_link_options(-Wl,--as-needed)
add_library(own STATIC own.cc)
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
    (source / "own.cc").write_text("int own() { return 0; }\n")
    build = source / "build/package"
    run("cmake", "-G", "Ninja", "-S", source, "-B", build, *options)
    run("cmake", "--build", build)
    content = folder / "content"
    (content / "DEBIAN").mkdir(parents=True)
    (content / "DEBIAN/control").write_text(CONTROL)
    (content / "usr/bin").mkdir(parents=True)
    shutil.copy(build / "sample", content / "usr/bin")
    (content / "usr/bin/script").write_text("#!/bin/sh\n")
    run("dpkg-deb", "--root-owner-group", "--build", content, folder / "sample_1.2_amd64.deb")
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


def test_a_library_that_was_replaced_since_the_build_is_an_error(tmp_path: Path) -> None:
    build = build_sample(tmp_path)
    os.utime(build / "sample", (0, 0))
    with pytest.raises(UnknownOrigin, match="is newer than sample: build the packages again"):
        subject.of_package(tmp_path / "sample_1.2_amd64.deb", Build(build))


def test_a_file_of_no_package_is_an_error(tmp_path: Path) -> None:
    (tmp_path / "libown.a").write_bytes(b"!<arch>\n")
    with pytest.raises(UnknownOrigin, match="no package owns .*/libown.a"):
        components.origin(tmp_path / "libown.a")


def test_a_library_without_a_known_licence_is_an_error(described: subject.Subject) -> None:
    package = dataclasses.replace(described.components[0].package, source="unheard-of")
    with pytest.raises(UnknownOrigin, match="add the licence of unheard-of"):
        assert package.licence


def test_a_libcurl_from_debians_source_is_known_by_its_note(tmp_path: Path) -> None:
    (tmp_path / "lib").mkdir()
    (tmp_path / "source").write_text("curl 7.88.1-10+deb12u15 A Maintainer <one@debian.org>\n")
    package = components.origin(tmp_path / "lib/libcurl.a")
    assert package.purl == "pkg:deb/debian/curl@7.88.1-10%2Bdeb12u15?arch=source&upstream=curl"
    assert (package.supplier, package.licence) == ("A Maintainer <one@debian.org>", "curl")


def test_a_library_that_was_made_below_the_tree_is_not_our_own(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(components, "ROOT", tmp_path)
    monkeypatch.setattr(components, "SYSROOTS", tmp_path / "build/sysroot")
    build, made = tmp_path / "build/lean", tmp_path / "build/libcurl/native/lib/libcurl.a"
    cross = tmp_path / "build/sysroot/armhf/opt/lean/lib/libcurl.a"
    for file in (build / "lib.a", made, cross):
        file.parent.mkdir(parents=True, exist_ok=True)
        file.touch()
    (build / "CMakeCache.txt").write_text(f"CMAKE_HOME_DIRECTORY:INTERNAL={tmp_path}\n")
    (build / "program.inputs").write_text(f"program: \\\n  lib.a \\\n  {made} {cross}\n\nlib.a:\n")
    assert Build(build).linked("program") == {made, cross}


def test_a_sysroot_has_records_of_its_own(tmp_path: Path) -> None:
    library = tmp_path / "usr/lib/arm/libcurl.so.4"
    library.parent.mkdir(parents=True)
    library.touch()
    (tmp_path / "var/lib/dpkg/info").mkdir(parents=True)
    (tmp_path / "var/lib/dpkg/info/libcurl4:armhf.list").write_text("/usr/lib/arm/libcurl.so.4\n")
    (tmp_path / "var/lib/dpkg/status").write_text(
        "Package: libcurl4\nArchitecture: armhf\nSource: curl (7.88)\nVersion: 7.88-1\n"
        "Maintainer: A Maintainer <one@debian.org>\nDescription: c\n more\n")
    package = debian.Records(tmp_path).owner(library)
    assert package.purl == "pkg:deb/debian/libcurl4@7.88-1?arch=armhf&upstream=curl"


# The documents.

def test_both_formats_have_the_same_components(described: subject.Subject) -> None:
    spdx_packages = spdx.document(described)["packages"]
    cyclonedx_components = cyclonedx.document(described)["components"]
    assert len(cyclonedx_components) == len(described.components) > 5
    assert ([(one["name"], one["versionInfo"], one["licenseDeclared"],
              one["checksums"][0]["checksumValue"]) for one in spdx_packages[1:]]
            == [(one["name"], one["version"], one["licenses"][0]["expression"],
                 one["hashes"][0]["content"]) for one in cyclonedx_components])


def test_identifiers_are_unique(described: subject.Subject) -> None:
    for found in ([one["SPDXID"] for one in spdx.document(described)["packages"]],
                  [one["bom-ref"] for one in cyclonedx.document(described)["components"]]):
        assert len(set(found)) == len(found)


def write_bills(packages: Path, folder: Path) -> dict[str, bytes]:
    assert evidence.main(["--bills-only", "--packages", str(packages), str(folder)]) == 0
    return {path.name: path.read_bytes() for path in (folder / "sbom").iterdir()}


def test_bills_of_two_builds_in_two_places_are_identical(sample: Path, tmp_path: Path) -> None:
    other = tmp_path / "in/another/and/longer/place"
    build_sample(other, f"-DPELMOR_PACKAGE_NOTE={NOTE}")
    # The format of a package has the times of its files.
    shutil.copy(sample / "sample_1.2_amd64.deb", other)
    first, second = write_bills(sample, tmp_path / "1"), write_bills(other, tmp_path / "2")
    assert set(first) == {"sample_1.2_amd64.spdx.json", "sample_1.2_amd64.cdx.json"}
    assert first == second


def test_bills_of_different_packages_have_different_identities(
        described: subject.Subject) -> None:
    other = dataclasses.replace(described, digest="0" * 64)
    assert (spdx.document(described)["documentNamespace"]
            != spdx.document(other)["documentNamespace"])
    assert (cyclonedx.document(described)["serialNumber"]
            != cyclonedx.document(other)["serialNumber"])


def test_the_time_of_a_bill_is_that_of_the_changelog(
        described: subject.Subject, monkeypatch: pytest.MonkeyPatch) -> None:
    assert spdx.document(described)["creationInfo"]["created"] == "2026-11-21T00:00:00Z"
    monkeypatch.setenv("SOURCE_DATE_EPOCH", "60")
    assert subject.created() == "1970-01-01T00:01:00Z"


@pytest.mark.parametrize(("fault", "status"), [("", 0), ("x.spdx.json: no name\n", 1)])
def test_an_invalid_bill_fails_the_command(sample: Path, tmp_path: Path, fault: str, status: int,
                                           monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evidence, "faults", lambda *_: fault)
    monkeypatch.setattr(evidence, "_images", lambda: iter(()))
    assert evidence.main(["--packages", str(sample), str(tmp_path)]) == status
    assert (tmp_path / "results.md").exists()


def test_without_a_validator_the_command_exits_with_77(
        sample: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    def not_here(*_: object) -> str:
        raise evidence.NotCreated("no mirror")
    monkeypatch.setattr(evidence, "faults", not_here)
    monkeypatch.setattr(evidence, "_images", lambda: iter(()))
    assert evidence.main(["--packages", str(sample), str(tmp_path)]) == 77


def test_a_relative_folder_can_be_validated(sample: Path, tmp_path: Path,
                                            monkeypatch: pytest.MonkeyPatch) -> None:
    validated = []
    monkeypatch.setattr(evidence, "faults", lambda folder, *_: validated.append(folder))
    monkeypatch.setattr(evidence, "_images", lambda: iter(()))
    monkeypatch.chdir(tmp_path)
    assert evidence.main(["--packages", str(sample), "out"]) == 0
    assert validated == [tmp_path / "out/sbom"]


def test_without_packages_the_command_fails(tmp_path: Path) -> None:
    assert evidence.main(["--packages", str(tmp_path), str(tmp_path / "out")]) == 1


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
