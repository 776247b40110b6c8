"""Configure rejects versions older than those in CONTRIBUTING.md."""

import re
import shutil
import subprocess
from pathlib import Path

import pytest

from lab.common.tree import ROOT

# By row of the table of versions, the file and the pattern of its check.
ROWS = {
    "CMake": ("CMakeLists.txt", r"cmake_minimum_required\(VERSION (\S+)\)"),
    "GCC": ("cmake/Requirements.cmake", r"PELMOR_MINIMUM_GNU (\S+)\)"),
    "or Clang, with GCC's C++ library": ("cmake/Requirements.cmake",
                                         r"PELMOR_MINIMUM_Clang (\S+)\)"),
    "libcurl, with OpenSSL or GnuTLS": ("cmake/Requirements.cmake", r" libcurl>=(\S+)\)"),
    "libsystemd": ("cmake/Requirements.cmake", r" libsystemd>=(\S+)\)"),
    "nlohmann/json": ("cmake/Requirements.cmake", r"\(nlohmann_json (\S+) REQUIRED\)"),
    "GoogleTest, for the unit tests": ("cmake/UnitTest.cmake", r"\(GTest (\S+) REQUIRED\)"),
}


def configure(build: Path, *options: str, pkg_config_path: Path | None = None) -> str:
    """The output of CMake for a build without tests; configuring must fail."""
    environment = {"PATH": "/usr/bin:/bin"}
    if pkg_config_path:
        environment["PKG_CONFIG_PATH"] = str(pkg_config_path)
    done = subprocess.run(["cmake", "-G", "Ninja", "-S", ROOT, "-B", build,
                           "-DPELMOR_BUILD_TESTS=OFF", *options],
                          env=environment, capture_output=True, text=True, check=False)
    assert done.returncode != 0, done.stdout
    return " ".join((done.stdout + done.stderr).split())


def test_the_table_of_versions_matches_the_checks_of_configure() -> None:
    table = dict(re.findall(r"^\| (.+) \| ([0-9.]+) \|$",
                            (ROOT / "CONTRIBUTING.md").read_text(), re.MULTILINE))
    asked = {}
    for row, (file, pattern) in ROWS.items():
        match = re.search(pattern, (ROOT / file).read_text())
        assert match, row
        asked[row] = match[1]
    assert table == asked


@pytest.mark.parametrize("library, version, too_old",
                         [("libcurl", "7.88", "7.87.0"), ("libsystemd", "252", "251")])
def test_an_older_library_is_rejected(library: str, version: str, too_old: str,
                                      tmp_path: Path) -> None:
    (tmp_path / f"{library}.pc").write_text(
        f"Name: {library}\nDescription: too old\nVersion: {too_old}\n")
    said = configure(tmp_path / "build", pkg_config_path=tmp_path)
    assert f"{library}>={version}" in said
    assert f"'{library}' has version '{too_old}'" in said


def test_an_older_json_library_is_rejected(tmp_path: Path) -> None:
    (tmp_path / "nlohmann_jsonConfig.cmake").write_text("")
    (tmp_path / "nlohmann_jsonConfigVersion.cmake").write_text(
        'set(PACKAGE_VERSION "3.10.5")\nset(PACKAGE_VERSION_COMPATIBLE FALSE)\n')
    # CMake finds neither the machine's own library nor its programs.
    programs = [f"-D{variable}={shutil.which(program)}" for variable, program in
                (("CMAKE_MAKE_PROGRAM", "ninja"), ("CMAKE_CXX_COMPILER", "g++"),
                 ("PKG_CONFIG_EXECUTABLE", "pkg-config"))]
    said = configure(tmp_path / "build", f"-DCMAKE_PREFIX_PATH={tmp_path}", *programs,
                     "-DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=FALSE",
                     "-DCMAKE_FIND_USE_SYSTEM_ENVIRONMENT_PATH=FALSE")
    assert 'requested version "3.11"' in said
    assert "version: 3.10.5" in said


def test_a_shared_libcurl_is_rejected_where_a_static_one_is_wanted(tmp_path: Path) -> None:
    said = configure(tmp_path / "build", "-DPELMOR_STATIC_LIBCURL=ON")
    assert "libcurl.so is not static; packaging/lean/libcurl makes one that is" in said


def test_an_older_compiler_is_rejected(tmp_path: Path) -> None:
    compiler = tmp_path / "old-compiler"
    compiler.write_text('#!/bin/sh\nexec g++ -U__GNUC__ -D__GNUC__=11 "$@"\n')
    compiler.chmod(0o755)
    said = configure(tmp_path / "build", f"-DCMAKE_CXX_COMPILER={compiler}")
    assert re.search(r"GNU 11\.\d+\.\d+ is too old: at least 12 is needed", said), said
