"""What the daemons take of the machine, as its kernel tells."""

import re
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

# The clock of the CPU time of a whole process, its ended threads included: the kernel's number for
# it is made of the process's.
_CPU_CLOCK = 2


@dataclass(frozen=True)
class Usage:
    """Memory in kB, `anonymous` being what no file backs; CPU time in seconds."""

    rss: int
    anonymous: int
    cpu: float


@dataclass(frozen=True)
class Shares:
    """Of memory that may be shared, in kB: in proportion to those who share it, and what is the
    process's alone and written to."""

    pss: int
    private_dirty: int


def usage(pid: int) -> Usage:
    text = Path(f"/proc/{pid}/status").read_text()
    return Usage(_kilobytes(text, "VmRSS"), _kilobytes(text, "RssAnon"),
                 time.clock_gettime(~pid << 3 | _CPU_CLOCK))


def shares(pid: int) -> Shares | None:
    """None where the machine doesn't let us look into a process that may not be dumped."""
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
    """This process, those that it has started, and those that they have."""
    return [*(process for process in of if process.pid == pid),
            *(one for process in of if process.parent == pid for one in family(process.pid, of))]
