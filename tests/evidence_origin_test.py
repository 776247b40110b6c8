"""The package that a file of a build is from, for the bills of materials of ./dev evidence."""

import hashlib
import subprocess
from pathlib import Path

import pytest

from lab.evidence import components, debian
from lab.evidence.components import Build
from lab.evidence.debian import UnknownOrigin


@pytest.mark.parametrize(("name", "is_code"), [
    ("libc6-dev-armhf-cross", False), ("libcurl4-gnutls-dev", False), ("curl", False),
    ("libstdc++-14-dev", True), ("libunheard-of-dev", True)])
def test_headers_are_listed_unless_they_are_known_to_be_declarations(
        name: str, is_code: bool, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    package = debian.Package(name, name, "1", "amd64", "A Maintainer", "debian")
    monkeypatch.setattr(components, "origin", lambda _: package)
    headers = [tmp_path / "a.h", tmp_path / "b.h"]
    for header in headers:
        header.write_text("code")
    listed = list(components.header_libraries(headers))
    assert [one.name for one in listed] == ([name] if is_code else [])
    assert list(components.header_libraries(reversed(headers))) == listed
    sums = subprocess.run(["sha256sum", "a.h", "b.h"], cwd=tmp_path, capture_output=True,
                          check=True).stdout
    assert all(one.digest == hashlib.sha256(sums).hexdigest() for one in listed)


def test_of_two_libraries_with_one_name_always_the_same_is_listed(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    linked = [tmp_path / "1/lib.so", tmp_path / "2/lib.so"]
    for path in linked:
        path.parent.mkdir()
        path.write_bytes(b"\x7fELF" + path.parent.name.encode())
    monkeypatch.setattr(components, "origin", lambda _: None)
    monkeypatch.setattr(components, "needed", lambda _: {"lib.so"})
    monkeypatch.setattr(components, "soname", lambda path: path.name)
    assert (list(components.libraries(Path("program"), linked))
            == list(components.libraries(Path("program"), reversed(linked))))


def test_a_file_of_no_package_is_an_error(tmp_path: Path) -> None:
    (tmp_path / "libown.a").write_bytes(b"!<arch>\n")
    with pytest.raises(UnknownOrigin, match="no package owns .*/libown.a"):
        components.origin(tmp_path / "libown.a")


@pytest.mark.parametrize("file", ["lib/libcurl.a", "include/curl/curl.h"])
def test_a_libcurl_from_debians_source_is_known_by_its_note(tmp_path: Path, file: str) -> None:
    (tmp_path / "source").write_text("curl 7.88.1-10+deb12u15 A Maintainer <one@debian.org>\n")
    package = components.origin(tmp_path / file)
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


def test_a_sysroot_has_records_of_its_own(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(components, "SYSROOTS", tmp_path)
    root = tmp_path / "armhf"
    library, records = root / "usr/lib/arm/libcurl.so.4", root / "var/lib/dpkg"
    for folder in (library.parent, records / "info", root / "opt/lean", root / "etc"):
        folder.mkdir(parents=True)
    library.touch()
    (records / "info/libcurl4:armhf.list").write_text("/usr/lib/arm/libcurl.so.4\n")
    (records / "status").write_text(
        "Package: selected-only\nStatus: purge ok not-installed\n\n"
        "Package: libcurl4\nArchitecture: armhf\nSource: curl (7.88)\nVersion: 7.88-1\n"
        "Maintainer: A Maintainer <one@debian.org>\nDescription: c\n more\n")
    assert (components.origin(library).purl
            == "pkg:deb/debian/libcurl4@7.88-1?arch=armhf&upstream=curl")
    (root / "opt/lean/source").write_text("curl 7.88-2 A Maintainer <one@debian.org>\n")
    assert components.origin(root / "opt/lean/lib/libcurl.a").version == "7.88-2"
    (root / "etc/os-release").write_text("NAME=Ubuntu\nID=ubuntu\n")
    assert debian.Records(root).owner(library).distribution == "ubuntu"
