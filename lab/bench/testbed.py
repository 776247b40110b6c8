"""The testbed for measurements that involve several processes: a device of the lab with the shipped
binary, the baselines next to it, and the processor time and memory of each."""

import contextlib
import json
import os
import shlex
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from lab.bench import parse
from lab.common import certificates, names
from lab.device import emulation, system_bus
from lab.device.device import Device
from lab.device.system_bus import SystemBus

PROGRAMS = "/opt/bench"
_CLIENT = "/opt/client"
_LINKED_FOLDER = "/opt/linked"
BASELINE_SERVICE = "org.quintara.bench.Baseline"
LINKED_SERVICE = "org.quintara.bench.Linked"
ONE_CA = "/etc/one-ca.pem"
# Longer than any measurement.
NO_TICK_SECONDS = 36000

_DEADLINE_SECONDS = 20
_PAUSE_SECONDS = 0.005
# For room in the client's queue, and for its last points; in milliseconds.
_REPORTER_PATIENCE = (30_000, 30_000)
_REPORT_DEADLINE = 150.0


@dataclass(frozen=True)
class Process:
    """A program in the device."""

    device: Device
    pid: int

    def schedstats(self) -> str:
        # A thread may end between its being listed and its being read.
        return output(self.device, "sh", "-c",
                      f"cat /proc/{self.pid}/task/*/schedstat 2>/dev/null; true")

    def cpu(self) -> float:
        """Microseconds, of its present threads."""
        return parse.cpu_microseconds(self.schedstats())

    def peak(self) -> int:
        """The highest resident memory, in kilobytes."""
        return parse.peak_kilobytes(_status(str(_machines_pid(self.pid))))

    def memory(self) -> dict[str, int]:
        """Read from outside the device: inside, no process may inspect the daemon."""
        return parse.memory_kilobytes(self._from_outside("smaps_rollup"))

    def heap(self) -> int:
        """Its resident kilobytes."""
        return parse.heap_mapping_kilobytes(self._from_outside("smaps"))

    def _from_outside(self, file: str) -> str:
        return Path(f"/proc/{_machines_pid(self.pid)}/{file}").read_text()

    def emulated_dirty(self) -> int:
        """The private dirty memory of an emulated 32-bit program, in kilobytes."""
        return parse.emulated_dirty_kilobytes(
            Path(f"/proc/{_machines_pid(self.pid)}/smaps").read_text())


def _machines_pid(pid_in_device: int) -> int:
    """The id, outside, of the one descendant of this process that has this id in its device."""
    found = [int(folder.name) for folder in Path("/proc").glob("[0-9]*")
             if parse.innermost_pid(_status(folder.name)) == pid_in_device
             and _is_below_us(folder.name)]
    if len(found) != 1:
        raise RuntimeError(f"{len(found)} processes have the id {pid_in_device} in a device")
    return found[0]


def _write_to_disk(program: Path) -> None:
    """Until its pages are on disk, the kernel counts them as dirty in a process that maps them."""
    with program.open("rb") as file:
        os.fsync(file.fileno())


def _status(pid: str) -> str:
    try:
        return Path(f"/proc/{pid}/status").read_text()
    except OSError:
        return ""  # It has ended.


def _is_below_us(pid: str) -> bool:
    while pid not in ("", "0", str(os.getpid())):
        pid = parse.parent_pid(_status(pid))
    return pid == str(os.getpid())


@contextlib.contextmanager
def on_bus(bus: SystemBus) -> Iterator[None]:
    """The system bus of the devices that start within."""
    before = os.environ.get(system_bus.VARIABLE)
    os.environ[system_bus.VARIABLE] = bus
    try:
        yield
    finally:
        del os.environ[system_bus.VARIABLE]
        if before is not None:
            os.environ[system_bus.VARIABLE] = before


def await_that(condition: Callable[[], bool], what: str) -> None:
    deadline = time.monotonic() + _DEADLINE_SECONDS
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError(f"waited {_DEADLINE_SECONDS} s for {what}")
        time.sleep(_PAUSE_SECONDS)


def output(device: Device, *argv: str, deadline: float = 30.0) -> str:
    run = device.run(*argv, deadline=deadline)
    if run.code:
        raise RuntimeError(f"{shlex.join(argv)} ended with {run.code}: {run.errors}")
    return run.output


