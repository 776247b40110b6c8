"""dpkg's records of a file system: the package that owns a file."""

import re
from dataclasses import dataclass
from functools import cache, cached_property
from pathlib import Path
from urllib.parse import quote

# By name of the source package, without a version: the licence of the code in its libraries, as an
# SPDX expression.
LICENCES = {
    # The C library of the cross compilers.
    "cross-toolchain-base": "LGPL-2.1-or-later",
    "curl": "curl",
    "gcc": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "glibc": "LGPL-2.1-or-later",
    "nlohmann-json3": "MIT",
    "openssl": "Apache-2.0",
    "systemd": "LGPL-2.1-or-later",
}
_GCC = re.compile(r"gcc-[\d.]+(-cross)?")


class UnknownOrigin(Exception):
    """No record says where a file is from, or under which licence."""


@dataclass(frozen=True)
class Package:
    name: str
    source: str
    version: str
    architecture: str
    supplier: str
    distribution: str

    @property
    def purl(self) -> str:
        """See https://github.com/package-url/purl-spec."""
        name, version, source = (quote(text, safe=":")
                                 for text in (self.name, self.version, self.source))
        return (f"pkg:deb/{self.distribution}/{name}@{version}"
                f"?arch={self.architecture}&upstream={source}")

    @property
    def licence(self) -> str:
        source = "gcc" if _GCC.fullmatch(self.source) else self.source
        if source not in LICENCES:
            raise UnknownOrigin(f"add the licence of {source} to LICENCES of {__file__}")
        return LICENCES[source]


def stanzas(text: str) -> list[dict[str, str]]:
    """The fields of each stanza, without continuation lines."""
    return [dict(re.findall(r"^([\w-]+): (.*)$", stanza, re.MULTILINE))
            for stanza in re.split(r"\n\n+", text) if stanza.strip()]


class Records:
    """Of the file system below `root`."""

    def __init__(self, root: Path = Path("/")) -> None:
        self.root = root
        self._dpkg = root / "var/lib/dpkg"

    @cached_property
    def _owners(self) -> dict[str, str]:
        return {path: records.stem for records in sorted((self._dpkg / "info").glob("*.list"))
                for path in records.read_text().splitlines()}

    @cached_property
    def _packages(self) -> dict[str, dict[str, str]]:
        """Those of which dpkg only has a selection have no version."""
        return {key: fields for fields in stanzas((self._dpkg / "status").read_text())
                if "Version" in fields
                for key in (fields["Package"], f"{fields['Package']}:{fields['Architecture']}")}

    @cached_property
    def _distribution(self) -> str:
        """A sysroot has no such file: it is of Debian."""
        release = self.root / "etc/os-release"
        found = re.search(r"^ID=(\w+)", release.read_text() if release.exists() else "",
                          re.MULTILINE)
        return found[1] if found else "debian"

    def owner(self, file: Path) -> Package:
        """The package that installed the file, which is below the root."""
        path = f"/{file.resolve().relative_to(self.root.resolve())}"
        # dpkg knows some files by their names before /lib became a link.
        key = self._owners.get(path) or self._owners.get(path.removeprefix("/usr"))
        if not key:
            raise UnknownOrigin(f"no package owns {file}")
        fields = self._packages[key]
        return Package(fields["Package"], fields.get("Source", fields["Package"]).split()[0],
                       fields["Version"], fields["Architecture"], fields["Maintainer"],
                       self._distribution)


@cache
def records_of(root: Path) -> Records:
    return Records(root)
