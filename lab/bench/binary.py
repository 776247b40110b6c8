"""The daemon for 32-bit ARM, as packaged and lean: its size on disk, the relocations of its start,
and its memory. The baseline is the linked service, with the libraries of Debian."""

import shutil
import subprocess
import tempfile
from pathlib import Path

from lab.bench import built, parse
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.bench.testbed import Testbed
from lab.common import names
from lab.common.architectures import named
from lab.common.tree import ROOT

_ARM = named("armhf")
_STRIP = f"{_ARM.triplet}-strip"
_BASELINE = ROOT / "build/armhf/lab/bench/baseline_linked"
_BASELINE_URL = f"https://{names.Host.MONITORING}/baseline"
_MAKES_BASELINE = "cmake --build --preset armhf --target bench makes the baseline"
_FIGURES = (("size", "stripped binary", "kB"),
            ("files", "the binary and all libraries that it loads", "kB"),
            ("relocations", "relocations that the loader processes", "count"),
            ("dirty", "idle private dirty under emulation", "kB"))


def _keys(build: str) -> tuple[str, ...]:
    return tuple(f"{build}-{figure}" for figure, _, _ in _FIGURES)


@measures(*_keys("armhf"))
def packaged(settings: Settings) -> list[Figure]:
    return _figures(settings, "armhf", "./dev build armhf",
                    (Goal(400, of_ratio=False), Goal(1.05), Goal(1.1), Goal(1.15)))


@measures(*_keys("lean-armhf"))
def lean(settings: Settings) -> list[Figure]:
    return _figures(settings, "lean-armhf", "./dev lean armhf",
                    (Goal(1000, of_ratio=False), Goal(0.6), Goal(0.6), Goal(0.6)))


def _figures(settings: Settings, build: str, made_by: str, goals: tuple[Goal, ...]) -> list[Figure]:
    daemon, why = built.program(build, made_by)
    if not why and not shutil.which(_STRIP):
        why = f"there is no {_STRIP}"
    if not why and not _BASELINE.is_file():
        why = _MAKES_BASELINE
    measured = [()] * len(_FIGURES) if why else _measured(settings, daemon)
    return [Figure(f"{build}-{figure}", f"{build}: {what}", unit, goal, *sides, why=why)
            for (figure, what, unit), goal, sides in zip(_FIGURES, goals, measured)]


def _measured(settings: Settings, daemon: Path) -> list[tuple]:
    """By figure, the daemon's value and the baseline's."""
    sides = [_files(program) for program in (daemon, _BASELINE)]
    return [(_sizes(sides[0][:1]),), tuple(map(_sizes, sides)), tuple(map(_relocations, sides)),
            _dirty(settings, daemon)]


def _files(program: Path) -> list[Path]:
    """The program and every library that its start loads."""
    found = [program]
    for file in found:
        for library in parse.needed_libraries(_readelf("-dW", file)):
            path = _library(library)
            if path not in found:
                found.append(path)
    return found


def _library(name: str) -> Path:
    folders = [_ARM.default_sysroot / folder / _ARM.triplet for folder in ("lib", "usr/lib")]
    [path, *_] = [folder / name for folder in (*folders, _ARM.default_sysroot / "lib")
                  if (folder / name).exists()]
    return path.resolve()


def _readelf(option: str, file: Path) -> str:
    return subprocess.run(["readelf", option, file], capture_output=True, text=True,
                          check=True).stdout


def _sizes(files: list[Path]) -> tuple[float]:
    """Stripped, in kilobytes."""
    total = 0
    with tempfile.TemporaryDirectory() as folder:
        for file in files:
            stripped = Path(folder) / "stripped"
            subprocess.run([_STRIP, "-o", stripped, file], check=True)
            total += stripped.stat().st_size
    return (total / 1000,)


def _relocations(files: list[Path]) -> tuple[int]:
    return (sum(parse.relocations(_readelf("-rW", file)) for file in files),)


def _dirty(settings: Settings, daemon: Path) -> tuple[tuple[int, ...], tuple[int, ...]]:
    with Testbed(settings.build, daemon=daemon, linked_baseline=_BASELINE) as testbed:
        ours = testbed.start_daemon().emulated_dirty()
        baseline = testbed.start_linked_baseline(_BASELINE_URL).emulated_dirty()
    return (ours,), (baseline,)
