"""The cost of a point from the call to the HTTPS body, next to the likely alternative: collectd
with its plugins unixsock for input and write_http for output."""

from ctypes.util import find_library
from pathlib import Path

from lab.bench.testbed import BASELINE_SERVICE, ONE_CA, Testbed, Process, await_that, output
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.bench.uploads import KEPT_PORT, POINTS, points_of, start_sink
from lab.common import names

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
_WHATS = {
    "point-cpu": "CPU per point from call to HTTPS body, service and bus, next to collectd",
    "point-service-cpu": "the service's share of it, next to all of collectd's",
    "point-call-cpu": "what calls of a no-op service would cost it and the bus, next to collectd",
}


@measures(*_WHATS)
def point_cpu(settings: Settings) -> list[Figure]:
    if not _is_installed():
        return [_figure(key, why="collectd is not installed") for key in _WHATS]
    ours: dict[str, list[float]] = {key: [] for key in _WHATS}
    theirs: list[float] = []
    with Testbed(settings.build, interval=1) as testbed:
        collectd = _start_collectd(testbed)
        daemon, baseline, bus = testbed.start_daemon(), testbed.start_baseline(), testbed.bus()
        # The first round of each connects.
        for _ in range(settings.runs + 1):
            service_cpu, bus_cpu = _our_round(testbed, daemon, bus)
            ours["point-cpu"].append((service_cpu + bus_cpu) / POINTS)
            ours["point-service-cpu"].append(service_cpu / POINTS)
            ours["point-call-cpu"].append(_baseline_round(testbed, baseline, bus) / POINTS)
            theirs.append(_their_round(testbed, collectd) / POINTS)
    return [_figure(key, tuple(ours[key][1:]), tuple(theirs[1:])) for key in _WHATS]


def _figure(key: str, *runs: tuple[float, ...], why: str = "") -> Figure:
    return Figure(key, _WHATS[key], "µs", _GOAL if key == "point-cpu" else None, *runs, why=why)


def _is_installed() -> bool:
    return _COLLECTD.is_file() and find_library("yajl") is not None


def _our_round(testbed: Testbed, daemon: Process, bus: Process) -> tuple[float, float]:
    mark = testbed.device.mark()
    before = daemon.cpu(), bus.cpu()
    testbed.call(names.DAEMON_SERVICE, "sync", POINTS)
    answers = 0
    while _uploaded(testbed, mark) < POINTS:
        answers += 1
        testbed.device.wait_for("cloud.answer", after=mark, endpoint="metrics", count=answers)
    return daemon.cpu() - before[0], bus.cpu() - before[1]


def _baseline_round(testbed: Testbed, baseline: Process, bus: Process) -> float:
    before = baseline.cpu() + bus.cpu()
    testbed.call(BASELINE_SERVICE, "sync", POINTS)
    return baseline.cpu() + bus.cpu() - before


def _uploaded(testbed: Testbed, mark: object) -> int:
    return sum(points_of(request.json)
               for request in testbed.device.cloud.requests("metrics", after=mark))


def _start_collectd(testbed: Testbed) -> Process:
    start_sink(testbed, KEPT_PORT, '"values"')
    testbed.device.write_file(_CONFIGURATION, _CONFIGURED)
    pid = testbed.spawn(str(_COLLECTD), "-f", "-C", _CONFIGURATION)
    await_that(lambda: testbed.device.run("test", "-S", _SOCKET).code == 0, "collectd's socket")
    return Process(testbed.device, pid)


def _their_round(testbed: Testbed, collectd: Process) -> float:
    arrived = _arrived(testbed)
    before = collectd.cpu()
    _feed(testbed, POINTS)
    # collectd passes them on in threads, so that one flush may miss some.
    await_that(lambda: _flushed(testbed) >= arrived + POINTS, "collectd's points")
    return collectd.cpu() - before


def _feed(testbed: Testbed, points: int) -> None:
    output(testbed.device, "python3", "-m", "lab.bench.inside.feed", _SOCKET, str(points))


def _flushed(testbed: Testbed) -> int:
    _feed(testbed, 0)
    return _arrived(testbed)


def _arrived(testbed: Testbed) -> int:
    # Empty while it is written.
    return int(testbed.read_file(f"/tmp/sink.{KEPT_PORT}") or 0)
