"""What a bill of materials describes: a Debian package, or the program of a device image."""

import os
import re
import subprocess
import tarfile
import tempfile
from collections.abc import Iterator
from dataclasses import dataclass
from datetime import UTC, datetime
from pathlib import Path

from lab.common.tree import ROOT
from lab.evidence.components import Build, Component, components, is_binary, sha256
from lab.evidence.debian import Package

_CHANGELOG = ROOT / "packaging/debian/changelog"
_COPYRIGHT = ROOT / "packaging/debian/copyright"
_CONTROL = ROOT / "packaging/debian/control"


@dataclass(frozen=True)
class Subject:
    """`components` are sorted."""

    name: str
    version: str
    architecture: str
    supplier: str
    licence: str
    # The text of a licence that is not of SPDX's list; otherwise empty.
    licence_text: str
    digest: str
    created: str
    components: tuple[Component, ...]

    @property
    def purl(self) -> str:
        return Package(self.name, "ap-pelmor", self.version, self.architecture, self.supplier,
                       "quintara").purl

    @property
    def file_name(self) -> str:
        return f"{self.name}_{self.version}_{self.architecture}"


def licence() -> tuple[str, str]:
    """Our licence and, if it is not of SPDX's list, its text: the first paragraph of
    packaging/debian/copyright that has files."""
    found = re.search(r"^Files: \*\n(?:.+\n)*?License: (.+)\n((?: .*\n)*)", _COPYRIGHT.read_text(),
                      re.MULTILINE)
    assert found, _COPYRIGHT
    # Each line is indented; an empty one is " .".
    text = re.sub(r"^ (\.$)?", "", found[2], flags=re.MULTILINE).strip()
    return found[1], text if found[1].startswith("LicenseRef-") else ""


def created() -> str:
    """The time of the last change, as in the packages, so that it does not depend on the build."""
    seconds = os.environ.get("SOURCE_DATE_EPOCH") or subprocess.run(
        ["dpkg-parsechangelog", "-l", _CHANGELOG, "-S", "Timestamp"], check=True,
        capture_output=True, text=True).stdout
    return datetime.fromtimestamp(int(seconds), UTC).strftime("%Y-%m-%dT%H:%M:%SZ")


def _make(name: str, version: str, architecture: str, supplier: str, digest: str,
          found: set[Component]) -> Subject:
    order = sorted(found, key=lambda one: (one.name, one.linkage, one.package.purl, one.digest))
    return Subject(name, version, architecture, supplier, *licence(), digest, created(),
                   tuple(order))


def _binaries(deb: Path, folder: Path) -> Iterator[Path]:
    """Unpacks the programs and libraries of a package."""
    content = subprocess.run(["dpkg-deb", "--fsys-tarfile", deb], check=True,
                             stdout=subprocess.PIPE)
    with tempfile.TemporaryFile() as file:
        file.write(content.stdout)
        file.seek(0)
        with tarfile.open(fileobj=file) as tar:
            for member in tar:
                data = tar.extractfile(member) if member.isfile() else None
                if data and is_binary(start := data.read(8)):
                    binary = folder / Path(member.name).name
                    binary.write_bytes(start + data.read())
                    yield binary


def of_package(deb: Path, build: Build) -> Subject:
    """A package that dpkg-buildpackage made of this build."""
    shown = subprocess.run(["dpkg-deb", "--showformat",
                            "${Package}\n${Version}\n${Architecture}\n${Maintainer}\n",
                            "--show", deb], check=True, stdout=subprocess.PIPE, text=True).stdout
    with tempfile.TemporaryDirectory() as folder:
        found = set[Component]().union(
            *(components(build, binary) for binary in _binaries(deb, Path(folder))))
    return _make(*shown.splitlines()[:4], sha256(deb.read_bytes()), found)


def of_image(image: Path, build: Build, architecture: str) -> Subject:
    """The daemon of ./dev lean."""
    daemon = image / "usr/sbin/ap-pelmor"
    control = re.search(r"^Maintainer: (.*)$", _CONTROL.read_text(), re.MULTILINE)
    version = re.search(r"\((.*)\)", _CHANGELOG.read_text())
    assert control and version
    build.check_installed(daemon)
    return _make("ap-pelmor-lean", version[1], architecture, control[1],
                 sha256(daemon.read_bytes()), components(build, daemon))
