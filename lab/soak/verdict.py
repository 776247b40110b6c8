"""Whether an hour left the daemon as it was."""

import statistics
from collections.abc import Iterable
from dataclasses import dataclass

from lab.soak.minute import is_quiet
from lab.soak.samples import Sample, fit

# Of the whole: before it, queues, caches and the allocator fill up for the first time.
WARM_UP = 0.2
# What memory may grow, of its mean, from the warm-up's end to the end.
MOST_GROWTH = 0.02
# The most that may be resident, in kB: half of the unit's MemoryMax, which counts more than that.
MOST_RESIDENT = 32 * 1024
# The median latency of the last third to that of the first.
MOST_SLOWDOWN = 1.5


@dataclass(frozen=True)
class Finding:
    what: str
    text: str
    good: bool


def memory(name: str, samples: list[Sample], values: Iterable[int]) -> Finding:
    trend = fit([sample.time for sample in samples], list(values))
    text = (f"{trend.mean:.0f} kB, {trend.growth:+.0f} kB over "
            f"{(samples[-1].time - samples[0].time) / 60:.0f} min (standard error "
            f"{trend.noise:.0f} kB)")
    return Finding(name, text, trend.growth <= MOST_GROWTH * trend.mean)


def peak(samples: list[Sample]) -> Finding:
    most = max(sample.peak for sample in samples)
    return Finding("peak", f"{most} kB resident at most", most <= MOST_RESIDENT)


def count(name: str, values: list[int]) -> Finding:
    """For bursts: compares the highest value of the last third with that of the first."""
    third = len(values) // 3
    first, last = max(values[:third]), max(values[-third:])
    return Finding(name, f"at most {first} at first, {last} at last", last <= first)


def latency(values: list[float]) -> Finding:
    third = len(values) // 3
    first, last = statistics.median(values[:third]), statistics.median(values[-third:])
    text = f"median {first * 1000:.2f} ms at first, {last * 1000:.2f} ms at last"
    return Finding("latency", text, last <= first * MOST_SLOWDOWN)


def points(expected: dict[int, float], seen: dict[int, int], recorded: int) -> Finding:
    """Those recorded long enough after a fault, and before the next, must have come; by number,
    with the second in which each was."""
    missing = sorted(expected.keys() - seen.keys())
    more = sum(times - 1 for times in seen.values())
    text = (f"{recorded} recorded, {len(seen)} uploaded ({more} times more than once); of the "
            f"{len(expected)} recorded in quiet times {len(missing)} are missing")
    return Finding("points", text + _first_of(missing, expected), not missing)


def _first_of(missing: list[int], seconds: dict[int, float]) -> str:
    if not missing:
        return ""
    minute, second = divmod(seconds[missing[0]], 60)
    return f", the first {missing[0]}, of minute {minute + 1:.0f}, second {second:.1f}"


def judge(samples: list[Sample]) -> list[Finding]:
    """Judges memory in quiet times only, since a flood temporarily needs ten times as much."""
    warm = [sample for sample in samples if sample.time >= samples[-1].time * WARM_UP]
    quiet = [sample for sample in warm if is_quiet(sample.time)]
    return [memory("RSS", quiet, [sample.rss for sample in quiet]),
            memory("anonymous", quiet, [sample.anonymous for sample in quiet]),
            peak(samples),
            count("descriptors", [sample.descriptors for sample in warm]),
            count("threads", [sample.threads for sample in warm])]
