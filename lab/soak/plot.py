"""Plots the samples of the run."""

from pathlib import Path

from lab.soak.minute import MINUTE
from lab.soak.run import Soak

_INCHES = (9, 8)


def draw(soak: Soak, file: Path) -> None:
    import matplotlib  # Slow to load, and needed only here.

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, (memory, counts, latency) = pyplot.subplots(3, 1, sharex=True, figsize=_INCHES)
    times = [sample.time / MINUTE for sample in soak.samples]
    memory.plot(times, [sample.rss / 1000 for sample in soak.samples], label="RSS")
    memory.plot(times, [sample.anonymous / 1000 for sample in soak.samples],
                label="anonymous")
    memory.set_ylabel("memory, MB")
    counts.plot(times, [sample.descriptors for sample in soak.samples],
                label="room for descriptors")
    counts.plot(times, [sample.threads for sample in soak.samples], label="threads")
    counts.set_ylabel("number")
    latency.plot([at / MINUTE for at, _ in soak.load.latencies],
                 [took * 1000 for _, took in soak.load.latencies], ".", markersize=2,
                 label="synchronous call")
    latency.set_yscale("log")
    latency.set_ylabel("latency, ms")
    latency.set_xlabel("minutes; each begins with a fault")
    for axes in (memory, counts, latency):
        axes.grid(alpha=0.3)
        axes.legend(loc="center right")
    for axes in (memory, counts):
        axes.set_ylim(bottom=0)
    figure.tight_layout()
    file.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(file, dpi=100, metadata={"Software": None})
