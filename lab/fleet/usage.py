"""Memory and processor time of processes, from the kernel."""

import re
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

# The kernel's number of this clock, the CPU time of a process with its ended threads, is derived
# from the process id.
_CPU_CLOCK = 2


@dataclass(frozen=True)
class Usage:
    """Memory in kB, of which `anonymous` is not backed by a file; CPU time in seconds."""

    rss: int
    anonymous: int
    cpu: float


@dataclass(frozen=True)
class Shares:
    """Memory in kB: the proportional share, and the private memory that was written to."""

    pss: int
    private_dirty: int


def usage(pid: int) -> Usage:
    text = Path(f"/proc/{pid}/status").read_text()
    return Usage(_kilobytes(text, "VmRSS"), _kilobytes(text, "RssAnon"),
                 time.clock_gettime(~pid << 3 | _CPU_CLOCK))


def shares(pid: int) -> Shares | None:
    """None if this user may not inspect a process that is not dumpable."""
    try:
        text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    except OSError:
        return None
    return Shares(_kilobytes(text, "Pss"), _kilobytes(text, "Private_Dirty"))


def _kilobytes(text: str, name: str) -> int:
    found = re.search(rf"^{name}:\s+(\d+) kB", text, re.MULTILINE)
    if not found:
        raise ValueError(f"no {name} in\n{text}")
    return int(found[1])


@dataclass(frozen=True)
class Process:
    pid: int
    parent: int
    name: str


def processes() -> list[Process]:
    return [process for file in Path("/proc").glob("[0-9]*/stat") for process in _parsed(file)]


def _parsed(file: Path) -> Iterator[Process]:
    try:
        head, _, tail = file.read_text().rpartition(")")
    except OSError:
        return  # It has ended.
    pid, _, name = head.partition(" (")
    yield Process(int(pid), int(tail.split()[1]), name)


def family(pid: int, of: list[Process]) -> list[Process]:
    """The process and its descendants."""
    return [*(process for process in of if process.pid == pid),
            *(one for process in of if process.parent == pid for one in family(process.pid, of))]