class Testbed:
    """A device with the programs of `build`; a context manager. `interval`: of uploads, in
    seconds. With `all_authorities`, the cloud's CA is one among the machine's, as on a real
    device. `daemon` and `linked_baseline` replace the programs of `build`."""

    def __init__(self, build: Path, interval: int = NO_TICK_SECONDS,
                 all_authorities: bool = True, daemon: Path | None = None,
                 linked_baseline: Path | None = None) -> None:
        daemon = daemon or build / "ap/pelmor/ap-pelmor"
        linked_baseline = linked_baseline or build / "lab/bench/baseline_linked"
        self._measured = (daemon, linked_baseline)
        folders = {PROGRAMS: build / "lab/bench", _CLIENT: build / "client",
                   _LINKED_FOLDER: linked_baseline.parent}
        self.device = Device(daemon, folders=folders)
        self._interval = interval
        self._all_authorities = all_authorities

    def __enter__(self) -> "Testbed":
        for program in self._measured:
            _write_to_disk(program)
        self.device.__enter__()
        # The baselines send requests that the documented interface does not have.
        self.device.cloud.takes_anything = True
        self.device.configure(upload_interval_in_seconds=str(self._interval))
        self.device.provision()
        authority = certificates.trusted_bundle()
        self.device.write_file(ONE_CA, authority)
        if self._all_authorities:
            bundle = Path(certificates.BUNDLE).read_text() + authority
            for path, text in certificates.system_files(bundle).items():
                self.device.write_file(path, text)
        return self

    def __exit__(self, *failure: Any) -> None:
        self.device.__exit__(*failure)

    def start_daemon(self, *under: str) -> Process:
        """The daemon, after it has accepted its first records."""
        mark = self.device.mark()
        self.device.start_daemon(under=under)
        self.device.wait_for_log("Successfully fetched access token", after=mark,
                                 deadline=_DEADLINE_SECONDS)
        self.call(names.DAEMON_SERVICE, "sync", 10)
        return Process(self.device, self.device.wait_for("daemon.started", after=mark)["pid"])

    def spawn(self, *argv: str) -> int:
        """Starts a program in the background; its process id."""
        return int(output(self.device, "sh", "-c",
                          f"{shlex.join(argv)} >/tmp/spawned 2>&1 & echo $!"))

    def start_baseline(self, *under: str) -> Process:
        pid = self.spawn(*under, f"{PROGRAMS}/baseline_noop", BASELINE_SERVICE)
        self.await_name(BASELINE_SERVICE)
        self.call(BASELINE_SERVICE, "sync", 10)
        return Process(self.device, pid)

    def start_linked_baseline(self, *url: str) -> Process:
        mark = self.device.mark()
        command = emulation.command(self._measured[1], f"{_LINKED_FOLDER}/baseline_linked")
        pid = self.spawn(*command, LINKED_SERVICE, *url)
        self.await_name(LINKED_SERVICE)
        if url:
            self.device.wait_for("cloud.answer", after=mark)
        self.call(LINKED_SERVICE, "sync", 10)
        return Process(self.device, pid)

    def await_name(self, service: str) -> None:
        self.device.wait_for("bus.name", name=service, owned=True)

    def end_linked_baseline(self, process: Process) -> None:
        mark = self.device.mark()
        output(self.device, "kill", str(process.pid))
        self.device.wait_for("bus.name", name=LINKED_SERVICE, owned=False, after=mark)

    def read_file(self, path: str) -> str:
        """Empty when there is none."""
        return (self.device.read_file(path) or b"").decode()

    def bus(self) -> Process:
        # By name: the process that dbus-broker names as the bus is its launcher.
        return Process(self.device, int(output(self.device, "pidof", system_bus.chosen())))

    def report(self, count: int, per_second: int = 0) -> None:
        """Records points through the client library, one-way; returns when the daemon has
        processed them. None may be lost."""
        result = json.loads(output(self.device, f"{_CLIENT}/reporter", str(count), str(per_second),
                                   *map(str, _REPORTER_PATIENCE), deadline=_REPORT_DEADLINE))
        if (result["accepted"], result["lost"], result["flush"]) != (count, 0, ""):
            raise RuntimeError(f"points were lost: {result}")

    def call(self, service: str, mode: str, *arguments: object) -> dict[str, float]:
        """Loads a service and returns the load generator's report."""
        return json.loads(output(self.device, f"{PROGRAMS}/caller", service, mode,
                                 *map(str, arguments)))
