"""Searches the daemon's memory from outside the device. The test may read it, because the user
namespace of the sandbox is its own."""

import os
import re
from collections.abc import Iterator
from pathlib import Path

from lab.device.device import Device

_STATUS_FIELD = re.compile(r"^(PPid|NSpid):\s+(.*)$", re.MULTILINE)
_REGION = re.compile(r"^(\w+)-(\w+) r\w*", re.ASCII)
# Larger regions are a sanitizer's shadow memory, without any text.
_LARGEST_REGION = 1 << 30


def _status(process: int) -> dict[str, str]:
    try:
        return dict(_STATUS_FIELD.findall(Path(f"/proc/{process}/status").read_text()))
    except OSError:
        return {}  # The process has ended.


def _is_ours(process: int) -> bool:
    while process > 1 and process != os.getpid():
        process = int(_status(process).get("PPid", "0"))
    return process == os.getpid()


def process_of(device: Device) -> Path:
    """The daemon's folder in the /proc of the test."""
    inside = str(device.event_log.events("daemon.started")[-1]["pid"])
    processes = [int(path.name) for path in Path("/proc").glob("[0-9]*")]
    [found] = [process for process in processes
               if _status(process).get("NSpid", "").split()[1:][-1:] == [inside]
               and _is_ours(process)]
    return Path(f"/proc/{found}")


def _regions(process: Path) -> Iterator[tuple[int, int]]:
    for line in (process / "maps").read_text().splitlines():
        if found := _REGION.match(line):
            first, last = (int(address, 16) for address in found.groups())
            if last - first <= _LARGEST_REGION:
                yield first, last


def found_in(device: Device, texts: dict[str, str]) -> set[str]:
    """The names of the texts that are anywhere in the daemon's memory."""
    process = process_of(device)
    found = set()
    with (process / "mem").open("rb", buffering=0) as memory:
        for first, last in _regions(process):
            try:
                memory.seek(first)
                content = memory.read(last - first)
            except (OSError, OverflowError):
                continue  # Pages of the kernel.
            found |= {name for name, text in texts.items() if text.encode() in content}
    return found
