"""Reads the output of the kernel and of tools."""

import re

_MEMORY_LINE = re.compile(r"^(\w+):\s+(\d+) kB$", re.MULTILINE)
_PEAK_LINE = re.compile(r"^VmHWM:\s+(\d+) kB$", re.MULTILINE)
# The end of a mapping, and its size in kilobytes.
_MAPPING = re.compile(r"^[0-9a-f]+-([0-9a-f]+) .*\n(?:[A-Z].*\n)*?Private_Dirty: +(\d+) kB$",
                      re.MULTILINE)
_END_OF_32_BITS = 1 << 32
_RELOCATIONS = re.compile(r"^Relocation section .* contains (\d+) entr", re.MULTILINE)
_NEEDED = re.compile(r"\(NEEDED\) +Shared library: \[(.+)\]")
_PIDS_LINE = re.compile(r"^NSpid:.*\t(\d+)$", re.MULTILINE)
_PARENT_LINE = re.compile(r"^PPid:\t(\d+)$", re.MULTILINE)
_TOTAL_LINE = re.compile(r"^(?:summary|totals): (\d+)", re.MULTILINE)
# Of the fields behind "cpu".
_STOLEN = 7
_HEAP_LINE = re.compile(r"^\d+ points, (\d+) bytes$")
# "123 name(…", also of a call that is resumed later; not "<... name resumed>", "+++" and "---".
_CALL_LINE = re.compile(r"^(?:\d+\s+)?\w+\(", re.MULTILINE)


def cpu_microseconds(schedstats: str) -> float:
    """Of all the threads whose schedstat lines these are."""
    return sum(int(line.split()[0]) for line in _lines(schedstats)) / 1000


def times_run(schedstats: str) -> int:
    """How often the threads were given a processor."""
    return sum(int(line.split()[2]) for line in _lines(schedstats))


def _lines(text: str) -> list[str]:
    lines = text.split("\n")[:-1]
    if not lines:
        raise ValueError("no schedstat: the process is gone")
    return lines


def stolen_share(before: str, after: str) -> float:
    """Of the processors' time between two looks at /proc/stat: what the host of a virtual machine
    gave to others while this one had work."""
    spent = [later - earlier for earlier, later in zip(_ticks(before), _ticks(after), strict=True)]
    total = sum(spent)
    return spent[_STOLEN] / total if total else 0.0


def _ticks(stat: str) -> list[int]:
    # Those after the stolen are guests' and in the others already.
    return [int(field) for field in stat.splitlines()[0].split()[1:_STOLEN + 2]]


def memory_kilobytes(smaps_rollup: str) -> dict[str, int]:
    sizes = {name: int(size) for name, size in _MEMORY_LINE.findall(smaps_rollup)}
    if "Rss" not in sizes:
        raise ValueError("no smaps_rollup: the process is gone")
    return sizes


def heap_mapping_kilobytes(smaps: str) -> int:
    """The resident memory of the heap that grows at its end; large blocks are elsewhere."""
    _, found, mapping = smaps.partition(" [heap]\n")
    if not found:
        raise ValueError("no heap in the smaps: the process is gone")
    return memory_kilobytes(mapping.partition("\nVmFlags:")[0])["Rss"]


def emulated_dirty_kilobytes(smaps: str) -> int:
    """The private dirty memory that a 32-bit program has mapped, without its emulator's: qemu
    reserves the first 4 GiB of the address space for the program."""
    mappings = _MAPPING.findall(smaps)
    if not any(int(end, 16) == _END_OF_32_BITS for end, _ in mappings):
        raise ValueError("no program in the first 4 GiB of the process")
    return sum(int(dirty) for end, dirty in mappings if int(end, 16) <= _END_OF_32_BITS)


def relocations(readelf_output: str) -> int:
    """The dynamic relocations of a file, in the output of `readelf -r`."""
    return sum(int(count) for count in _RELOCATIONS.findall(readelf_output))


def needed_libraries(readelf_output: str) -> list[str]:
    """In the output of `readelf -d`."""
    return _NEEDED.findall(readelf_output)


def peak_kilobytes(status: str) -> int:
    """The most resident memory that the process has had."""
    found = _PEAK_LINE.search(status)
    if not found:
        raise ValueError("no peak in the status: the process is gone")
    return int(found[1])


def heap_kilobytes(queue_heap_output: str) -> float:
    found = _HEAP_LINE.match(queue_heap_output)
    if not found:
        raise ValueError(f"no heap in {queue_heap_output!r}")
    return int(found[1]) / 1024


def innermost_pid(status: str) -> int | None:
    """The process id in its own namespace."""
    found = _PIDS_LINE.search(status)
    return int(found[1]) if found else None


def parent_pid(status: str) -> str:
    """Empty when there is none."""
    found = _PARENT_LINE.search(status)
    return found[1] if found else ""


def instructions(callgrind_output: str) -> int:
    """The total of one dump of callgrind."""
    found = _TOTAL_LINE.search(callgrind_output)
    if not found:
        raise ValueError("no total in what callgrind wrote")
    return int(found[1])


def system_calls(strace_log: str) -> int:
    return len(_CALL_LINE.findall(strace_log))
