"""What a call costs: RecordMetric with two labels and a double."""

import itertools
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass

from lab.bench import parse
from lab.bench.bed import FLOOR_SERVICE, Bed, Process, await_that
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
    """What callgrind tells since the dump before, and the calls that it took to have it told:
    it looks for orders only while its program runs."""

    text: str
    calls: int


class Counted:
    """A service under callgrind."""

    def __init__(self, bed: Bed, side: str, process: Process) -> None:
        self._bed = bed
        self._side = side
        self._pid = process.pid
        self._dumps = 0

    def instructions_per_call(self, calls: int) -> float:
        self._bed.call(self._side, "sync", calls)
        dump = self.dump()
        return parse.instructions(dump.text) / (calls + dump.calls)

    def dump(self) -> Dump:
        self._dumps += 1
        done = f"/tmp/dumped.{self._pid}.{self._dumps}"
        order = f"vgdb --max-invoke-ms=0 --pid={self._pid} dump && touch {done}"
        self._bed.spawn("sh", "-c", order)
        calls = itertools.count()
        await_that(lambda: self._is_there_after_call(done, calls), "callgrind's dump")
        return Dump(self._bed.read_file(f"/tmp/callgrind.{self._pid}.{self._dumps}"), next(calls))

    def _is_there_after_call(self, file: str, calls: Iterator[int]) -> bool:
        next(calls)
        self._bed.call(self._side, "sync", 1)
        return self._bed.device.read_file(file) is not None


@measures("call-instructions")
def call_instructions(settings: Settings) -> list[Figure]:
    calls = settings.scaled(500)
    counts: dict[str, list[float]] = {DAEMON_SERVICE: [], FLOOR_SERVICE: []}
    # To read them all takes callgrind longer than the request may take.
    with Bed(settings.build, all_authorities=False) as bed:
        services = {
            DAEMON_SERVICE: Counted(bed, DAEMON_SERVICE, bed.start_daemon(*CALLGRIND)),
            FLOOR_SERVICE: Counted(bed, FLOOR_SERVICE, bed.start_floor(*CALLGRIND))}
        for service in services.values():
            service.dump()
        for _ in range(settings.runs):
            for side, service in services.items():
                counts[side].append(service.instructions_per_call(calls))
    return [Figure("call-instructions", "service instructions per RecordMetric call", "count",
                   Goal(1.25), *_both(counts))]


def _both(of: dict[str, list[float]]) -> tuple[tuple[float, ...], tuple[float, ...]]:
    return tuple(of[DAEMON_SERVICE]), tuple(of[FLOOR_SERVICE])


@measures("call-cpu", "bus-cpu")
def call_cpu(settings: Settings) -> list[Figure]:
    calls = settings.scaled(20_000)
    service: dict[str, list[float]] = {DAEMON_SERVICE: [], FLOOR_SERVICE: []}
    bus: dict[str, list[float]] = {DAEMON_SERVICE: [], FLOOR_SERVICE: []}
    with Bed(settings.build) as bed:
        processes = {DAEMON_SERVICE: bed.start_daemon(), FLOOR_SERVICE: bed.start_floor()}
        bus_process = bed.bus()
        for _ in range(settings.runs):
            for side, process in processes.items():
                before = process.cpu(), bus_process.cpu()
                bed.call(side, "flight", calls, _IN_FLIGHT)
                service[side].append((process.cpu() - before[0]) / calls)
                bus[side].append((bus_process.cpu() - before[1]) / calls)
    return [Figure("call-cpu", f"service CPU per call, {_IN_FLIGHT} in flight", "µs", Goal(1.25),
                   *_both(service)),
            Figure("bus-cpu", f"bus CPU per call, {_IN_FLIGHT} in flight", "µs", Goal(1.1),
                   *_both(bus))]


@measures("call-syscalls")
def call_system_calls(settings: Settings) -> list[Figure]:
    counts: dict[str, list[float]] = {DAEMON_SERVICE: [], FLOOR_SERVICE: []}
    with Bed(settings.build) as bed:
        logs = {DAEMON_SERVICE: "/tmp/daemon.strace", FLOOR_SERVICE: "/tmp/floor.strace"}
        bed.start_daemon(*_STRACE, logs[DAEMON_SERVICE])
        bed.start_floor(*_STRACE, logs[FLOOR_SERVICE])
        for _ in range(settings.runs):
            for side, log in logs.items():
                counts[side].append(_system_calls_of_one(bed, side, log))
    return [Figure("call-syscalls", "system calls per synchronous call", "count", Goal(1.0),
                   *_both(counts))]


def _system_calls_of_one(bed: Bed, side: str, log: str) -> float:
    """By the difference of a long and a short run: what the caller's coming and going costs
    cancels out."""
    few, many = 50, 250

    def count(calls: int) -> int:
        before = _logged(bed, log)
        bed.call(side, "sync", calls)
        return _logged(bed, log) - before

    return (count(many) - count(few)) / (many - few)


def _logged(bed: Bed, log: str) -> int:
    """Once nothing more is written."""
    return settled(lambda: parse.system_calls(bed.read_file(log)))


def settled(read: Callable[[], int], pause_seconds: float = 0.02) -> int:
    """What is read twice in a row."""
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
    told: dict[str, list[dict[str, float]]] = {DAEMON_SERVICE: [], FLOOR_SERVICE: []}
    with Bed(settings.build) as bed:
        bed.start_daemon()
        bed.start_floor()
        for _ in range(settings.runs):
            for side, runs in told.items():
                runs.append(bed.call(side, "sync", calls))

    def figure(name: str, most: float) -> Figure:
        runs = {side: [run[name] for run in runs] for side, runs in told.items()}
        return Figure(f"latency-{name}", f"latency of a synchronous call, {name}", "µs",
                      Goal(most), *_both(runs))

    return [figure("p50", 1.2), figure("p99", 1.5)]
