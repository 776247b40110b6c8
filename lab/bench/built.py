"""The daemon's binaries of other builds than the one that is measured first."""

from pathlib import Path

from lab.common.tree import ROOT

_SOURCES = ("ap", "dbus", "platform", "cmake")


def program(build: str, made_by: str) -> tuple[Path, str]:
    """The daemon of build/`build`, and the reason if it cannot be measured."""
    binary = ROOT / "build" / build / "ap/pelmor/ap-pelmor"
    if not binary.is_file():
        return binary, f"{made_by} makes it"
    if _newest_source() > binary.stat().st_mtime:
        return binary, f"the sources are newer; {made_by} makes it"
    return binary, ""


def _newest_source() -> float:
    return max(path.stat().st_mtime for folder in _SOURCES for path in (ROOT / folder).rglob("*")
               if path.suffix in (".cc", ".h", ".cmake", ".j2", ".xml")
               and not path.name.endswith("_test.cc"))
