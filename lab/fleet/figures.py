"""The figures of a run: plain numbers in plain containers, as they go into the report."""

import statistics
from collections import Counter
from collections.abc import Iterable, Sequence
from typing import Any

from lab.common.names import Endpoint
from lab.fleet.accounting import Accounting, History
from lab.fleet.plan import Phase
from lab.fleet.run import DeviceResult, Mark, RunResult

# IPv4 and TCP with time stamps, per segment.
HEADER_BYTES = 52
_LOGS = (Endpoint.STRUCTURED_LOGS, Endpoint.OFFLINE_LOGS)
# Checks of the registration that are nearer to each other belong to one cycle.
_CYCLE_INTERVALS = 0.5

Spans = list[tuple[Phase, Mark, Mark]]


def spans(result: RunResult) -> Spans:
    """The phases with their starts and ends."""
    return [(phase, start, end) for (phase, start), (_, end)
            in zip(result.phases, result.phases[1:], strict=False)]


def accounting(result: RunResult) -> Accounting:
    whole = Accounting()
    for device in result.devices:
        history = History(device.arrivals, device.checks, device.tokens, result.plan.interval)
        fates = history.fates(device.records, result.end)
        whole.add(device.device_id, device.records, device.arrivals, fates)
        if device.exit_code:
            whole.faults.append(f"{device.device_id}: the daemon ended with {device.exit_code}")
        if device.leaks:
            whole.faults.append(f"{device.device_id}: {device.leaks} log lines contain a secret")
    whole.faults += result.misdirected
    return whole


def cycles(checks: Sequence[float], interval: float) -> list[float]:
    """When each cycle began."""
    return [check for before, check in zip([float("-inf"), *checks], checks, strict=False)
            if check - before > interval * _CYCLE_INTERVALS]


def summary(values: Iterable[float]) -> dict[str, float]:
    ordered = sorted(values)
    if not ordered:
        return {"count": 0}
    return {"count": len(ordered), "least": ordered[0], "median": statistics.median(ordered),
            "p95": ordered[int(0.95 * (len(ordered) - 1))], "most": ordered[-1]}


def of_phases(result: RunResult) -> list[dict[str, Any]]:
    return [_of_phase(result, *span) for span in spans(result)]


def _of_phase(result: RunResult, phase: Phase, start: Mark, end: Mark) -> dict[str, Any]:
    passed = end.reading - start.reading
    seconds = end.time - start.time
    begun = [tick for device in result.devices
             for tick in cycles(device.checks, result.plan.interval)
             if start.time <= tick < end.time]
    cpu = sum(after.cpu - before.cpu
              for before, after in zip(start.usages, end.usages, strict=True))
    wire = (passed["received"] + passed["sent"]
            + HEADER_BYTES * (passed["segments received"] + passed["segments sent"]))
    requests = Counter(int(one.time) for device in result.devices for one in device.arrivals
                       if start.time <= one.time < end.time)
    each = max(len(begun), 1)
    return {"name": phase.name, "cloud": phase.mode.value, "seconds": seconds,
            "cycles": len(begun), "requests": passed["requests"],
            "requests_per_second": passed["requests"] / seconds,
            "peak_requests_per_second": max(requests.values(), default=0),
            "bytes_per_second": (passed["received"] + passed["sent"]) / seconds,
            "per_cycle": {"requests": passed["requests"] / each,
                          "connections": passed["connections"] / each,
                          "full_handshakes": passed["full handshakes"] / each,
                          "resumed_handshakes": passed["resumed handshakes"] / each,
                          "bytes_received": passed["received"] / each,
                          "bytes_sent": passed["sent"] / each,
                          "body_bytes": passed["bodies"] / each,
                          "wire_bytes": wire / each},
            "cpu_ms_per_cycle": cpu * 1000 / each,
            "full_handshakes": passed["full handshakes"],
            "resumed_handshakes": passed["resumed handshakes"],
            "failed_handshakes": passed["failed handshakes"]}


# Memory and processor.

def memory(result: RunResult) -> dict[str, Any]:
    """In kB, at the end, over the devices."""
    end = result.phases[-1][1]
    sizes = {"rss": summary(one.rss for one in end.usages),
             "anonymous": summary(one.anonymous for one in end.usages)}
    if end.shares:
        sizes |= {"pss": summary(one.pss for one in end.shares),
                  "private_dirty": summary(one.private_dirty for one in end.shares)}
    return sizes | {"beside": {name: summary(values) | {"each": len(values) / len(result.devices)}
                               for name, values in result.beside.items()},
                    "the_fleets_own_process": result.own_rss}


