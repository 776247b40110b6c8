"""The rows of the matrix, and which of them a command line selects.

A row is data: a new environment is a new line in `ROWS` and a sentence in
docs/portability.md."""

from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field, replace
from types import MappingProxyType

UNIT, DEVICE, DEMO, BOOT = "unit", "device", "demo", "boot"
ALL_SUITES = (UNIT, DEVICE, DEMO, BOOT)

BOOKWORM, TRIXIE, TESTING = "bookworm", "trixie", "testing"

# The factor of deadlines under emulation.
_EMULATED = MappingProxyType({"PELMOR_DEADLINE_FACTOR": "6"})


@dataclass(frozen=True)
class Row:
    """An environment: a Debian of one release, with what differs from the tree's own lists of
    packages, and the suites that are run in it."""

    name: str
    release: str = BOOKWORM
    suites: tuple[str, ...] = (UNIT, DEVICE, DEMO)
    # One of packaging/cross/architectures, to compile for and emulate; empty for the host's.
    architecture: str = ""
    compiler: str = "g++"
    # The build for a device image in place of the release.
    lean: bool = False
    # Of packages/, besides those of every row.
    lists: tuple[str, ...] = ()
    extra_packages: tuple[str, ...] = ()
    replaced_packages: Mapping[str, str] = field(default_factory=dict)
    environment: Mapping[str, str] = field(default_factory=dict)


ROWS = (
    Row("debian-12", BOOKWORM),
    Row("debian-13", TRIXIE),
    Row("debian-testing", TESTING),
    Row("clang", compiler="clang++-19", extra_packages=("clang-19", "lld-19")),
    Row("gnutls", suites=(UNIT, DEVICE),
        replaced_packages={"libcurl4-openssl-dev": "libcurl4-gnutls-dev"}),
    Row("lean", suites=(DEVICE,), lean=True, lists=("lean",)),
    Row("dbus-broker", suites=(DEVICE, BOOT), lists=("package", "sources"),
        extra_packages=("dbus-broker",), environment={"PELMOR_BUS": "dbus-broker"}),
    Row("armhf", suites=(UNIT, DEVICE), architecture="armhf", environment=_EMULATED),
    Row("arm64", suites=(UNIT, DEVICE), architecture="arm64", environment=_EMULATED),
    Row("s390x", suites=(UNIT, DEMO), architecture="s390x", environment=_EMULATED),
)


class SelectionError(Exception):
    """The command line names an unknown row or suite."""


def select(wanted: Sequence[str], rows: Sequence[Row] = ROWS) -> list[Row]:
    """The rows that the arguments name, as `ROW` or `ROW:SUITE,…`, with just those suites; without
    arguments all rows."""
    if not wanted:
        return list(rows)
    return [_selected(argument, rows) for argument in wanted]


def _selected(argument: str, rows: Sequence[Row]) -> Row:
    name, colon, listed = argument.partition(":")
    row = next((row for row in rows if row.name == name), None)
    if not row:
        raise SelectionError(f"no row '{name}'; there are {', '.join(row.name for row in rows)}")
    if not colon:
        return row
    suites = listed.split(",")
    for suite in suites:
        if suite not in row.suites:
            raise SelectionError(f"row '{name}' has no suite '{suite}'; it has "
                                 f"{', '.join(row.suites)}")
    return replace(row, suites=tuple(suite for suite in row.suites if suite in suites))
