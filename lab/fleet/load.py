"""Runs many simulated devices against one instance of the reference cloud, and checks that each
accepted record is stored once.

    ./dev fleet --reference [--devices 10000] [--interval 60] [--minutes 5] [--points 50]
"""

import argparse
import asyncio
import itertools
import json
import statistics
import sys
import time
from pathlib import Path
from typing import Any

from cloud.process import Cloud, CloudFailed
from lab.cloud.load import LoadDevice, Tally, cpu_seconds, devices_of, unexplained

_CODES_AT_ONCE = 1000
_SHOWN = 10


def arguments(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="./dev fleet --reference", description="Runs simulated "
                                     "devices against one instance of the reference cloud.")
    parser.add_argument("--devices", type=int, default=10_000)
    parser.add_argument("--interval", type=float, default=60, help="seconds (default: 60)")
    parser.add_argument("--minutes", type=float, default=5, help="after power-up (default: 5)")
    parser.add_argument("--points", type=int, default=50, help="of a cycle (default: 50)")
    parser.add_argument("--log-every", type=int, default=2, metavar="CYCLES",
                        help="a log in each so many cycles (default: 2)")
    parser.add_argument("--output", type=Path, metavar="FILE", help="the result as JSON")
    return parser.parse_args(argv)


async def _live(device: LoadDevice, code: str, secret: str, began: float, first: float,
                wanted: argparse.Namespace) -> None:
    """From its power-up, `first` seconds after `began`, to the end."""
    end = wanted.interval + wanted.minutes * 60
    await asyncio.sleep(began + first - time.monotonic())
    if not await device.provision(code, secret):
        return
    for cycle in itertools.count(1):
        due = first + cycle * wanted.interval
        if due > end:
            break
        await asyncio.sleep(began + due - time.monotonic())
        await device.cycle(wanted.points, cycle % wanted.log_every == 0)
    await device.settle()
    await device.close()


async def _run(cloud: Cloud, devices: list[LoadDevice], wanted: argparse.Namespace) -> None:
    secret = cloud.client_secret_file.read_text()
    codes = [code for first in range(0, len(devices), _CODES_AT_ONCE)
             for code in cloud.provision_all(
                 [one.device for one in devices[first:first + _CODES_AT_ONCE]])]
    began = time.monotonic()
    await asyncio.gather(*(
        _live(device, code, secret, began, number * wanted.interval / len(devices), wanted)
        for number, (device, code) in enumerate(zip(devices, codes, strict=True))))


def _result(tally: Tally, cpu: dict[str, float], faults: list[str],
            wanted: argparse.Namespace) -> dict[str, Any]:
    return {"devices": wanted.devices, "interval": wanted.interval, "points": wanted.points,
            "requests": tally.requests, "failures": dict(tally.failures),
            "median_ms": round(1000 * statistics.median(tally.delays), 1),
            "longest_ms": round(1000 * max(tally.delays), 1),
            # The service's include power-up: a full handshake and an exchange of each device.
            "cpu_ms_per_request": {part: round(1000 * spent / tally.requests, 3)
                                   for part, spent in cpu.items()},
            "unexplained": len(faults)}


def measured(cloud: Cloud, wanted: argparse.Namespace) -> tuple[dict[str, Any], list[str]]:
    """The result, and the records that are lost or stored twice."""
    tally = Tally()
    devices = devices_of(cloud, wanted.devices, tally)
    before = cpu_seconds(cloud)
    asyncio.run(_run(cloud, devices, wanted))
    cpu = {part: now - before[part] for part, now in cpu_seconds(cloud).items()}
    faults = unexplained(cloud, devices)
    return _result(tally, cpu, faults, wanted), faults


def main(argv: list[str]) -> int:
    wanted = arguments(argv)
    try:
        with Cloud() as cloud:
            result, faults = measured(cloud, wanted)
    except CloudFailed as error:
        print(f"fleet: {error}", file=sys.stderr)
        return 2
    text = json.dumps(result, indent=1)
    print("\n".join([*faults[:_SHOWN], text]))
    if wanted.output:
        wanted.output.write_text(text + "\n")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
