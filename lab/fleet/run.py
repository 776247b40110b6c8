"""The run of a fleet, from the common power-up to its end."""

import asyncio
import contextlib
import os
import resource
import tempfile
import time
from collections import Counter
from collections.abc import AsyncIterator, Callable
from dataclasses import dataclass, field
from pathlib import Path

from lab.common.errors import LabError
from lab.fleet import usage
from lab.fleet.cloud import Account, Arrival, Cloud
from lab.fleet.device import Device
from lab.fleet.plan import CloudMode, Phase, Plan
from lab.fleet.records import Journal, Record
from lab.fleet.usage import Shares, Usage

_COMING_UP_AT_ONCE = 4
_SAMPLE_SECONDS = 2.0
_DAEMON_NAME = "ap-pelmor"


@dataclass(frozen=True)
class Mark:
    """The cloud's meter and the usage of each daemon, at the start of a phase or the end of the
    last one."""

    time: float
    reading: Counter[str]
    usages: list[Usage]
    shares: list[Shares]
    # The load average of the machine over a minute.
    load: float


@dataclass
class DeviceResult:
    """What is known of one device after the run, in seconds since power-up."""

    device_id: str
    checks: list[float]
    tokens: list[tuple[float, bool]]
    records: list[Record]
    arrivals: list[Arrival]
    exit_code: int
    # The number of log lines that contain a secret.
    leaks: int


@dataclass
class RunResult:
    """The observations of a fleet. Times are in seconds since power-up."""

    plan: Plan
    phases: list[tuple[Phase, Mark]] = field(default_factory=list)
    samples: list[tuple[float, list[Usage]]] = field(default_factory=list)
    devices: list[DeviceResult] = field(default_factory=list)
    by_second: dict[str, Counter[int]] = field(default_factory=dict)
    misdirected: list[str] = field(default_factory=list)
    # Memory of the other programs in each sandbox, by name, in kB.
    beside: dict[str, list[int]] = field(default_factory=dict)
    # Of the fleet's own process: CPU seconds and memory in kB.
    own_cpu: float = 0.0
    own_rss: int = 0
    end: float = 0.0


