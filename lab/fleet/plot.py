"""Plots the run of a fleet."""

import statistics
from collections import Counter
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

from lab.fleet import figures
from lab.fleet.run import RunResult
from lab.fleet.usage import Usage

_WIDE = (10, 6.4)
_FLAT = (10, 4.2)
_OUTAGE = "#c44e52"
_CALM = ("#ffffff", "#f1f3f6")
_INK = ("#1f5fa8", "#d9822b", "#3a8f5c")
_BYTES_TO_A_KB = 1000


def draw(result: RunResult, folder: Path) -> None:
    import matplotlib  # Slow to load, and needed only here.

    matplotlib.use("Agg")
    matplotlib.rcParams.update({"axes.spines.top": False, "axes.spines.right": False,
                                "axes.grid": True, "grid.alpha": 0.3, "legend.frameon": False})
    folder.mkdir(parents=True, exist_ok=True)
    for name, size, rows, columns, panels in (
            ("load.png", _WIDE, 2, 1, (_requests, _bytes)),
            ("spread.png", _FLAT, 1, 2, (_spread, _recovered)),
            ("devices.png", _WIDE, 2, 1, (_memory, _processor)),
            ("cycles.png", _FLAT, 1, 2, (_handshakes, _bytes_of_a_cycle))):
        _draw(result, folder / name, size, (rows, columns), panels)


def _draw(result: RunResult, file: Path, size: tuple[float, float], grid: tuple[int, int],
          panels: Sequence[Callable[[Any, RunResult], None]]) -> None:
    from matplotlib import pyplot

    over_time = grid[0] > 1
    figure, axes = pyplot.subplots(*grid, figsize=size, sharex=over_time)
    for one, panel in zip(axes, panels, strict=True):
        panel(one, result)
    if over_time:
        _name_phases(axes, result)
        axes[-1].set_xlabel("seconds since power-up")
    figure.tight_layout()
    figure.savefig(file, dpi=100, metadata={"Software": None})
    pyplot.close(figure)


def _name_phases(axes: Sequence[Any], result: RunResult) -> None:
    for number, (phase, start, end) in enumerate(figures.spans(result)):
        outage = phase.mode.is_outage
        for one in axes:
            one.axvspan(start.time, end.time, color=_OUTAGE if outage else _CALM[number % 2],
                        alpha=0.15 if outage else 1.0, linewidth=0, zorder=0)
        axes[0].annotate(phase.name.replace(" ", "\n", 1).replace(", ", ",\n"),
                         ((start.time + end.time) / 2, 1.02),
                         xycoords=("data", "axes fraction"), ha="center", va="bottom", fontsize=8,
                         color=_OUTAGE if outage else "black")
    axes[0].set_xlim(0, result.end)


def _series(result: RunResult, what: str) -> tuple[list[int], list[int]]:
    counted = result.by_second.get(what, Counter())
    seconds = list(range(int(result.end) + 1))
    return seconds, [counted[second] for second in seconds]


def _requests(axes: Any, result: RunResult) -> None:
    axes.bar(*_series(result, "requests"), width=1.0, color=_INK[0], align="edge",
             label="requests in each second")
    mean = [(start.time, end.time, (end.reading - start.reading)["requests"]
             / (end.time - start.time)) for _, start, end in figures.spans(result)]
    for number, (start, end, value) in enumerate(mean):
        axes.hlines(value, start, end, color=_INK[1], linewidth=2.5,
                    label="" if number else "mean of the phase")
    axes.set_ylabel("requests per second")
    axes.legend(loc="upper left", fontsize=8)


def _bytes(axes: Any, result: RunResult) -> None:
    below: list[float] = [0.0] * (int(result.end) + 1)
    for what, label, ink in (("received", "to the cloud", _INK[0]),
                             ("sent", "from the cloud", _INK[1])):
        seconds, counted = _series(result, what)
        values = [value / _BYTES_TO_A_KB for value in counted]
        axes.bar(seconds, values, bottom=below, width=1.0, align="edge", color=ink,
                 label=f"{label} in each second, with TLS")
        below = values
    axes.set_ylabel("kB per second")
    axes.legend(loc="upper left", fontsize=8)


def _steps(axes: Any, values: Sequence[float], devices: int, ink: str, label: str) -> None:
    """The number of devices that were done, over time."""
    ordered = sorted(values)
    shares = [100 * number / devices for number in range(len(ordered) + 1)]
    axes.step([0.0, *ordered], shares, where="post", color=ink, linewidth=1.8, label=label)


