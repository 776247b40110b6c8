"""The versions of a row's packages, from dpkg's records in its root or sysroot."""

import re
from collections.abc import Iterable
from pathlib import Path

from lab.common.architectures import named
from lab.matrix.rows import Row

COMPILER, LIBC, LIBCURL, TLS, SYSTEMD, BUS = (
    "compiler", "libc", "libcurl", "TLS library", "systemd", "bus")
COLUMNS = (COMPILER, LIBC, LIBCURL, TLS, SYSTEMD, BUS)

_STATUS = "var/lib/dpkg/status"
_FIELD = re.compile(r"^(Package|Version|Status): (.*)$", re.MULTILINE)
_GCC = r"g\+\+-\d+"
# The packages of the libraries by column: in Debian 13 those with 64-bit times have another name.
_LIBRARIES = {
    LIBC: r"libc6",
    LIBCURL: r"libcurl(?:4|4t64|3-gnutls|3t64-gnutls|4-gnutls)",
    SYSTEMD: r"libsystemd0",
}
_TLS_OF = {"gnutls": r"libgnutls30(?:t64)?", "openssl": r"libssl3(?:t64)?"}
# "1:14.2.0-19" is 14.2.0: without the epoch and the packager's part.
_UPSTREAM = re.compile(r"(?:\d+:)?([^-+~]+)")


def installed(root: Path) -> dict[str, str]:
    """The upstream version of each package that is installed in the root."""
    versions = {}
    for record in (root / _STATUS).read_text().split("\n\n"):
        fields = dict(_FIELD.findall(record))
        if fields.get("Status", "").endswith(" installed"):
            found = _UPSTREAM.match(fields["Version"])
            versions[fields["Package"]] = found[1] if found else fields["Version"]
    return versions


def of_row(row: Row, root: Path, sysroot: Path | None) -> dict[str, str]:
    """By column, the name with the version where the name differs between rows."""
    tools = installed(root)
    libraries = installed(sysroot) if sysroot else tools
    flavour = "gnutls" if "libcurl4-gnutls-dev" in row.replaced_packages.values() else "openssl"
    bus = row.environment.get("PELMOR_BUS", "dbus-daemon")
    return {
        COMPILER: _compiler(row, tools),
        **{column: _only(pattern, libraries) for column, pattern in _LIBRARIES.items()},
        TLS: f"{'GnuTLS' if flavour == 'gnutls' else 'OpenSSL'} "
             f"{_only(_TLS_OF[flavour], libraries)}",
        BUS: f"{bus} {_only(re.escape(bus), tools)}",
    }


def _compiler(row: Row, tools: dict[str, str]) -> str:
    if row.compiler.startswith("clang"):
        return f"Clang {_only(re.escape(row.compiler.replace('++', '')), tools)}"
    suffix = f"-{re.escape(named(row.architecture).triplet)}" if row.architecture else ""
    return f"GCC {_only(_GCC + suffix, tools)}"


def _only(pattern: str, versions: dict[str, str]) -> str:
    """The newest of the packages of that name."""
    found = [version for name, version in versions.items() if re.fullmatch(pattern, name)]
    return max(found, key=_sortable) if found else "none"


def _sortable(version: str) -> Iterable[int]:
    return [int(number) for number in re.findall(r"\d+", version)]