class Fleet:
    def __init__(self, plan: Plan, daemon: Path, print_line: Callable[[str], None]) -> None:
        self._plan = plan
        self._daemon = daemon
        self._print = print_line
        self._cloud = Cloud()
        self._devices: list[Device] = []
        self._journals: list[Journal] = []
        self._pids: list[int] = []
        # Power-up, by the monotonic clock; and the end of the phase, in seconds after it.
        self._began = 0.0
        self._due = 0.0
        self._result = RunResult(plan)

    async def run(self) -> RunResult:
        """Always removes its sandboxes and folders."""
        _allow_many_files()
        with tempfile.TemporaryDirectory(prefix="pelmor-fleet-") as folder:
            try:
                await self._come_up(Path(folder))
                await self._power_up()
                async with self._busy(), self._sampled():
                    for phase in self._plan.phases:
                        await self._pass(phase)
                await self._stop()
            finally:
                self._cloud.close()
                await asyncio.gather(*(device.end() for device in self._devices))
        return self._result

    async def _come_up(self, folder: Path) -> None:
        at_once = asyncio.Semaphore(_COMING_UP_AT_ONCE)

        async def come_up(device: Device) -> None:
            async with at_once:
                await device.come_up()

        accounts = [Account(number) for number in range(1, self._plan.devices + 1)]
        self._devices = [Device(account, self._daemon, folder / account.device_id,
                                self._plan.interval) for account in accounts]
        await asyncio.gather(*(come_up(device) for device in self._devices))
        for device in self._devices:
            self._cloud.add(device.account, device.listeners)
        self._print(f"{len(self._devices)} devices are ready for power-up")

    async def _power_up(self) -> None:
        self._cloud.close_idle_after(self._plan.idle_seconds(CloudMode.KEEP))
        await self._cloud.open()
        self._began = time.monotonic()
        self._result.own_cpu = -time.process_time()
        self._cloud.meter.start()
        for device in self._devices:
            device.power_up()
        await asyncio.gather(*(device.on_the_bus() for device in self._devices))
        self._find_daemons()

    def _find_daemons(self) -> None:
        running = usage.processes()
        for device in self._devices:
            for process in usage.family(device.sandbox_pid, running):
                if process.name == _DAEMON_NAME:
                    self._pids.append(process.pid)
                else:
                    memory = usage.usage(process.pid).rss
                    self._result.beside.setdefault(process.name, []).append(memory)
        if len(self._pids) != len(self._devices):
            raise LabError(f"{len(self._pids)} daemons run, not {len(self._devices)}")

    @contextlib.asynccontextmanager
    async def _busy(self) -> AsyncIterator[None]:
        """While it is open, all devices record."""
        over = asyncio.Event()
        self._journals = [Journal(device.account.number, device.reporter)
                          for device in self._devices]
        reporters = [asyncio.create_task(journal.keep(self._plan.rate, over))
                     for journal in self._journals]
        try:
            yield
            over.set()
            await asyncio.gather(*reporters)
        finally:
            for reporter in reporters:
                reporter.cancel()

    @contextlib.asynccontextmanager
    async def _sampled(self) -> AsyncIterator[None]:
        async def sample() -> None:
            while True:
                self._result.samples.append((self._now(), self._usages()))
                await asyncio.sleep(_SAMPLE_SECONDS)

        sampling = asyncio.create_task(sample())
        try:
            yield
        finally:
            sampling.cancel()
            with contextlib.suppress(asyncio.CancelledError):
                await sampling

    async def _pass(self, phase: Phase) -> None:
        mark = self._mark() if self._result.phases else self._nothing_yet()
        await self._change_cloud(phase)
        self._result.phases.append((phase, mark))
        self._print(f"{mark.time:7.1f} s  {phase.name}: the cloud {phase.mode.value}"
                    + (", and all tokens have expired" if phase.tokens_expire else ""))
        self._due += phase.intervals * self._plan.interval
        await self._sleep(self._due - self._now())

    async def _sleep(self, seconds: float) -> None:
        """Raises a `LabError` if a daemon exits meanwhile."""
        ends = {asyncio.create_task(device.wait()): device for device in self._devices}
        done, running = await asyncio.wait(ends, timeout=max(seconds, 0),
                                           return_when=asyncio.FIRST_COMPLETED)
        for one in running:
            one.cancel()
        if done:
            raise _ended(ends[done.pop()])

    async def _change_cloud(self, phase: Phase) -> None:
        cloud = self._cloud
        was_out = bool(self._result.phases) and self._result.phases[-1][0].mode.is_outage
        cloud.close_idle_after(self._plan.idle_seconds(phase.mode))
        if phase.tokens_expire:
            cloud.expire_tokens()
        if phase.mode == CloudMode.REFUSE:
            cloud.refuse()
        elif phase.mode == CloudMode.SILENCE:
            cloud.fall_silent()
        elif was_out:
            await cloud.open()

    async def _stop(self) -> None:
        result = self._result
        end = self._mark()
        result.phases.append((Phase("end", 0, CloudMode.KEEP), end))
        result.end = end.time
        result.own_cpu += time.process_time()
        result.own_rss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
        codes = await asyncio.gather(*(
            device.stop(pid) for device, pid in zip(self._devices, self._pids, strict=True)))
        self._print(f"{result.end:7.1f} s  all daemons are stopped")
        result.by_second = self._cloud.meter.by_second
        result.misdirected = self._cloud.misdirected
        result.devices = [self._device_result(*one) for one in
                          zip(self._devices, self._journals, codes, strict=True)]

    def _device_result(self, device: Device, journal: Journal, code: int) -> DeviceResult:
        checks = [time - self._began for time in device.checks]
        tokens = [(time - self._began, there) for time, there in device.tokens]
        records = [Record(one.number, one.endpoint, one.sent - self._began,
                          None if one.replied is None else one.replied - self._began)
                   for one in journal.records]
        arrivals = [one.moved(-self._began) for one in self._cloud.arrivals
                    if one.device == device.account.number]
        return DeviceResult(device.account.device_id, checks, tokens, records, arrivals, code,
                            device.leaks())

    def _mark(self) -> Mark:
        shares = [one for pid in self._pids if (one := usage.shares(pid))]
        return Mark(self._now(), self._cloud.meter.reading(), self._usages(), shares,
                    os.getloadavg()[0])

    def _nothing_yet(self) -> Mark:
        return Mark(0.0, Counter(), [Usage(0, 0, 0.0)] * len(self._pids), [], os.getloadavg()[0])

    def _usages(self) -> list[Usage]:
        return [_usage(device, pid) for device, pid in zip(self._devices, self._pids, strict=True)]

    def _now(self) -> float:
        return time.monotonic() - self._began


def _usage(device: Device, pid: int) -> Usage:
    try:
        return usage.usage(pid)
    except (OSError, ValueError) as error:
        raise _ended(device) from error


def _ended(device: Device) -> LabError:
    return LabError(f"{device.account.device_id}: the daemon has ended\n{device.log_text()}")


def _allow_many_files() -> None:
    """A dozen for each device."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
