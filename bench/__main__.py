"""Measures and prints one table: `python3 -m bench --build build/release [FIGURE…]`."""

import argparse
import json
import sys
import time
from pathlib import Path

from bench import binary, calls, rest, rival, uploads  # noqa: F401  Their figures.
from bench import plan
from bench.figures import Figure, table

_QUICK_RUNS = 3
_QUICK_SHRINK = 10


def _arguments(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="./dev bench", description="What the daemon costs, next to the floor and the goal.",
        epilog=f"Figures: {', '.join(plan.keys())}.")
    parser.add_argument("--build", type=Path, required=True, help="the build of target bench")
    parser.add_argument("--json", action="store_true", help="every run of every figure, as JSON")
    parser.add_argument("--quick", action="store_true", help="few runs, small loads: a rough look")
    parser.add_argument("--plot", type=Path, metavar="DIR", help="draw cost against load there")
    parser.add_argument("figures", nargs="*", metavar="FIGURE", help="these alone")
    arguments = parser.parse_args(argv)
    for key in arguments.figures:
        if key not in plan.keys():
            parser.error(f"no figure '{key}'; there are {', '.join(plan.keys())}")
    return arguments


def _measure(settings: plan.Settings, wanted: list[str]) -> list[Figure]:
    figures = []
    for measurement in plan.chosen(wanted):
        began = time.monotonic()
        figures += measurement.measure(settings)
        print(f"==> {', '.join(measurement.keys)}: {time.monotonic() - began:.0f} s",
              file=sys.stderr)
    return [figure for figure in figures if not wanted or figure.key in wanted]


def main(argv: list[str]) -> None:
    arguments = _arguments(argv)
    settings = plan.Settings(arguments.build.resolve())
    if arguments.quick:
        settings = plan.Settings(settings.build, _QUICK_RUNS, _QUICK_SHRINK)
    figures = _measure(settings, arguments.figures)
    if arguments.json:
        print(json.dumps([figure.as_json() for figure in figures], indent=1, ensure_ascii=False))
    else:
        print(table(figures))


main(sys.argv[1:])
