"""What a cycle with a full queue costs, and how long it keeps a caller waiting."""

from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from lab.bench.bed import FLOOR_SERVICE, Bed
from lab.bench.calls import CALLGRIND, Counted
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.bench.uploads import POINTS, points_of
from lab.common.names import DAEMON_SERVICE

_IN_FLIGHT = 64
# Under callgrind a cycle takes more than a second.
_SLOW_INTERVAL_SECONDS = 8
_SLOW_DEADLINE_SECONDS = 60


def _fill_queue(bed: Bed) -> None:
    """With points that wait until `_upload`."""
    bed.device.larder.refuse("CheckDeviceRegistered")
    bed.call(DAEMON_SERVICE, "flight", POINTS, _IN_FLIGHT)


def _upload(bed: Bed, deadline: float = 10.0) -> None:
    """With the next tick but one, so that most of an interval is left before it."""
    device = bed.device
    device.larder.wait_for_call("CheckDeviceRegistered", after=device.mark(), deadline=deadline)
    mark = device.mark()
    device.larder.behave()
    device.cloud.wait_for_answer("metrics", after=mark, deadline=deadline)
    points = points_of(device.cloud.requests("metrics", after=mark)[0].json)
    if points != POINTS:
        raise RuntimeError(f"the request had {points} points")


def _warm_up(bed: Bed, deadline: float = 10.0) -> None:
    """The connection is there then, and stays."""
    _fill_queue(bed)
    _upload(bed, deadline)


@measures("worst-call")
def worst_call(settings: Settings) -> list[Figure]:
    """A caller goes on through a tick that finds a full queue; the floor is called as often."""
    ours: list[float] = []
    floor: list[float] = []
    with Bed(settings.build, interval=1) as bed, ThreadPoolExecutor(1) as threads:
        bed.start_daemon()
        bed.start_floor()
        _warm_up(bed)
        for run in range(settings.runs):
            told = _call_through_an_upload(bed, threads, f"/tmp/stop.{run}")
            ours.append(told["max"] / 1000)
            floor.append(bed.call(FLOOR_SERVICE, "sync", int(told["calls"]))["max"] / 1000)
    return [Figure("worst-call", f"worst call while {POINTS} points are built and uploaded", "ms",
                   Goal(5, of_ratio=False), tuple(ours), tuple(floor))]


def _call_through_an_upload(bed: Bed, threads: ThreadPoolExecutor, stop: str) -> dict[str, float]:
    _fill_queue(bed)
    told = threads.submit(bed.call, DAEMON_SERVICE, "until", stop)
    _upload(bed)
    bed.device.write_file(stop, "")
    return told.result()


@measures("cycle-cpu")
def cycle_cpu(settings: Settings) -> list[Figure]:
    """Of the tick, the request and the answer, and of the ticks around them, which find nothing."""
    spent: list[float] = []
    with Bed(settings.build, interval=1) as bed:
        daemon = bed.start_daemon()
        _warm_up(bed)
        for _ in range(settings.runs):
            _fill_queue(bed)
            before = daemon.cpu()
            _upload(bed)
            _await_tick(bed)
            spent.append((daemon.cpu() - before) / 1000)
    return [Figure("cycle-cpu", f"service CPU of a cycle that uploads {POINTS} points", "ms", None,
                   tuple(spent))]


def _await_tick(bed: Bed, deadline: float = 10.0) -> None:
    """By then the answer has been dealt with."""
    bed.device.larder.wait_for_call("CheckDeviceRegistered", after=bed.device.mark(),
                                    deadline=deadline)


def profile(settings: Settings, folder: Path) -> None:
    """Writes callgrind's dump of one such cycle."""
    # To read all authorities takes callgrind longer than the request may take.
    with Bed(settings.build, interval=_SLOW_INTERVAL_SECONDS, all_authorities=False) as bed:
        daemon = Counted(bed, DAEMON_SERVICE, bed.start_daemon(*CALLGRIND))
        _warm_up(bed, _SLOW_DEADLINE_SECONDS)
        _fill_queue(bed)
        daemon.dump()
        _upload(bed, _SLOW_DEADLINE_SECONDS)
        _await_tick(bed, _SLOW_DEADLINE_SECONDS)
        (folder / "cycle.callgrind").write_text(daemon.dump().text)
