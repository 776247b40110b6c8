"""What the daemon takes of the machine, read now and then, and whether it grows."""

import re
import statistics
from collections.abc import Sequence
from dataclasses import dataclass

from lab.common.errors import LabError
from lab.device.device import Device


@dataclass(frozen=True)
class Sample:
    """At a time in seconds since the load began. Memory in kB; `anonymous` is what no file backs,
    `peak` the most that was ever resident, and `descriptors` how many the kernel has made room for,
    since a process that may not be dumped doesn't show them."""

    time: float
    rss: int
    anonymous: int
    peak: int
    descriptors: int
    threads: int


def take(device: Device, process: int, now: float) -> Sample:
    status = device.run("cat", f"/proc/{process}/status")
    if status.code:
        raise LabError(f"The daemon can't be looked at: {status.errors}")
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
    """By least squares. Takes three values or more, at different times."""
    slope, intercept = statistics.linear_regression(times, values)
    residues = [value - (intercept + slope * time)
                for time, value in zip(times, values, strict=True)]
    spread = sum((time - statistics.fmean(times)) ** 2 for time in times)
    error = (sum(residue ** 2 for residue in residues) / (len(times) - 2) / spread) ** 0.5
    duration = max(times) - min(times)
    return Trend(statistics.fmean(values), slope * duration, error * duration)