def cpu(result: RunResult) -> dict[str, Any]:
    """CPU time in seconds over the devices: until the power-up was over, and after it."""
    after_start, end = result.phases[1][1], result.phases[-1][1]
    return {"starting": summary(one.cpu for one in after_start.usages),
            "afterwards": summary(late.cpu - early.cpu for early, late in
                                  zip(after_start.usages, end.usages, strict=True)),
            "the_fleets_own_process_share": result.own_cpu / result.end}


# Times of uploads.

def accepted(device: DeviceResult, since: float, endpoints: Sequence[Endpoint]) -> list[float]:
    return [one.time for one in device.arrivals
            if one.time >= since and 200 <= one.status < 300 and one.endpoint in endpoints]


def after_power_up(result: RunResult) -> list[float]:
    """When each device's first points were accepted, in seconds after those of the fastest."""
    firsts = [times[0] for device in result.devices
              if (times := accepted(device, 0.0, [Endpoint.METRICS]))]
    return sorted(time - min(firsts) for time in firsts)


def phases_of_ticks(result: RunResult) -> dict[str, list[float]]:
    """The start of each device's first and last cycle, in seconds after a whole number of intervals
    since power-up."""
    begun = [cycles(device.checks, result.plan.interval) for device in result.devices]
    return {"first": [ticks[0] % result.plan.interval for ticks in begun if ticks],
            "last": [ticks[-1] % result.plan.interval for ticks in begun if ticks]}


def drift(result: RunResult) -> list[float]:
    """By how much a device's last cycle was off the grid of its first after the power-up, when
    all devices together had kept the processors busy. In seconds."""
    calm = result.phases[1][1].time
    begun = [[tick for tick in cycles(device.checks, result.plan.interval) if tick > calm]
             for device in result.devices]
    return [_off_the_grid(ticks[-1] - ticks[0], result.plan.interval) for ticks in begun if ticks]


def _off_the_grid(seconds: float, interval: float) -> float:
    over = seconds % interval
    return over - interval if over > interval / 2 else over


def recoveries(result: RunResult) -> list[dict[str, Any]]:
    """After each outage: how long until each device's points were accepted again, and the requests
    for tokens."""
    return [_recovery(result, before, phase, start, end)
            for (before, _, _), (phase, start, end) in zip(spans(result), spans(result)[1:],
                                                           strict=False)
            if before.mode.is_outage and not phase.mode.is_outage]


def _recovery(result: RunResult, outage: Phase, phase: Phase, start: Mark,
              end: Mark) -> dict[str, Any]:
    took = [times[0] - start.time for device in result.devices
            if (times := accepted(device, start.time, [Endpoint.METRICS]))]
    refreshes = [time - start.time for device in result.devices
                 for time in accepted(device, start.time, [Endpoint.REFRESH]) if time < end.time]
    peak = Counter(int(time) for time in refreshes)
    return {"name": phase.name, "outage": outage.mode.value,
            "outage_intervals": outage.intervals, "recovered": len(took),
            "seconds": sorted(took), "refreshes": len(refreshes),
            "refresh_times": sorted(refreshes),
            "peak_refreshes_per_second": max(peak.values(), default=0)}


# The size of requests.

def request_size(result: RunResult) -> dict[str, float]:
    """The straight line through the bodies of all requests with points: bytes of the request, and
    of each point."""
    requests = [one for device in result.devices for one in device.arrivals
                if one.endpoint == Endpoint.METRICS]
    line = statistics.linear_regression([len(one.numbers) for one in requests],
                                        [one.body_bytes for one in requests])
    logs = [one.body_bytes for device in result.devices for one in device.arrivals
            if one.endpoint in _LOGS]
    return {"bytes_per_request": line.intercept, "bytes_per_point": line.slope,
            "bytes_per_log": statistics.fmean(logs) if logs else 0.0}


def logs_share(result: RunResult) -> float:
    """Of the records, how many are logs."""
    records = [record for device in result.devices for record in device.records]
    return sum(record.endpoint in _LOGS for record in records) / len(records)
