"""Projects the measured figures of a fleet to any number of devices.

    python3 -m lab.fleet.projection docs/fleet/report.json --devices 1000000 --interval 600 \\
      --cloud docs/fleet/cloud.json
"""

import argparse
import dataclasses
import json
import math
import sys
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any

# The daemon's own limits.
_REFRESH_SECONDS = 30
_OLDEST_SECONDS = 30 * 60
_MOST_POINTS = 1000
_MONTH_SECONDS = 30 * 86400
_DAY_SECONDS = 86400
# Long enough for intervals of whole seconds to coincide again.
_COUNTED_DAYS = 10
# The share of a processor that is planned for, u.
_MOST_USED = 0.5
# Into which the devices of one interval are divided.
_STEPS = 6


@dataclass(frozen=True)
class Measured:
    """Bytes. `exchange` is a request and its answer on an open connection, without the request's
    body; `connection` is a new connection with a resumed handshake, from its first segment to its
    last. Both include the headers of TLS, TCP and IP."""

    request: float
    point: float
    log: float
    exchange: float
    connection: float

    @staticmethod
    def of(report: dict[str, Any]) -> "Measured":
        """From the two phases that differ only in whether connections are kept: their bytes beyond
        the bodies are a number of exchanges and a number of connections."""
        phases = {phase["name"]: phase["per_cycle"] for phase in report["phases"]}
        kept, closed = (phases[name] for name in ("connections kept", "connections closed"))
        beyond = [phase["wire_bytes"] - phase["body_bytes"] for phase in (kept, closed)]
        determinant = (kept["requests"] * closed["connections"]
                       - closed["requests"] * kept["connections"])
        sizes = report["request"]
        return Measured(
            sizes["bytes_per_request"], sizes["bytes_per_point"], sizes["bytes_per_log"],
            (beyond[0] * closed["connections"] - beyond[1] * kept["connections"]) / determinant,
            (beyond[1] * kept["requests"] - beyond[0] * closed["requests"]) / determinant)


@dataclass(frozen=True)
class Case:
    """A fleet to project to. Times are in seconds."""

    devices: int = 1_000_000
    interval: float = 600.0
    points: float = 60.0
    logs: float = 0.5
    connections: float = 1.5
    spread: float = 30.0
    token_life: float = 3600.0
    outage: float = 900.0
    clock_ppm: float = 20.0
    override_spread: float = 30.0


@dataclass(frozen=True)
class CloudCost:
    """Of one request to the reference cloud: seconds of a processor, by its parts."""

    service: float
    postgresql: float
    victoria_metrics: float

    @staticmethod
    def of(result: dict[str, Any]) -> "CloudCost":
        """From a run of lab/fleet/load.py."""
        cost = result["cpu_ms_per_request"]
        return CloudCost(cost["service"] / 1000, cost["postgresql"] / 1000,
                         cost["victoria-metrics"] / 1000)


@dataclass(frozen=True)
class Line:
    what: str
    formula: str
    value: str


def cycle_bytes(measured: Measured, case: Case, points: float) -> float:
    """On the wire, both ways."""
    return (case.connections * measured.connection + (1 + case.logs) * measured.exchange
            + measured.request + points * measured.point + case.logs * measured.log)


def points_after(case: Case) -> float:
    """In the first request after the outage."""
    return min(_MOST_POINTS, case.points * (1 + min(case.outage, _OLDEST_SECONDS) / case.interval))


def cloud_lines(cost: CloudCost, case: Case) -> Iterator[Line]:
    """An instance uses one processor; each processor is used up to a share."""
    requests = case.devices * (1 + case.logs)

    def line(what: str, formula: str, period: float, each: float) -> Line:
        count = math.ceil(requests * each / period / _MOST_USED)
        return Line(what, formula, _number(count))

    yield line("instances, mean", "N (1 + L) k / (I u)", case.interval, cost.service)
    yield line("instances, in phase", "N (1 + L) k / (S u)", case.spread, cost.service)
    yield line("processors of PostgreSQL, mean", "N (1 + L) g / (I u)", case.interval,
               cost.postgresql)
    yield line("processors of VictoriaMetrics, mean", "N (1 + L) v / (I u)", case.interval,
               cost.victoria_metrics)


def cloud_table(cost: CloudCost, case: Case) -> str:
    return _markdown(cloud_lines(cost, case))


def cloud_inputs(cost: CloudCost) -> str:
    rows = [("k", "the service", cost.service), ("g", "PostgreSQL", cost.postgresql),
            ("v", "VictoriaMetrics", cost.victoria_metrics)]
    return "\n".join(["| | processor time of a request in | measured |", "|---|---|---|",
                      *(f"| {name} | {what} | {1000 * value:.3g} ms |"
                        for name, what, value in rows)])


def lines(measured: Measured, case: Case) -> Iterator[Line]:
    yield from _of_requests(case)
    yield from _of_bytes(measured, case)
    yield from _of_tokens(case)
    yield from _of_outages(measured, case)
    yield from _of_phases(case)


def _of_requests(case: Case) -> Iterator[Line]:
    requests, each = case.devices * (1 + case.logs), case.devices * case.connections
    yield Line("requests, mean", "N (1 + L) / I", f"{_number(requests / case.interval)} /s")
    yield Line("requests, in phase", "N (1 + L) / S", f"{_number(requests / case.spread)} /s")
    yield Line("handshakes, mean", "N c / I", f"{_number(each / case.interval)} /s")
    yield Line("handshakes, in phase", "N c / S", f"{_number(each / case.spread)} /s")
    yield Line("peak to mean, in phase", "I / S", f"{_number(case.interval / case.spread)}")


