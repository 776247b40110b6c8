"""The cost of a point from the call to the HTTPS body, next to the likely alternative: collectd
with its plugins unixsock for input and write_http for output."""

from collections.abc import Callable
from ctypes.util import find_library
from dataclasses import dataclass
from pathlib import Path

from lab.bench.testbed import (BASELINE_SERVICE, ONE_CA, Testbed, Process, await_that, on_bus,
                               output)
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.bench.uploads import KEPT_PORT, POINTS, points_of, start_sink
from lab.common import names
from lab.device import system_bus
from lab.device.system_bus import SystemBus

_COLLECTD = Path("/usr/sbin/collectd")
_CONFIGURATION = "/etc/collectd.conf"
_SOCKET = "/tmp/collectd.sock"
# One body per round, as the daemon sends.
_BUFFER_BYTES = 1024 * 1024

_CONFIGURED = f"""\
Hostname "ap"
FQDNLookup false
BaseDir "/tmp"
PluginDir "/usr/lib/collectd"
TypesDB "/usr/share/collectd/types.db"
Interval 3600
LoadPlugin unixsock
LoadPlugin write_http
<Plugin unixsock>
  SocketFile "{_SOCKET}"
  SocketGroup "root"
</Plugin>
<Plugin write_http>
  <Node "cloud">
    URL "https://{names.Host.MONITORING}:{KEPT_PORT}/v1"
    CACert "{ONE_CA}"
    Format "JSON"
    BufferSize {_BUFFER_BYTES}
  </Node>
</Plugin>
"""
_GOAL = Goal(1.0)
_SERVICE_KEY = "point-service-cpu"
_WHATS = {
    "point-cpu": "CPU per point from one-way record to HTTPS body, service and bus (dbus-daemon), "
                 "next to collectd",
    "point-cpu-broker": "the same on dbus-broker",
    _SERVICE_KEY: "the service's share of point-cpu, next to all of collectd's",
    "point-sync-cpu": "CPU per point if each call waits for its reply, next to collectd",
    "point-call-cpu": "what calls of a no-op service would cost it and the bus, next to collectd",
}
_BUSES = {"point-cpu": SystemBus.DBUS_DAEMON, "point-cpu-broker": SystemBus.DBUS_BROKER}
# Collectd answers every point. As in the client library, so many are sent before one waits.
_WINDOW = 64
# CPU of a service and of the bus, in microseconds.
Cpu = tuple[float, float]


@measures("point-cpu", "point-cpu-broker", _SERVICE_KEY)
def one_way_cpu(settings: Settings) -> list[Figure]:
    figures = []
    for key, bus in _BUSES.items():
        keys = (key, _SERVICE_KEY) if key == "point-cpu" else (key,)
        if why := _missing(bus):
            figures += [_figure(one, why=why) for one in keys]
            continue
        with on_bus(bus):
            ours, theirs = _rounds(settings, _one_way_round, _WINDOW)
        figures.append(_figure(key, tuple(map(sum, ours)), theirs))
        if _SERVICE_KEY in keys:
            figures.append(_figure(_SERVICE_KEY, tuple(service for service, _ in ours), theirs))
    return figures


@measures("point-sync-cpu", "point-call-cpu")
def synchronous_cpu(settings: Settings) -> list[Figure]:
    rounds = {"point-sync-cpu": _synchronous_round, "point-call-cpu": _baseline_round}
    if why := _missing(SystemBus.DBUS_DAEMON):
        return [_figure(key, why=why) for key in rounds]
    figures = []
    with on_bus(SystemBus.DBUS_DAEMON):
        for key, our_round in rounds.items():
            ours, theirs = _rounds(settings, our_round, depth=1)
            figures.append(_figure(key, tuple(map(sum, ours)), theirs))
    return figures


def _figure(key: str, *runs: tuple[float, ...], why: str = "") -> Figure:
    goal = _GOAL if key in _BUSES else None
    return Figure(key, _WHATS[key], "µs", goal, *runs, why=why)


def _missing(bus: SystemBus) -> str:
    """The reason why nothing can be measured; empty if there is none."""
    if not _COLLECTD.is_file() or find_library("yajl") is None:
        return "collectd is not installed"
    return "" if bus in system_bus.installed() else f"{bus} is not installed"


def _rounds(settings: Settings, our_round: Callable[[Testbed], None],
            depth: int) -> tuple[list[Cpu], tuple[float, ...]]:
    """The CPU per point of service and bus in each round, and collectd's, which gets `depth` points
    at a time."""
    ours: list[Cpu] = []
    theirs: list[float] = []
    with Testbed(settings.build, interval=1) as testbed:
        collectd = _start_collectd(testbed)
        processes = Processes(testbed.start_daemon(), testbed.start_baseline(), testbed.bus())
        # The first round of each connects.
        for _ in range(settings.runs + 1):
            before = processes.cpu()
            our_round(testbed)
            ours.append(tuple((after - earlier) / POINTS
                              for earlier, after in zip(before, processes.cpu(), strict=True)))
            theirs.append(_their_round(testbed, collectd, depth) / POINTS)
    return ours[1:], tuple(theirs[1:])


@dataclass(frozen=True)
class Processes:
    daemon: Process
    baseline: Process
    bus: Process

    def cpu(self) -> Cpu:
        """One of the services is idle."""
        return self.daemon.cpu() + self.baseline.cpu(), self.bus.cpu()


def _one_way_round(testbed: Testbed) -> None:
    mark = testbed.device.mark()
    testbed.report(POINTS)
    _await_upload(testbed, mark)


def _synchronous_round(testbed: Testbed) -> None:
    mark = testbed.device.mark()
    testbed.call(names.DAEMON_SERVICE, "sync", POINTS)
    _await_upload(testbed, mark)


def _baseline_round(testbed: Testbed) -> None:
    testbed.call(BASELINE_SERVICE, "sync", POINTS)


def _await_upload(testbed: Testbed, mark: object) -> None:
    answers = 0
    while _uploaded(testbed, mark) < POINTS:
        answers += 1
        testbed.device.wait_for("cloud.answer", after=mark, endpoint="metrics", count=answers)


def _uploaded(testbed: Testbed, mark: object) -> int:
    return sum(points_of(request.json)
               for request in testbed.device.cloud.requests("metrics", after=mark))


def _start_collectd(testbed: Testbed) -> Process:
    start_sink(testbed, KEPT_PORT, '"values"')
    testbed.device.write_file(_CONFIGURATION, _CONFIGURED)
    pid = testbed.spawn(str(_COLLECTD), "-f", "-C", _CONFIGURATION)
    await_that(lambda: testbed.device.run("test", "-S", _SOCKET).code == 0, "collectd's socket")
    return Process(testbed.device, pid)


def _their_round(testbed: Testbed, collectd: Process, depth: int) -> float:
    arrived = _arrived(testbed)
    before = collectd.cpu()
    _feed(testbed, POINTS, depth)
    # collectd passes them on in threads, so that one flush may miss some.
    await_that(lambda: _flushed(testbed) >= arrived + POINTS, "collectd's points")
    return collectd.cpu() - before


def _feed(testbed: Testbed, points: int, depth: int = 1) -> None:
    output(testbed.device, "python3", "-m", "lab.bench.inside.feed", _SOCKET, str(points),
           str(depth))


def _flushed(testbed: Testbed) -> int:
    _feed(testbed, 0)
    return _arrived(testbed)


def _arrived(testbed: Testbed) -> int:
    # Empty while it is written.
    return int(testbed.read_file(f"/tmp/sink.{KEPT_PORT}") or 0)
