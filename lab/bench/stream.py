"""A stream of points that waits for no replies: what piles up, and how fast the tool is."""

import time

from lab.bench.testbed import Testbed, on_bus, output
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.common import names
from lab.device import system_bus
from lab.device.system_bus import SystemBus

_PER_SECOND = 20_000
_SECONDS = 60
_LINES = "/tmp/lines"
# The most resident memory, in kilobytes.
_DAEMONS_MOST = 20 * 1024
_BUS_MOST = 6 * 1024
_KEYS = {SystemBus.DBUS_DAEMON: ("stream-peak", "stream-bus-peak"),
         SystemBus.DBUS_BROKER: ("stream-peak-broker", "stream-bus-peak-broker")}


@measures(*(key for keys in _KEYS.values() for key in keys))
def stream_peak(settings: Settings) -> list[Figure]:
    """One run each: a peak needs no median."""
    figures = []
    for bus, (key, bus_key) in _KEYS.items():
        peaks: list[tuple[float, ...]] = [(), ()]
        missing = "" if bus in system_bus.installed() else f"{bus} is not installed"
        if not missing:
            with on_bus(bus), Testbed(settings.build, interval=1) as testbed:
                processes = testbed.start_daemon(), testbed.bus()
                testbed.report(_PER_SECOND * settings.scaled(_SECONDS), _PER_SECOND)
                peaks = [(process.peak(),) for process in processes]
        what = f"while {_PER_SECOND} points a second are recorded for a minute, {bus}"
        figures += [Figure(key, f"highest RSS of the daemon {what}", "kB",
                           Goal(_DAEMONS_MOST, of_ratio=False), peaks[0], why=missing),
                    Figure(bus_key, f"highest RSS of the bus {what}", "kB",
                           Goal(_BUS_MOST, of_ratio=False), peaks[1], why=missing)]
    return figures


@measures("stream-time")
def stream_time(settings: Settings) -> list[Figure]:
    took: list[float] = []
    with Testbed(settings.build, interval=1) as testbed:
        testbed.start_daemon()
        testbed.device.write_file(_LINES, "ap/radio/utilization 0.25 -l band=5g -l radio=radio-0\n"
                                  * _PER_SECOND)
        for _ in range(settings.runs):
            began = time.monotonic()
            output(testbed.device, "sh", "-c", f"{names.TOOL_PROGRAM} metric --stream <{_LINES}")
            took.append((time.monotonic() - began) * 1000)
    return [Figure("stream-time", f"pelmorctl metric --stream, {_PER_SECOND} lines", "ms",
                   Goal(1000, of_ratio=False), tuple(took))]
