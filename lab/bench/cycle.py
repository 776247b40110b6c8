"""What a cycle with a full queue costs, and how long it keeps a caller waiting."""

from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from lab.bench.testbed import BASELINE_SERVICE, Testbed
from lab.bench.calls import CALLGRIND, Counted
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.bench.uploads import POINTS, points_of
from lab.common.names import DAEMON_SERVICE

_IN_FLIGHT = 64
# Under callgrind a cycle takes more than a second.
_SLOW_INTERVAL_SECONDS = 8
_SLOW_DEADLINE_SECONDS = 60


def _fill_queue(testbed: Testbed) -> None:
    """With points that stay pending until `_upload`."""
    testbed.device.larder.refuse("CheckDeviceRegistered")
    testbed.call(DAEMON_SERVICE, "flight", POINTS, _IN_FLIGHT)


def _upload(testbed: Testbed, deadline: float = 10.0) -> None:
    """At the next tick but one, so that most of an interval passes before it."""
    device = testbed.device
    device.larder.wait_for_call("CheckDeviceRegistered", after=device.mark(), deadline=deadline)
    mark = device.mark()
    device.larder.behave()
    device.cloud.wait_for_answer("metrics", after=mark, deadline=deadline)
    points = points_of(device.cloud.requests("metrics", after=mark)[0].json)
    if points != POINTS:
        raise RuntimeError(f"the request had {points} points")


def _warm_up(testbed: Testbed, deadline: float = 10.0) -> None:
    """Makes the connection, which stays open."""
    _fill_queue(testbed)
    _upload(testbed, deadline)


@measures("worst-call")
def worst_call(settings: Settings) -> list[Figure]:
    """Calls during a tick that finds a full queue; the baseline is called as often."""
    ours: list[float] = []
    baseline: list[float] = []
    with Testbed(settings.build, interval=1) as testbed, ThreadPoolExecutor(1) as threads:
        testbed.start_daemon()
        testbed.start_baseline()
        _warm_up(testbed)
        for run in range(settings.runs):
            result = _call_through_an_upload(testbed, threads, f"/tmp/stop.{run}")
            ours.append(result["max"] / 1000)
            result = testbed.call(BASELINE_SERVICE, "sync", int(result["calls"]))
            baseline.append(result["max"] / 1000)
    return [Figure("worst-call", f"worst call while {POINTS} points are built and uploaded", "ms",
                   Goal(2, of_excess=True), tuple(ours), tuple(baseline))]


def _call_through_an_upload(testbed: Testbed, threads: ThreadPoolExecutor,
                            stop: str) -> dict[str, float]:
    _fill_queue(testbed)
    result = threads.submit(testbed.call, DAEMON_SERVICE, "until", stop)
    _upload(testbed)
    testbed.device.write_file(stop, "")
    return result.result()


@measures("cycle-cpu")
def cycle_cpu(settings: Settings) -> list[Figure]:
    """Includes the ticks around the upload, which find nothing to send."""
    spent: list[float] = []
    with Testbed(settings.build, interval=1) as testbed:
        daemon = testbed.start_daemon()
        _warm_up(testbed)
        for _ in range(settings.runs):
            _fill_queue(testbed)
            before = daemon.cpu()
            _upload(testbed)
            _await_tick(testbed)
            spent.append((daemon.cpu() - before) / 1000)
    return [Figure("cycle-cpu", f"service CPU of a cycle that uploads {POINTS} points", "ms",
                   Goal(2, of_ratio=False), tuple(spent))]


def _await_tick(testbed: Testbed, deadline: float = 10.0) -> None:
    """After it the answer has been handled."""
    testbed.device.larder.wait_for_call("CheckDeviceRegistered", after=testbed.device.mark(),
                                        deadline=deadline)


def profile(settings: Settings, folder: Path) -> None:
    """Writes callgrind's dump of one such cycle."""
    # Under callgrind, reading all authorities exceeds the time limit of a request.
    with Testbed(settings.build, interval=_SLOW_INTERVAL_SECONDS, all_authorities=False) as testbed:
        daemon = Counted(testbed, DAEMON_SERVICE, testbed.start_daemon(*CALLGRIND))
        _warm_up(testbed, _SLOW_DEADLINE_SECONDS)
        _fill_queue(testbed)
        daemon.dump()
        _upload(testbed, _SLOW_DEADLINE_SECONDS)
        _await_tick(testbed, _SLOW_DEADLINE_SECONDS)
        (folder / "cycle.callgrind").write_text(daemon.dump().text)
