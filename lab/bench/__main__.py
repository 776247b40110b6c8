"""Measures and prints one table: `python3 -m lab.bench --build build/release [FIGURE…]`."""

import argparse
import json
import os
import subprocess
import sys
import time
import traceback
from pathlib import Path

from lab.bench import cycle, parse, plan, plot, uploads
from lab.bench.figures import Figure, Verdict, table
from lab.common import results
from lab.common.errors import LabError

_QUICK_RUNS = 3
_QUICK_SHRINK = 10
# The load average up to which the machine counts as idle.
_MOST_OTHER_WORK = 0.7
# The share of processor time that the host of a virtual machine may withhold.
_MOST_STOLEN = 0.01
_STAT = Path("/proc/stat")


def _arguments(argv: list[str]) -> argparse.Namespace:
    plan.register_all()
    parser = argparse.ArgumentParser(
        prog="./dev bench", description="Measures the daemon next to a baseline and a goal.",
        epilog=f"Figures: {', '.join(plan.keys())}.")
    parser.add_argument("--build", type=Path, required=True, help="the build of target bench")
    parser.add_argument("--json", action="store_true", help="every run of every figure, as JSON")
    parser.add_argument("--quick", action="store_true", help="few runs, small loads: rough figures")
    parser.add_argument("--plot", type=Path, metavar="DIR",
                        help="only plot cost against load, into DIR")
    parser.add_argument("--profile", type=Path, metavar="DIR",
                        help="only profile a cycle of 1000 points and POSTs of its body, next to"
                        " the baseline's, into DIR, for callgrind_annotate")
    parser.add_argument("figures", nargs="*", metavar="FIGURE", help="only these")
    arguments = parser.parse_args(argv)
    for key in arguments.figures:
        if key not in plan.keys():
            parser.error(f"no figure '{key}'; there are {', '.join(plan.keys())}")
    return arguments


def _measure(settings: plan.Settings, wanted: list[str]) -> list[Figure]:
    figures = []
    for measurement in plan.chosen(wanted):
        began = time.monotonic()
        figures += _measured(measurement, settings)
        print(f"==> {', '.join(measurement.keys)}: {time.monotonic() - began:.0f} s",
              file=sys.stderr)
    return [figure for figure in figures if not wanted or figure.key in wanted]


def _measured(measurement: plan.Measurement, settings: plan.Settings) -> list[Figure]:
    """A failed measurement yields a figure with the reason; the others continue."""
    try:
        return measurement.measure(settings)
    except (LabError, OSError, RuntimeError, ValueError, subprocess.SubprocessError) as error:
        traceback.print_exc()
        reason = str(error).partition("\n")[0]
        return [Figure(key, "failed", "", why=reason) for key in measurement.keys]


def _warn_of_other_work() -> None:
    load = os.getloadavg()[0]
    if load > _MOST_OTHER_WORK:
        print(f"==> other work is running (load average {load:.1f}): expect more CPU time and far "
              "longer latencies than on a quiet machine", file=sys.stderr)


def _warn_of_stolen_time(stat_before: str) -> None:
    share = parse.stolen_share(stat_before, _STAT.read_text())
    if share > _MOST_STOLEN:
        print(f"==> the host of this machine withheld {share:.0%} of its processor time: expect "
              "single calls that take very long", file=sys.stderr)


def _profile(settings: plan.Settings, folder: Path) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    cycle.profile(settings, folder)
    uploads.profile(settings, folder)


def main(argv: list[str]) -> None:
    arguments = _arguments(argv)
    settings = plan.Settings(arguments.build.resolve())
    _warn_of_other_work()
    stat = _STAT.read_text()
    if arguments.quick:
        settings = plan.Settings(settings.build, _QUICK_RUNS, _QUICK_SHRINK)
    if arguments.plot:
        return plot.draw(settings, arguments.plot)
    if arguments.profile:
        return _profile(settings, arguments.profile)
    figures = _measure(settings, arguments.figures)
    _warn_of_stolen_time(stat)
    if arguments.json:
        print(json.dumps([figure.as_json() for figure in figures], indent=1, ensure_ascii=False))
    else:
        print(table(figures))
    if not arguments.figures and not arguments.quick:
        met = all(figure.verdict in (Verdict.MET, Verdict.NO_GOAL) for figure in figures)
        results.keep("bench", "./dev bench", met, table(figures).splitlines())


main(sys.argv[1:])
