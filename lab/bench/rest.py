"""The costs of the idle daemon: at its start, between ticks, and after much work."""

import subprocess
import time

from lab.bench import parse
from lab.bench.testbed import LINKED_SERVICE, PROGRAMS, Testbed, Process, output
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.common import names
from lab.common.names import DAEMON_SERVICE

_BASELINE_URL = f"https://{names.Host.MONITORING}/baseline"
_IN_FLIGHT = 64
# A cycle checks the registration twice, so this many include a whole cycle.
_CHECKS = 4
# For each queue, which keeps only the newest points.
_RECORDED = 50_000
# A flood: each reporter records points of this size as fast as the bus accepts them.
_REPORTERS = 4
_TEXT_BYTES = 2600
_FLOODED_REQUESTS = 10
# The unit's MemoryMax.
_MEMORY_MAX_KILOBYTES = 64 * 1024
_FLOOD_DEADLINE_SECONDS = 120


@measures("idle-rss", "idle-dirty", "idle-heap", "idle-wakeups")
def idle(settings: Settings) -> list[Figure]:
    ours: list[dict[str, int]] = []
    baseline: list[dict[str, int]] = []
    wakeups: list[float] = []
    with Testbed(settings.build) as testbed:
        for _ in range(settings.runs):
            daemon = testbed.start_daemon()
            linked = testbed.start_linked_baseline(_BASELINE_URL)
            wakeups.append(_wakeups_per_second(daemon))
            ours.append(daemon.memory() | {"Heap": daemon.heap()})
            baseline.append(linked.memory() | {"Heap": linked.heap()})
            testbed.device.stop_daemon()
            testbed.end_linked_baseline(linked)

    def figure(key: str, what: str, goal: Goal, kind: str) -> Figure:
        sizes = [tuple(memory[kind] for memory in side) for side in (ours, baseline)]
        return Figure(key, f"idle {what}, next to the linked baseline", "kB", goal, *sizes)

    return [figure("idle-rss", "RSS", Goal(1.15), "Rss"),
            figure("idle-dirty", "private dirty", Goal(2100, of_ratio=False), "Private_Dirty"),
            figure("idle-heap", "heap", Goal(800, of_ratio=False), "Heap"),
            Figure("idle-wakeups", "wake-ups per second, idle between ticks", "1/s",
                   Goal(0, of_ratio=False), tuple(wakeups))]


def _wakeups_per_second(process: Process, seconds: float = 1.0) -> float:
    before = parse.times_run(process.schedstats())
    time.sleep(seconds)
    return (parse.times_run(process.schedstats()) - before) / seconds


@measures("start-time")
def start_time(settings: Settings) -> list[Figure]:
    commands = {DAEMON_SERVICE: names.DAEMON_PROGRAM, LINKED_SERVICE: f"{PROGRAMS}/baseline_linked"}
    took: dict[str, list[float]] = {side: [] for side in commands}
    with Testbed(settings.build) as testbed:
        # The first start of each program loads its libraries from disk.
        for _ in range(settings.runs + 1):
            for side, command in commands.items():
                arguments = [side] if side == LINKED_SERVICE else []
                took[side].append(float(output(testbed.device, f"{PROGRAMS}/starter", side, command,
                                               *arguments)) / 1000)
    return [Figure("start-time", "from its start until it owns its name", "ms", Goal(1.3),
                   tuple(took[DAEMON_SERVICE][1:]), tuple(took[LINKED_SERVICE][1:]))]


@measures("first-upload-cpu")
def first_upload(settings: Settings) -> list[Figure]:
    ours: list[float] = []
    baseline: list[float] = []
    with Testbed(settings.build, interval=1) as testbed:
        for _ in range(settings.runs):
            mark = testbed.device.mark()
            daemon = testbed.start_daemon()
            # The end of the first cycle with a request.
            testbed.device.cloud.wait_for_request("metrics", after=mark)
            _await_empty_queues(testbed)
            ours.append(daemon.cpu() / 1000)
            linked = testbed.start_linked_baseline(_BASELINE_URL)
            baseline.append(linked.cpu() / 1000)
            testbed.device.stop_daemon()
            testbed.end_linked_baseline(linked)
    return [Figure("first-upload-cpu", "CPU from its start to the end of its first upload, with all"
                   " CAs", "ms", Goal(0.5), tuple(ours), tuple(baseline))]


