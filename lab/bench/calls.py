"""The cost of a call: RecordMetric with two labels and a double."""

import itertools
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass

from lab.bench import parse
from lab.bench.testbed import BASELINE_SERVICE, Testbed, Process, await_that
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.common.names import DAEMON_SERVICE

_STRACE = ("strace", "-D", "-f", "-o")
_IN_FLIGHT = 64


def callgrind_into(file: object) -> tuple[str, ...]:
    return ("valgrind", "--tool=callgrind", f"--callgrind-out-file={file}")


CALLGRIND = callgrind_into("/tmp/callgrind.%p")


@dataclass(frozen=True)
class Dump:
    """Callgrind's counts since the previous dump, and the number of calls made to obtain it:
    callgrind looks for orders only while its program runs."""

    text: str
    calls: int


class Counted:
    """A service under callgrind."""

    def __init__(self, testbed: Testbed, side: str, process: Process) -> None:
        self._testbed = testbed
        self._side = side
        self._pid = process.pid
        self._dumps = 0

    def instructions_per_call(self, calls: int) -> float:
        self._testbed.call(self._side, "sync", calls)
        dump = self.dump()
        return parse.instructions(dump.text) / (calls + dump.calls)

    def dump(self) -> Dump:
        self._dumps += 1
        done = f"/tmp/dumped.{self._pid}.{self._dumps}"
        order = f"vgdb --max-invoke-ms=0 --pid={self._pid} dump && touch {done}"
        self._testbed.spawn("sh", "-c", order)
        calls = itertools.count()
        await_that(lambda: self._is_there_after_call(done, calls), "callgrind's dump")
        text = self._testbed.read_file(f"/tmp/callgrind.{self._pid}.{self._dumps}")
        return Dump(text, next(calls))

    def _is_there_after_call(self, file: str, calls: Iterator[int]) -> bool:
        next(calls)
        self._testbed.call(self._side, "sync", 1)
        return self._testbed.device.read_file(file) is not None


@measures("call-instructions")
def call_instructions(settings: Settings) -> list[Figure]:
    calls = settings.scaled(500)
    counts: dict[str, list[float]] = {DAEMON_SERVICE: [], BASELINE_SERVICE: []}
    # Under callgrind, reading all authorities exceeds the time limit of a request.
    with Testbed(settings.build, all_authorities=False) as testbed:
        starters = {DAEMON_SERVICE: testbed.start_daemon, BASELINE_SERVICE: testbed.start_baseline}
        services = {side: Counted(testbed, side, start(*CALLGRIND))
                    for side, start in starters.items()}
        for service in services.values():
            service.dump()
        for _ in range(settings.runs):
            for side, service in services.items():
                counts[side].append(service.instructions_per_call(calls))
    return [Figure("call-instructions", "service instructions per RecordMetric call", "count",
                   Goal(1.25), *_both(counts))]


def _both(of: dict[str, list[float]]) -> tuple[tuple[float, ...], tuple[float, ...]]:
    return tuple(of[DAEMON_SERVICE]), tuple(of[BASELINE_SERVICE])


@measures("call-cpu", "bus-cpu")
def call_cpu(settings: Settings) -> list[Figure]:
    calls = settings.scaled(20_000)
    service: dict[str, list[float]] = {DAEMON_SERVICE: [], BASELINE_SERVICE: []}
    bus: dict[str, list[float]] = {DAEMON_SERVICE: [], BASELINE_SERVICE: []}
    with Testbed(settings.build) as testbed:
        processes = {DAEMON_SERVICE: testbed.start_daemon(),
                     BASELINE_SERVICE: testbed.start_baseline()}
        bus_process = testbed.bus()
        for _ in range(settings.runs):
            for side, process in processes.items():
                before = process.cpu(), bus_process.cpu()
                testbed.call(side, "flight", calls, _IN_FLIGHT)
                service[side].append((process.cpu() - before[0]) / calls)
                bus[side].append((bus_process.cpu() - before[1]) / calls)
    return [Figure("call-cpu", f"service CPU per call, {_IN_FLIGHT} in flight", "µs", Goal(1.25),
                   *_both(service)),
            Figure("bus-cpu", f"bus CPU per call, {_IN_FLIGHT} in flight", "µs", Goal(1.1),
                   *_both(bus))]


@measures("call-syscalls")
def call_system_calls(settings: Settings) -> list[Figure]:
    counts: dict[str, list[float]] = {DAEMON_SERVICE: [], BASELINE_SERVICE: []}
    with Testbed(settings.build) as testbed:
        logs = {DAEMON_SERVICE: "/tmp/daemon.strace", BASELINE_SERVICE: "/tmp/baseline.strace"}
        testbed.start_daemon(*_STRACE, logs[DAEMON_SERVICE])
        testbed.start_baseline(*_STRACE, logs[BASELINE_SERVICE])
        for _ in range(settings.runs):
            for side, log in logs.items():
                counts[side].append(_system_calls_of_one(testbed, side, log))
    return [Figure("call-syscalls", "system calls per synchronous call", "count", Goal(1.0),
                   *_both(counts))]


def _system_calls_of_one(testbed: Testbed, side: str, log: str) -> float:
    """The difference of a long and a short run, which cancels the caller's connection cost."""
    few, many = 50, 250

    def count(calls: int) -> int:
        before = _logged(testbed, log)
        testbed.call(side, "sync", calls)
        return _logged(testbed, log) - before

    return (count(many) - count(few)) / (many - few)


def _logged(testbed: Testbed, log: str) -> int:
    """Returns when the file no longer changes."""
    return settled(lambda: parse.system_calls(testbed.read_file(log)))


def settled(read: Callable[[], int], pause_seconds: float = 0.02) -> int:
    """The first value that is read twice in a row."""
    value = read()
    while True:
        time.sleep(pause_seconds)
        again = read()
        if again == value:
            return value
        value = again


@measures("latency-p50", "latency-p99")
def latency(settings: Settings) -> list[Figure]:
    calls = settings.scaled(3000)
    results: dict[str, list[dict[str, float]]] = {DAEMON_SERVICE: [], BASELINE_SERVICE: []}
    with Testbed(settings.build) as testbed:
        testbed.start_daemon()
        testbed.start_baseline()
        for _ in range(settings.runs):
            for side, runs in results.items():
                runs.append(testbed.call(side, "sync", calls))

    def figure(name: str, most: float) -> Figure:
        runs = {side: [run[name] for run in runs] for side, runs in results.items()}
        return Figure(f"latency-{name}", f"latency of a synchronous call, {name}", "µs",
                      Goal(most), *_both(runs))

    return [figure("p50", 1.2), figure("p99", 1.5)]