def _of_bytes(measured: Measured, case: Case) -> Iterator[Line]:
    cycle = cycle_bytes(measured, case, case.points)
    month = cycle * _MONTH_SECONDS / case.interval
    bits = case.devices * cycle * 8
    yield Line("bytes of a cycle, W", "c C + (1 + L) X + R + P p + L l", f"{_number(cycle)} B")
    yield Line("per device and month of 30 days", "W · 2 592 000 / I", f"{month / 1e6:.3g} MB")
    yield Line("at the cloud, mean", "8 N W / I", f"{_number(bits / case.interval / 1e6)} Mbit/s")
    yield Line("at the cloud, in phase", "8 N W / S", f"{_number(bits / case.spread / 1e6)} Mbit/s")


def _of_tokens(case: Case) -> Iterator[Line]:
    each = case.devices
    yield Line("token refreshes, mean", "N / T", f"{_number(each / case.token_life)} /s")
    yield Line("after an outage longer than T, mean of one interval", "N / I",
               f"{_number(each / case.interval)} /s")
    yield Line("the same, in phase", "N / S", f"{_number(each / case.spread)} /s")
    yield Line("refresh attempts while only the identity provider is down, at most", "N / 30",
               f"{_number(each / _REFRESH_SECONDS)} /s")


def _of_outages(measured: Measured, case: Case) -> Iterator[Line]:
    points = points_after(case)
    first = cycle_bytes(measured, case, points)
    longest = min(_OLDEST_SECONDS, _MOST_POINTS * case.interval / case.points) - case.interval
    yield Line("points of the first cycle after an outage", "min(1000, P (1 + D / I))",
               f"{_number(points)}")
    yield Line("its bytes, relative to a usual cycle", "W(those points) / W",
               f"{first / cycle_bytes(measured, case, case.points):.2f}")
    yield Line("longest outage that loses no point", "min(1800, 1000 I / P) − I",
               f"{_number(max(longest, 0))} s")


def _of_phases(case: Case) -> Iterator[Line]:
    missing = case.interval - case.spread
    if case.clock_ppm:
        days = missing / (2 * case.clock_ppm * 1e-6) / _DAY_SECONDS
        yield Line("until clocks alone have spread the fleet", "(I − S) / (2 q)",
                   f"{_number(days)} days")
    if case.override_spread:
        spread_at = case.interval * missing / (2 * case.override_spread)
        yield Line("until intervals of I ± d have spread it", "I (I − S) / (2 d)",
                   f"{_number(spread_at / 60)} min")
        if spread_at < _COUNTED_DAYS * _DAY_SECONDS / 2:
            yield Line(f"peak to mean after that, in {_COUNTED_DAYS} days", "counted",
                       f"{peak_to_mean(case, spread_at, _COUNTED_DAYS):.2g}")


def peak_to_mean(case: Case, since: float, days: float) -> float:
    """The highest number of cycles that begin within S, relative to the mean, if every whole second
    of I ± d is the interval of equally many devices, which begin evenly within S after power-up."""
    spread, window = round(case.override_spread), case.spread
    usual, counts = round(case.interval), Counter[int]()
    for interval in range(usual - spread, usual + spread + 1):
        for step in range(_STEPS):
            first = interval + (step + 0.5) * window / _STEPS
            skipped = max(0, math.ceil((since - first) / interval))
            time = first + skipped * interval
            while time < days * _DAY_SECONDS:
                counts[int(time / window)] += 1
                time += interval
    mean = (2 * spread + 1) * _STEPS * window / case.interval
    return max(counts.values()) / mean


def _number(value: float) -> str:
    """Three significant digits, with separated thousands."""
    if value and abs(value) < 100:
        return f"{value:.3g}"
    return f"{int(float(f'{value:.3g}')):,}".replace(",", " ")


def table(measured: Measured, case: Case) -> str:
    """In Markdown."""
    return _markdown(lines(measured, case))


def _markdown(figures: Iterator[Line]) -> str:
    rows = [f"| {line.what} | {line.formula} | {line.value} |" for line in figures]
    return "\n".join(["| figure | formula | value |", "|---|---|---|", *rows])


def inputs(measured: Measured) -> str:
    rows = [("R", "body of a request with points, without the points", measured.request),
            ("p", "each point in it", measured.point), ("l", "body of a log", measured.log),
            ("X", "a request and its response, without the request's body", measured.exchange),
            ("C", "a new connection with a resumed handshake, and its close", measured.connection)]
    return "\n".join(["| | bytes of | measured |", "|---|---|---|",
                      *(f"| {name} | {what} | {value:.0f} |" for name, what, value in rows)])


def main(argv: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m lab.fleet.projection", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("report", type=Path)
    for one in dataclasses.fields(Case):
        parser.add_argument(f"--{one.name.replace('_', '-')}", type=type(one.default),
                            default=one.default, help=f"default: {one.default:g}")
    parser.add_argument("--cloud", type=Path, help="a result of ./dev fleet --reference")
    values = vars(parser.parse_args(argv))
    cloud = values.pop("cloud")
    measured = Measured.of(json.loads(values.pop("report").read_text()))
    case = Case(**values)
    print(f"{inputs(measured)}\n\n{table(measured, case)}")
    if cloud:
        cost = CloudCost.of(json.loads(cloud.read_text()))
        print(f"\n{cloud_inputs(cost)}\n\n{cloud_table(cost, case)}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
