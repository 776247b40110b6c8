"""The registered measurements, and the settings of a run."""

import importlib
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path

from lab.bench.figures import Figure


@dataclass(frozen=True)
class Settings:
    """The folder of the programs, the number of runs, and the divisor of loads in a quick run."""

    build: Path
    runs: int = 7
    shrink: int = 1

    def scaled(self, count: int) -> int:
        return max(count // self.shrink, 1)


@dataclass(frozen=True)
class Measurement:
    keys: tuple[str, ...]
    measure: Callable[[Settings], list[Figure]]


# In the order of the table.
_MODULES = ("calls", "uploads", "cycle", "rest", "stream", "collectd", "binary", "cloud")

_measurements: list[Measurement] = []


def register_all() -> None:
    """Imports every module with measurements; each registers its own."""
    for module in _MODULES:
        importlib.import_module(f"lab.bench.{module}")


def measures(*keys: str) -> Callable:
    """Registers a function as the measurement of these figures."""
    def note(measure: Callable[[Settings], list[Figure]]) -> Callable:
        _measurements.append(Measurement(keys, measure))
        return measure
    return note


def keys() -> list[str]:
    return [key for measurement in _measurements for key in measurement.keys]


def chosen(wanted: Sequence[str]) -> list[Measurement]:
    """The measurements of the wanted figures; all if none is named."""
    return [measurement for measurement in _measurements
            if not wanted or set(wanted) & set(measurement.keys)]
