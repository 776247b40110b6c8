"""Samples of the daemon's resources, and their growth."""

import re
import statistics
from collections.abc import Sequence
from dataclasses import dataclass

from lab.common.errors import LabError
from lab.device.device import Device


@dataclass(frozen=True)
class Sample:
    """`time` is in seconds since the load began. Memory is in kB: `anonymous` is not backed by
    files, `peak` is the highest resident memory. `descriptors` is the size of the kernel's table,
    since a process that is not dumpable does not show its descriptors."""

    time: float
    rss: int
    anonymous: int
    peak: int
    descriptors: int
    threads: int


def take(device: Device, process: int, now: float) -> Sample:
    status = device.run("cat", f"/proc/{process}/status")
    if status.code:
        raise LabError(f"Unable to read the daemon's status: {status.errors}")
    return parse(status.output, now)


def parse(text: str, now: float) -> Sample:
    def number(name: str) -> int:
        found = re.search(rf"^{name}:\s+(\d+)", text, re.MULTILINE)
        if not found:
            raise LabError(f"No {name} in\n{text}")
        return int(found[1])

    return Sample(now, number("VmRSS"), number("RssAnon"), number("VmHWM"), number("FDSize"),
                  number("Threads"))


@dataclass(frozen=True)
class Trend:
    """A straight line through a series. `growth` is what it gains from the first time to the
    last; `noise` the standard error of that."""

    mean: float
    growth: float
    noise: float


def fit(times: Sequence[float], values: Sequence[float]) -> Trend:
    """By least squares, of at least three values at different times."""
    slope, intercept = statistics.linear_regression(times, values)
    residues = [value - (intercept + slope * time)
                for time, value in zip(times, values, strict=True)]
    spread = sum((time - statistics.fmean(times)) ** 2 for time in times)
    error = (sum(residue ** 2 for residue in residues) / (len(times) - 2) / spread) ** 0.5
    duration = max(times) - min(times)
    return Trend(statistics.fmean(values), slope * duration, error * duration)
