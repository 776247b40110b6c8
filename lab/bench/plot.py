"""Plots the costs of the daemon against the rate of recorded points."""

from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from lab.bench.testbed import BASELINE_SERVICE, Testbed, Process
from lab.bench.plan import Settings
from lab.common.names import DAEMON_SERVICE

_RATES = (1, 10, 100, 1000, 2000, 5000, 10_000, 20_000, 50_000)
_SECONDS = 4.0
_INCHES = (8, 4.5)


@dataclass(frozen=True)
class Load:
    """The cost at a rate: shares of one processor in per cent, and memory in MB."""

    reached: float
    service: float
    bus: float
    baseline: float
    rss: float
    private: float


def draw(settings: Settings, folder: Path) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    loads = measure(settings)
    _draw(folder / "cpu.png", loads, "share of one processor, %",
          {"daemon": lambda load: load.service, "no-op service": lambda load: load.baseline,
           "bus, with the daemon": lambda load: load.bus})
    _draw(folder / "memory.png", loads, "memory of the daemon, MB",
          {"RSS": lambda load: load.rss, "private dirty": lambda load: load.private})


def measure(settings: Settings) -> list[Load]:
    """With a tick each second."""
    with Testbed(settings.build, interval=1) as testbed:
        daemon, baseline, bus = testbed.start_daemon(), testbed.start_baseline(), testbed.bus()
        loads = [_load(testbed, rate, _SECONDS / settings.shrink, daemon, baseline, bus)
                 for rate in _RATES]
    # On a busy machine the reached rates may be in another order than the requested ones.
    return sorted(loads, key=lambda load: load.reached)


def _load(testbed: Testbed, rate: int, seconds: float, daemon: Process, baseline: Process,
          bus: Process) -> Load:
    count = max(round(rate * seconds), 2)
    before = daemon.cpu(), bus.cpu()
    result = testbed.call(DAEMON_SERVICE, "rate", rate, count)
    service, on_bus = daemon.cpu() - before[0], bus.cpu() - before[1]
    memory = daemon.memory()
    before_baseline = baseline.cpu()
    baseline_result = testbed.call(BASELINE_SERVICE, "rate", rate, count)

    def share(microseconds: float, result: dict[str, float]) -> float:
        return microseconds / result["seconds"] / 1e6 * 100

    return Load(result["calls"] / result["seconds"], share(service, result), share(on_bus, result),
                share(baseline.cpu() - before_baseline, baseline_result), memory["Rss"] / 1000,
                memory["Private_Dirty"] / 1000)


def _draw(file: Path, loads: list[Load], label: str,
          lines: dict[str, Callable[[Load], float]]) -> None:
    import matplotlib  # Slow to load, and needed only here.

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, axes = pyplot.subplots(figsize=_INCHES)
    for name, value in lines.items():
        axes.plot([load.reached for load in loads], [value(load) for load in loads], "o-",
                  label=name)
    axes.set_xscale("log")
    axes.set_ylim(bottom=0)
    axes.set_xlabel("points recorded per second")
    axes.set_ylabel(label)
    axes.grid(alpha=0.3)
    axes.legend()
    figure.tight_layout()
    figure.savefig(file, dpi=100, metadata={"Software": None})
