"""The costs of the idle daemon: at its start, between ticks, and after much work."""

import subprocess
import time
from collections.abc import Callable, Iterable, Iterator

from lab.bench import built, parse
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
# What a device with 64 MiB can spare, by figure.
_LEAN_FIGURES = {
    "lean-rss": ("idle RSS of the lean build", "kB", Goal(10_000, of_ratio=False)),
    "lean-dirty": ("idle private dirty of the lean build", "kB", Goal(1300, of_ratio=False)),
    "lean-start": ("from the start of the lean build until it owns its name", "ms",
                   Goal(5, of_ratio=False))}


@measures("idle-rss", "idle-dirty", "idle-heap", "idle-wakeups")
def idle(settings: Settings) -> list[Figure]:
    wakeups: list[float] = []
    with Testbed(settings.build) as testbed:
        daemons, baselines = zip(*_memory_when_idle(
            testbed, settings.runs, lambda daemon: wakeups.append(_wakeups_per_second(daemon))))

    def figure(key: str, what: str, goal: Goal, kind: str) -> Figure:
        return Figure(key, f"idle {what}, next to the linked baseline", "kB", goal,
                      _of_kind(kind, daemons), _of_kind(kind, baselines))

    return [figure("idle-rss", "RSS", Goal(1.15), "Rss"),
            figure("idle-dirty", "private dirty", Goal(2100, of_ratio=False), "Private_Dirty"),
            figure("idle-heap", "heap", Goal(800, of_ratio=False), "Heap"),
            Figure("idle-wakeups", "wake-ups per second, idle between ticks", "1/s",
                   Goal(0, of_ratio=False), tuple(wakeups))]


@measures(*_LEAN_FIGURES)
def lean(settings: Settings) -> list[Figure]:
    """The build for a device image, next to the linked baseline of the release."""
    daemon, why = built.program("lean", "./dev lean")
    if why:
        return [Figure(key, *about, why=why) for key, about in _LEAN_FIGURES.items()]
    with Testbed(settings.build, daemon=daemon) as testbed:
        daemons, baselines = zip(*_memory_when_idle(testbed, settings.runs))
        times = _start_times(testbed, settings.runs)
    measured = [(_of_kind(kind, daemons), _of_kind(kind, baselines))
                for kind in ("Rss", "Private_Dirty")]
    return [Figure(key, *about, *sides)
            for (key, about), sides in zip(_LEAN_FIGURES.items(), [*measured, times])]


def _memory_when_idle(testbed: Testbed, runs: int,
                      look: Callable[[Process], None] = lambda daemon: None) -> Iterator[
                          tuple[dict[str, int], dict[str, int]]]:
    """Of the daemon, for which `look` runs too, and of the linked baseline, in each run."""
    for _ in range(runs):
        daemon = testbed.start_daemon()
        linked = testbed.start_linked_baseline(_BASELINE_URL)
        look(daemon)
        yield (daemon.memory() | {"Heap": daemon.heap()},
               linked.memory() | {"Heap": linked.heap()})
        testbed.device.stop_daemon()
        testbed.end_linked_baseline(linked)


def _of_kind(kind: str, memories: Iterable[dict[str, int]]) -> tuple[int, ...]:
    return tuple(memory[kind] for memory in memories)


def _wakeups_per_second(process: Process, seconds: float = 1.0) -> float:
    before = parse.times_run(process.schedstats())
    time.sleep(seconds)
    return (parse.times_run(process.schedstats()) - before) / seconds


@measures("start-time")
def start_time(settings: Settings) -> list[Figure]:
    with Testbed(settings.build) as testbed:
        return [Figure("start-time", "from its start until it owns its name", "ms", Goal(1.3),
                       *_start_times(testbed, settings.runs))]


def _start_times(testbed: Testbed, runs: int) -> tuple[tuple[float, ...], tuple[float, ...]]:
    """Of the daemon and of the linked baseline, in milliseconds."""
    commands = {DAEMON_SERVICE: names.DAEMON_PROGRAM, LINKED_SERVICE: f"{PROGRAMS}/baseline_linked"}
    took: dict[str, list[float]] = {side: [] for side in commands}
    # The first start of each program loads its libraries from disk.
    for _ in range(runs + 1):
        for side, command in commands.items():
            arguments = [side] if side == LINKED_SERVICE else []
            took[side].append(float(output(testbed.device, f"{PROGRAMS}/starter", side, command,
                                           *arguments)) / 1000)
    return tuple(took[DAEMON_SERVICE][1:]), tuple(took[LINKED_SERVICE][1:])


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
