"""python3 -m lab.fleet: exits with 0 if every record is accounted for."""

import argparse
import asyncio
import signal
import sys
from pathlib import Path

from lab.common.errors import LabError
from lab.device import sandbox
from lab.device.device import find_daemon
from lab.fleet import figures, plot, report
from lab.fleet.plan import INTERVALS, Plan
from lab.fleet.run import Fleet, RunResult

_FOLDER = Path("build/fleet")
_LEAST_MINUTES = INTERVALS / 60


def _arguments(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="./dev fleet", description="Runs many devices against one cloud, through a power-up "
        f"and two outages, and reports their cost. A run lasts {INTERVALS} upload intervals.")
    parser.add_argument("--devices", type=int, default=100, metavar="N", help="default: 100")
    parser.add_argument("--minutes", type=float, default=10.0, metavar="M", help="default: 10")
    parser.add_argument("--rate", type=float, default=1.0,
                        help="records per second and device (default: 1)")
    parser.add_argument("--output", type=Path, default=_FOLDER, metavar="FOLDER",
                        help=f"of the report and its plots (default: {_FOLDER})")
    parser.add_argument("--daemon", type=Path, default=find_daemon(),
                        help="the daemon's binary (default: the release build's)")
    arguments = parser.parse_args(argv)
    if arguments.devices < 1 or arguments.rate <= 0:
        parser.error("at least one device, and a rate above 0")
    if not arguments.daemon.is_file():
        parser.error(f"no daemon at {arguments.daemon}")
    if arguments.minutes < _LEAST_MINUTES:
        parser.error(f"{_LEAST_MINUTES:.2f} minutes at least, so that an interval lasts a second")
    return arguments


async def _run(plan: Plan, daemon: Path) -> RunResult:
    # SIGTERM ends the sandboxes, too, like Ctrl-C.
    task = asyncio.current_task()
    assert task
    asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, task.cancel)
    return await Fleet(plan, daemon, lambda line: print(line, flush=True)).run()


def main(argv: list[str]) -> int:
    arguments = _arguments(argv)
    plan = Plan.of(arguments.devices, arguments.minutes, arguments.rate)
    try:
        sandbox.check()
        result = asyncio.run(_run(plan, arguments.daemon))
    except LabError as error:
        print(f"The fleet failed. {error}", file=sys.stderr)
        return 2
    except (KeyboardInterrupt, asyncio.CancelledError):
        print("\nStopped; all devices are removed", file=sys.stderr)
        return 130
    content = report.made(result, figures.accounting(result))
    report.write(content, arguments.output)
    plot.draw(result, arguments.output)
    print(f"\n{report.text(content)}\n\nThe report is in {arguments.output}")
    return 0 if content["balance"]["adds_up"] else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
