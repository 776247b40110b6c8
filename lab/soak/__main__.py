"""python3 -m lab.soak [MINUTES]: exits with 0 if the daemon neither grows nor slows down."""

import argparse
from pathlib import Path

from lab.common import results
from lab.device.device import Device, find_daemon
from lab.soak import plot
from lab.soak.faults import FAULTS
from lab.soak.run import Soak

_CHART = Path("build/soak/soak.png")
# A shorter run has too few samples of quiet times to find a trend in.
_LEAST_MINUTES = 4


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev soak", description=__doc__)
    parser.add_argument("minutes", nargs="?", type=float, default=60.0,
                        help=f"one fault is injected per minute; there are {len(FAULTS)}")
    arguments = parser.parse_args()
    if arguments.minutes < _LEAST_MINUTES:
        parser.error(f"give at least {_LEAST_MINUTES} minutes: a shorter run has too few samples")
    with Device(find_daemon()) as device:
        soak = Soak(device, arguments.minutes)
        soak.run()
        findings = soak.findings()
    plot.draw(soak, _CHART)
    lines = [f"{'ok ' if finding.good else 'BAD'}  {finding.what:14} {finding.text}"
             for finding in findings]
    print("\n".join(lines))
    print(f"The chart is {_CHART}")
    passed = all(finding.good for finding in findings)
    results.keep("soak", f"./dev soak {arguments.minutes:g}", passed, lines)
    return 0 if passed else 1


if __name__ == "__main__":
    raise SystemExit(main())
