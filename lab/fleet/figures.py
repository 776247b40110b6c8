"""The figures of a fleet's life: plain numbers in plain containers, as they go into the report."""

import statistics
from collections import Counter
from collections.abc import Iterable, Sequence
from typing import Any

from lab.common.names import Endpoint
from lab.fleet.balance import Balance, History
from lab.fleet.plan import Phase
from lab.fleet.run import Life, Lived, Mark

# Of IPv4 and of TCP with time stamps, which each segment bears.
HEADER_BYTES = 52
_LOGS = (Endpoint.STRUCTURED_LOGS, Endpoint.OFFLINE_LOGS)
# Checks of the registration that are nearer to each other belong to one cycle.
_CYCLE_INTERVALS = 0.5

Spans = list[tuple[Phase, Mark, Mark]]


def spans(life: Life) -> Spans:
    """The phases with their starts and ends."""
    return [(phase, start, end) for (phase, start), (_, end)
            in zip(life.phases, life.phases[1:], strict=False)]


def balance(life: Life) -> Balance:
    whole = Balance()
    for device in life.devices:
        history = History(device.arrivals, device.checks, device.tokens, life.plan.interval)
        fates = history.fates(device.records, life.end)
        whole.add(device.device_id, device.records, device.arrivals, fates)
        if device.exit_code:
            whole.faults.append(f"{device.device_id}: the daemon ended with {device.exit_code}")
        if device.leaks:
            whole.faults.append(f"{device.device_id}: {device.leaks} log lines tell a secret")
    whole.faults += life.strangers
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


def of_phases(life: Life) -> list[dict[str, Any]]:
    return [_of_phase(life, *span) for span in spans(life)]


def _of_phase(life: Life, phase: Phase, start: Mark, end: Mark) -> dict[str, Any]:
    passed = end.reading - start.reading
    seconds = end.time - start.time
    begun = [tick for device in life.devices
             for tick in cycles(device.checks, life.plan.interval) if start.time <= tick < end.time]
    cpu = sum(after.cpu - before.cpu
              for before, after in zip(start.usages, end.usages, strict=True))
    wire = (passed["received"] + passed["sent"]
            + HEADER_BYTES * (passed["segments received"] + passed["segments sent"]))
    requests = Counter(int(one.time) for device in life.devices for one in device.arrivals
                       if start.time <= one.time < end.time)
    each = max(len(begun), 1)
    return {"name": phase.name, "cloud": phase.manner.value, "seconds": seconds,
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

def memory(life: Life) -> dict[str, Any]:
    """In kB, at the end, over the devices."""
    end = life.phases[-1][1]
    told = {"rss": summary(one.rss for one in end.usages),
            "anonymous": summary(one.anonymous for one in end.usages)}
    if end.shares:
        told |= {"pss": summary(one.pss for one in end.shares),
                 "private_dirty": summary(one.private_dirty for one in end.shares)}
    return told | {"beside": {name: summary(values) | {"each": len(values) / len(life.devices)}
                              for name, values in life.beside.items()},
                   "the_fleets_own_process": life.own_rss}


def cpu(life: Life) -> dict[str, Any]:
    """CPU time in seconds over the devices: until the power-up was over, and after it."""
    after_start, end = life.phases[1][1], life.phases[-1][1]
    return {"starting": summary(one.cpu for one in after_start.usages),
            "afterwards": summary(late.cpu - early.cpu for early, late in
                                  zip(after_start.usages, end.usages, strict=True)),
            "the_fleets_own_process_share": life.own_cpu / life.end}


# Times of uploads.

def accepted(device: Lived, since: float, endpoints: Sequence[Endpoint]) -> list[float]:
    return [one.time for one in device.arrivals
            if one.time >= since and 200 <= one.status < 300 and one.endpoint in endpoints]


def after_power_up(life: Life) -> list[float]:
    """When each device's first points were accepted, in seconds after the first of the fleet."""
    firsts = [times[0] for device in life.devices
              if (times := accepted(device, 0.0, [Endpoint.METRICS]))]
    return sorted(time - min(firsts) for time in firsts)


def phases_of_ticks(life: Life) -> dict[str, list[float]]:
    """When each device's first cycle began, and its last, in seconds after a whole number of
    intervals since the power came."""
    begun = [cycles(device.checks, life.plan.interval) for device in life.devices]
    return {"first": [ticks[0] % life.plan.interval for ticks in begun if ticks],
            "last": [ticks[-1] % life.plan.interval for ticks in begun if ticks]}


def drift(life: Life) -> list[float]:
    """By how much a device's last cycle was off the grid of its first after the power-up, when
    all devices together had kept the processors busy. In seconds."""
    calm = life.phases[1][1].time
    begun = [[tick for tick in cycles(device.checks, life.plan.interval) if tick > calm]
             for device in life.devices]
    return [_off_the_grid(ticks[-1] - ticks[0], life.plan.interval) for ticks in begun if ticks]


def _off_the_grid(seconds: float, interval: float) -> float:
    over = seconds % interval
    return over - interval if over > interval / 2 else over


def recoveries(life: Life) -> list[dict[str, Any]]:
    """After each outage: how long until each device's points were accepted again, and the requests
    for tokens."""
    return [_recovery(life, before, phase, start, end)
            for (before, _, _), (phase, start, end) in zip(spans(life), spans(life)[1:],
                                                           strict=False)
            if before.manner.is_outage and not phase.manner.is_outage]


def _recovery(life: Life, outage: Phase, phase: Phase, start: Mark, end: Mark) -> dict[str, Any]:
    took = [times[0] - start.time for device in life.devices
            if (times := accepted(device, start.time, [Endpoint.METRICS]))]
    refreshes = [time - start.time for device in life.devices
                 for time in accepted(device, start.time, [Endpoint.REFRESH]) if time < end.time]
    peak = Counter(int(time) for time in refreshes)
    return {"name": phase.name, "outage": outage.manner.value,
            "outage_intervals": outage.intervals, "recovered": len(took),
            "seconds": sorted(took), "refreshes": len(refreshes),
            "refresh_times": sorted(refreshes),
            "peak_refreshes_per_second": max(peak.values(), default=0)}


# The size of requests.

def request_size(life: Life) -> dict[str, float]:
    """The straight line through the bodies of all requests with points: bytes of the request, and
    of each point."""
    requests = [one for device in life.devices for one in device.arrivals
                if one.endpoint == Endpoint.METRICS]
    line = statistics.linear_regression([len(one.numbers) for one in requests],
                                        [one.body_bytes for one in requests])
    logs = [one.body_bytes for device in life.devices for one in device.arrivals
            if one.endpoint in _LOGS]
    return {"bytes_per_request": line.intercept, "bytes_per_point": line.slope,
            "bytes_per_log": statistics.fmean(logs) if logs else 0.0}


def logs_share(life: Life) -> float:
    """Of the records, how many are logs."""
    records = [record for device in life.devices for record in device.records]
    return sum(record.endpoint in _LOGS for record in records) / len(records)
