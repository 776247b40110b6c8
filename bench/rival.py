"""What a point costs from the call to the HTTPS body, next to collectd, which a user would
otherwise install: its unixsock plugin in, its write_http plugin out."""

from ctypes.util import find_library
from pathlib import Path

from bench.bed import ONE_CA, SCRIPTS, Bed, Process, await_that, output
from bench.figures import Figure, Goal
from bench.plan import Settings, measures
from bench.uploads import KEPT_PORT, POINTS, points_of, start_sink
from lab import names

_COLLECTD = Path("/usr/sbin/collectd")
_CONFIGURATION = "/etc/collectd.conf"
_SOCKET = "/tmp/collectd.sock"
# It sends one body a round, as the daemon does.
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
_KEY = "point-cpu"
_WHAT = "CPU per point from call to HTTPS body, service and bus, next to collectd"


@measures(_KEY)
def point_cpu(settings: Settings) -> list[Figure]:
    if not _is_installed():
        return [Figure(_KEY, _WHAT, "µs", _GOAL, why="collectd is not installed")]
    ours: list[float] = []
    theirs: list[float] = []
    with Bed(settings.build, interval=1) as bed:
        rival = _start_collectd(bed)
        service = [bed.start_daemon(), bed.bus()]
        # The first round of each connects.
        for _ in range(settings.runs + 1):
            ours.append(_our_round(bed, service) / POINTS)
            theirs.append(_their_round(bed, rival) / POINTS)
    return [Figure(_KEY, _WHAT, "µs", _GOAL, tuple(ours[1:]), tuple(theirs[1:]))]


def _is_installed() -> bool:
    return _COLLECTD.is_file() and find_library("yajl") is not None


def _our_round(bed: Bed, processes: list[Process]) -> float:
    mark = bed.device.mark()
    before = _cpu(processes)
    bed.call(names.DAEMON_SERVICE, "sync", POINTS)
    answers = 0
    while _uploaded(bed, mark) < POINTS:
        answers += 1
        bed.device.wait_for("cloud.answer", after=mark, endpoint="metrics", count=answers)
    return _cpu(processes) - before


def _cpu(processes: list[Process]) -> float:
    return sum(process.cpu() for process in processes)


def _uploaded(bed: Bed, mark: object) -> int:
    return sum(points_of(request.json)
               for request in bed.device.cloud.requests("metrics", after=mark))


def _start_collectd(bed: Bed) -> Process:
    start_sink(bed, KEPT_PORT, '"values"')
    bed.device.write_file(_CONFIGURATION, _CONFIGURED)
    pid = bed.spawn(str(_COLLECTD), "-f", "-C", _CONFIGURATION)
    await_that(lambda: bed.device.run("test", "-S", _SOCKET).code == 0, "collectd's socket")
    return Process(bed.device, pid)


def _their_round(bed: Bed, rival: Process) -> float:
    arrived = _arrived(bed)
    before = rival.cpu()
    _feed(bed, POINTS)
    # Threads of its own take them on, so that one flush may find some on their way.
    await_that(lambda: _flushed(bed) >= arrived + POINTS, "collectd's points")
    return rival.cpu() - before


def _feed(bed: Bed, points: int) -> None:
    output(bed.device, "python3", f"{SCRIPTS}/feed.py", _SOCKET, str(points))


def _flushed(bed: Bed) -> int:
    _feed(bed, 0)
    return _arrived(bed)


def _arrived(bed: Bed) -> int:
    # Empty while it is written.
    return int(bed.read_file(f"/tmp/sink.{KEPT_PORT}") or 0)