def _spread(axes: Any, result: RunResult) -> None:
    places = figures.phases_of_ticks(result)
    _steps(axes, places["first"], len(result.devices), _INK[0], "first cycle")
    _steps(axes, places["last"], len(result.devices), _INK[1], "last cycle")
    axes.set_xlim(left=0)
    axes.set_xlabel(f"seconds after a whole number of intervals ({result.plan.interval} s)")
    axes.set_ylabel("devices whose cycle has begun, %")
    _name(axes, "After a common power-up")


def _recovered(axes: Any, result: RunResult) -> None:
    for one, ink in zip(figures.recoveries(result), _INK, strict=False):
        tokens = ", tokens expired" if one["refreshes"] else ""
        _steps(axes, one["seconds"], len(result.devices), ink,
               f"after {one['outage_intervals']:g} intervals{tokens}")
        if one["refreshes"]:
            _steps(axes, one["refresh_times"], len(result.devices), _INK[2],
                   "of these: token fetched")
    axes.set_xlabel("seconds after the end of the outage")
    axes.set_ylabel("devices, %")
    axes.set_xlim(left=0)
    _name(axes, "Points accepted again after an outage")


def _band(axes: Any, times: Sequence[float], rows: Sequence[Sequence[float]], ink: str,
          label: str) -> None:
    """The median over the devices, between the least and the most."""
    axes.plot(times, [statistics.median(row) for row in rows], color=ink, linewidth=1.6,
              label=f"{label}: median, least to most")
    axes.fill_between(times, [min(row) for row in rows], [max(row) for row in rows], color=ink,
                      alpha=0.25, linewidth=0)


def _memory(axes: Any, result: RunResult) -> None:
    times = [time for time, _ in result.samples]
    for take, label, ink in ((lambda one: one.rss, "RSS", _INK[0]),
                             (lambda one: one.anonymous, "anonymous", _INK[1])):
        _band(axes, times, [[take(one) / _BYTES_TO_A_KB for one in row]
                            for _, row in result.samples], ink, label)
    axes.set_ylim(bottom=0)
    axes.set_ylabel("memory of a daemon, MB")
    axes.legend(loc="center left", fontsize=8, ncol=2)


def _processor(axes: Any, result: RunResult) -> None:
    """Since the power-up was over, so that its cost doesn't hide the rest."""
    start = result.phases[1][1]
    after = [(time, row) for time, row in result.samples if time >= start.time]

    def spent(row: Sequence[Usage]) -> list[float]:
        return [1000 * (one.cpu - before.cpu)
                for one, before in zip(row, start.usages, strict=True)]

    _band(axes, [time for time, _ in after], [spent(row) for _, row in after], _INK[0],
          "CPU time since the power-up")
    axes.set_ylim(bottom=0)
    axes.set_ylabel("CPU time of a daemon, ms")
    axes.legend(loc="upper left", fontsize=8)


def _name(axes: Any, title: str) -> None:
    """With the legend below the title, where no line can pass."""
    axes.set_title(title, fontsize=10, pad=22)
    axes.legend(loc="lower center", bbox_to_anchor=(0.5, 1.0), ncol=3, fontsize=7.5,
                handlelength=1.2, columnspacing=1.2)


def _bars(axes: Any, result: RunResult, parts: Sequence[tuple[str, str]], title: str,
          label: str) -> None:
    phases = [one for one in figures.of_phases(result) if one["requests"]]
    names = [one["name"].replace(", ", ",\n") for one in phases]
    left = [0.0] * len(phases)
    for (key, label), ink in zip(parts, _INK, strict=False):
        values = [one["per_cycle"][key] for one in phases]
        axes.barh(names, values, left=left, color=ink, height=0.6, label=label)
        left = [before + value for before, value in zip(left, values, strict=True)]
    axes.invert_yaxis()
    axes.grid(axis="y", alpha=0)
    axes.set_xlabel(label)
    _name(axes, title)


def _handshakes(axes: Any, result: RunResult) -> None:
    _bars(axes, result, (("full_handshakes", "full"), ("resumed_handshakes", "resumed")),
          "Handshakes", "TLS handshakes per cycle")


def _bytes_of_a_cycle(axes: Any, result: RunResult) -> None:
    _bars(axes, result, (("bytes_received", "to the cloud"), ("bytes_sent", "from the cloud")),
          "Bytes", "bytes per cycle, with TLS")
