"""The report of a fleet: as text for people and as JSON for programs."""

import json
import os
import platform
import time
from pathlib import Path
from typing import Any

from lab.fleet import figures
from lab.fleet.accounting import Accounting, Fate
from lab.fleet.run import RunResult

_FAULTS_SHOWN = 20


def made(result: RunResult, whole: Accounting) -> dict[str, Any]:
    plan = result.plan
    return {
        "date": time.strftime("%Y-%m-%d", time.gmtime()),
        "machine": {"architecture": platform.machine(), "processors": os.cpu_count(),
                    "load_average": [mark.load for _, mark in result.phases]},
        "devices": plan.devices, "interval": plan.interval, "rate": plan.rate,
        "seconds": result.end, "log_share": figures.logs_share(result),
        "memory_kb": figures.memory(result), "cpu_seconds": figures.cpu(result),
        "phases": figures.of_phases(result),
        "seconds_after_the_first_upload": figures.summary(figures.after_power_up(result)),
        "ticks": {when: figures.summary(places)
                  for when, places in figures.phases_of_ticks(result).items()},
        "drift": figures.summary(figures.drift(result)),
        "recoveries": [_recovery(one) for one in figures.recoveries(result)],
        "request": figures.request_size(result),
        "balance": {"recorded": whole.recorded, "accepted": whole.accepted,
                    "adds_up": whole.adds_up, "repeated": whole.repeated,
                    "fates": {fate.value: whole.fates[fate] for fate in Fate}},
        "faults": whole.faults}


def _recovery(one: dict[str, Any]) -> dict[str, Any]:
    return one | {"seconds": figures.summary(one["seconds"]),
                  "refresh_times": figures.summary(one["refresh_times"])}


def write(report: dict[str, Any], folder: Path) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "report.json").write_text(json.dumps(_rounded(report), indent=2) + "\n")
    (folder / "phases.md").write_text(markdown(report) + "\n")


def _rounded(value: Any) -> Any:
    if isinstance(value, float):
        return float(f"{value:.5g}")
    if isinstance(value, dict):
        return {key: _rounded(member) for key, member in value.items()}
    return [_rounded(member) for member in value] if isinstance(value, list) else value


def text(report: dict[str, Any]) -> str:
    return "\n".join([*_head(report), "", *_phases(report), "", *_recoveries(report), "",
                      *_balance(report)])


def _head(report: dict[str, Any]) -> list[str]:
    memory, cpu = report["memory_kb"], report["cpu_seconds"]
    shared = [f"PSS {_range(memory['pss'])}", f"private dirty {_range(memory['private_dirty'])}"] \
        if "pss" in memory else []
    kept = [f"RSS {_range(memory['rss'])}", f"anonymous {_range(memory['anonymous'])}", *shared]
    return [f"{report['devices']} devices, a cycle every {report['interval']} s, "
            f"{report['rate']:g} records a second each, for {report['seconds']:.0f} s",
            f"memory of a daemon, kB: {', '.join(kept)}",
            f"CPU time of a daemon, s: {_range(cpu['starting'], 3)} to start, "
            f"{_range(cpu['afterwards'], 3)} afterwards; the cloud and all neighbours took "
            f"{cpu['the_fleets_own_process_share']:.0%} of a processor"]


def _range(values: dict[str, float], digits: int = 0) -> str:
    least, median, most = (f"{values[key]:.{digits}f}" for key in ("least", "median", "most"))
    return f"{median} ({least} to {most})"


def _phases(report: dict[str, Any]) -> list[str]:
    rows = _table(report)
    widths = [max(map(len, column)) for column in zip(*rows, strict=True)]
    return ["  ".join(cell.ljust(width) for cell, width in zip(row, widths, strict=True)).rstrip()
            for row in rows]


def markdown(report: dict[str, Any]) -> str:
    """The phases as a table; the columns after kB/s are per cycle."""
    heads, *rows = (f"| {' | '.join(row)} |" for row in _table(report))
    return "\n".join([heads, "|---" * (heads.count("|") - 1) + "|", *rows])


def _table(report: dict[str, Any]) -> list[list[str]]:
    heads = ["phase", "cycles", "requests/s", "peak", "kB/s", "connections", "full TLS",
             "resumed TLS", "bytes in", "bytes out", "CPU"]
    return [heads, *map(_row, report["phases"])]


def _row(one: dict[str, Any]) -> list[str]:
    each = one["per_cycle"]
    return [one["name"], str(one["cycles"]), f"{one['requests_per_second']:.2f}",
            str(one["peak_requests_per_second"]), f"{one['bytes_per_second'] / 1000:.1f}",
            f"{each['connections']:.2f}", f"{each['full_handshakes']:.2f}",
            f"{each['resumed_handshakes']:.2f}", f"{each['bytes_received']:.0f}",
            f"{each['bytes_sent']:.0f}", f"{one['cpu_ms_per_cycle']:.1f} ms"]


def _recoveries(report: dict[str, Any]) -> list[str]:
    spread = report["seconds_after_the_first_upload"]
    lines = [f"after the common power-up the first uploads came within {spread['most']:.2f} s, "
             f"half of them within {spread['median']:.2f} s"]
    for one in report["recoveries"]:
        took = one["seconds"]
        lines.append(
            f"{one['name']}, after {one['outage_intervals']:g} intervals in which the cloud "
            f"{one['outage']}: {one['recovered']} devices uploaded again, "
            f"{_seconds(took)}; {one['refreshes']} tokens were fetched, at most "
            f"{one['peak_refreshes_per_second']} in a second")
    return lines


def _seconds(took: dict[str, float]) -> str:
    if not took["count"]:
        return "none"
    return f"after {took['least']:.2f} to {took['most']:.2f} s"


def _balance(report: dict[str, Any]) -> list[str]:
    balance = report["balance"]
    lines = [f"{balance['recorded']} records, {balance['accepted']} kept, "
             f"{balance['repeated']} of them more than once at the cloud:"]
    lines += [f"  {count:8} {fate}" for fate, count in balance["fates"].items()
              if count or fate == Fate.UNEXPLAINED.value]
    lines += [f"BAD  {fault}" for fault in report["faults"][:_FAULTS_SHOWN]]
    verdict = "every record is accounted for" if balance["adds_up"] else \
        f"BAD  not every record is accounted for: {len(report['faults'])} faults"
    return [*lines, verdict]