@measures("kept-rss")
def kept_memory(settings: Settings) -> list[Figure]:
    """The baseline is the same process before the load."""
    after: list[float] = []
    with Testbed(settings.build, interval=1) as testbed:
        daemon = testbed.start_daemon()
        # After it, both connections exist and the CAs are loaded.
        _await_empty_queues(testbed)
        before = daemon.memory()["Rss"]
        for _ in range(settings.runs):
            testbed.call(DAEMON_SERVICE, "flight", settings.scaled(100_000), _IN_FLIGHT)
            _await_empty_queues(testbed)
            after.append(daemon.memory()["Rss"])
    return [Figure("kept-rss", "RSS after 100,000 points were recorded, uploaded and dropped; "
                   "the baseline is the size before", "kB", Goal(1.05), tuple(after), (before,))]


def _await_empty_queues(testbed: Testbed) -> None:
    """A cycle without a request follows one with a request."""
    while True:
        mark = testbed.device.mark()
        testbed.device.larder.wait_for_call("CheckDeviceRegistered", after=mark, count=_CHECKS)
        if not testbed.device.event_log.events("cloud.request", after=mark):
            return


@measures("queue-heap")
def queue_heap(settings: Settings) -> list[Figure]:
    """Counted by the allocator, so that it is the same each time."""
    report = subprocess.run([settings.build / "lab/bench/queue_heap", str(_RECORDED)],
                            capture_output=True, text=True, check=True).stdout
    return [Figure("queue-heap", f"heap in both queues, {_RECORDED} points recorded for each", "kB",
                   Goal(1024, of_ratio=False), (parse.heap_kilobytes(report),))]


@measures("queue-growth")
def queue_growth(settings: Settings) -> list[Figure]:
    """The growth of private memory while both queues fill."""
    grown: list[float] = []
    with Testbed(settings.build, interval=1) as testbed:
        for _ in range(settings.runs):
            daemon = testbed.start_daemon()
            _await_empty_queues(testbed)
            before = daemon.memory()["Private_Dirty"]
            _fill_queues(testbed, settings.scaled(_RECORDED))
            grown.append(daemon.memory()["Private_Dirty"] - before)
            testbed.device.stop_daemon()
            testbed.device.larder.behave()
            testbed.device.cloud.behave()
    return [Figure("queue-growth", "growth of the process meanwhile, uploads failing", "kB", None,
                   tuple(grown))]


def _fill_queues(testbed: Testbed, points: int) -> None:
    """Fills the unsent queue by a failed upload, and the pending one of an unregistered device."""
    testbed.device.cloud.cut_connection("metrics")
    mark = testbed.device.mark()
    testbed.call(DAEMON_SERVICE, "flight", points, _IN_FLIGHT)
    testbed.device.wait_for_log("Error uploading metrics", after=mark)
    testbed.device.larder.refuse("CheckDeviceRegistered")
    testbed.call(DAEMON_SERVICE, "flight", points, _IN_FLIGHT)


@measures("flood-peak")
def flood_peak(settings: Settings) -> list[Figure]:
    """Of the whole process, as a limit on its memory counts it."""
    peaks: list[float] = []
    with Testbed(settings.build, interval=1) as testbed:
        for _ in range(settings.runs):
            daemon = testbed.start_daemon()
            mark = testbed.device.mark()
            testbed.device.start_flood(_REPORTERS, _TEXT_BYTES)
            testbed.device.cloud.wait_for_request(
                "metrics", after=mark, count=settings.scaled(_FLOODED_REQUESTS),
                deadline=_FLOOD_DEADLINE_SECONDS)
            testbed.device.stop_flood()
            peaks.append(daemon.peak())
            testbed.device.stop_daemon()
    return [Figure("flood-peak", f"highest RSS while {_REPORTERS} reporters record points of "
                   f"{_TEXT_BYTES} bytes as fast as the bus accepts them", "kB",
                   Goal(_MEMORY_MAX_KILOBYTES, of_ratio=False), tuple(peaks))]
