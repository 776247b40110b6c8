"""The run: load, faults and samples in parallel."""

import itertools
import threading
import time
from dataclasses import dataclass, field

from lab.common.errors import LabError
from lab.common.names import LARDER_MANAGER
from lab.device.device import Device
from lab.soak.faults import FAULTS
from lab.soak.load import PAUSE, Load, uploaded
from lab.soak.minute import FAULT_SECONDS, MINUTE, is_quiet
from lab.soak.samples import Sample, take
from lab.soak.verdict import Finding, judge, latency, points

_SAMPLE_EVERY = 5.0
# A cycle checks at its beginning, and again for its logs.
_LAST_CHECKS = 4


@dataclass
class Soak:
    device: Device
    minutes: float
    samples: list[Sample] = field(default_factory=list)
    faults: list[str] = field(default_factory=list)
    # The numbers of the points that must arrive, with the second of each.
    quiet_points: dict[int, float] = field(default_factory=dict)

    def __post_init__(self) -> None:
        self.load = Load(self.device)
        self._over = threading.Event()
        self._failure: Exception | None = None

    def run(self) -> None:
        process = self._start()
        began = time.monotonic()
        faults = threading.Thread(target=self._make_faults, name="faults")
        faults.start()
        try:
            self._keep_busy(process, began)
        finally:
            self._over.set()
            faults.join()
        if self._failure:
            raise self._failure
        self._wait_for_last_cycles()
        if self.device.event_log.events("daemon.exited"):
            raise LabError(f"The daemon ended\n{self.device.event_log.text()}")

    def _wait_for_last_cycles(self) -> None:
        """Until a whole cycle has followed the points that must arrive."""
        self.device.larder.wait_for_call("CheckDeviceRegistered", after=self.device.mark(),
                                         count=_LAST_CHECKS, deadline=MINUTE)

    def _start(self) -> int:
        self.device.provision()
        self.device.start_daemon()
        self.device.wait_for_access_token()
        return self.device.wait_for("daemon.started")["pid"]

    def _keep_busy(self, process: int, began: float) -> None:
        next_sample = 0.0
        while (now := time.monotonic() - began) < self.minutes * MINUTE and not self._failure:
            first = self.load.recorded + 1
            self.load.batch(now)
            if is_quiet(now) and is_quiet(time.monotonic() - began):
                self.quiet_points |= dict.fromkeys(range(first, self.load.recorded + 1), now)
            if now >= next_sample:
                self.samples.append(take(self.device, process, now))
                next_sample = now + _SAMPLE_EVERY
            self._over.wait(PAUSE)

    def _make_faults(self) -> None:
        try:
            for number, fault in enumerate(itertools.cycle(FAULTS)):
                if self._over.is_set():
                    return
                self.faults.append(fault.name)
                began = time.monotonic()
                fault.happen(self.device)
                self._over.wait(FAULT_SECONDS)
                fault.undo(self.device)
                self._over.wait(MINUTE - (time.monotonic() - began))
                print(f"minute {number + 1}: {fault.name}", flush=True)
        except LabError as error:
            self._failure = error

    def findings(self) -> list[Finding]:
        quiet = [took for at, took in self.load.latencies if is_quiet(at)]
        checks = self.device.larder.calls("CheckDeviceRegistered")
        cycles = sum(1 for call in checks if call["interface"] == LARDER_MANAGER)
        faults = Finding("faults", f"{len(self.faults)} of {len(FAULTS)} kinds, over at least "
                                   f"{cycles} checks of the registration; {self.load.rejected} of "
                                   f"{self.load.batches} batches met a full bus", bool(cycles))
        return [faults, *judge(self.samples), latency(quiet),
                points(self.quiet_points, uploaded(self.device), self.load.recorded)]
