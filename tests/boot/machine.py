"""A machine that boots: a root that systemd-nspawn runs, with the lab's simulated programs around
the daemon in it.

The test observes it from outside, through the namespaces of its first process; the simulated
programs report over a socket."""

import os
import shutil
import signal
import subprocess
import tempfile
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Self, TypeVar

from lab.common.errors import LabError
from lab.common.names import Host
from lab.device.events import EventLog
from lab.device.programs import Cloud, Larder, TimeDaemon
from tests.boot import nspawn
from tests.boot.wire import Wire

HOSTS = "127.0.0.1 localhost\n" + "".join(f"{host.address} {host}\n" for host in Host)
DEADLINE = 20.0
_RUN_DEADLINE = 30.0
_INTERVAL = 0.05

T = TypeVar("T")


@dataclass(frozen=True)
class Run:
    """The result of a program in the machine."""

    code: int
    output: str
    errors: str


class Machine:
    """A context manager; the machine is off at first."""

    def __init__(self, first_program: str) -> None:
        """The path of its first process ends with `first_program`."""
        self._first_program = first_program
        self._folder = Path(tempfile.mkdtemp(prefix="pelmor-boot-"))
        self._folder.chmod(0o755)
        self._root = self._folder / "root"
        self._link = self._folder / "link"
        self._link.mkdir()
        self._process: subprocess.Popen | None = None
        self._leader = 0
        self.event_log = EventLog()
        self._wire = Wire(self._link / "socket", self.event_log)
        self.larder = Larder("larder", self._wire.call, self.event_log)
        self.clock = TimeDaemon("tlsdate", self._wire.call, self.event_log)
        self.cloud = Cloud(self._wire.call, self.event_log)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.kill()
        self._wire.close()
        shutil.rmtree(self._folder)

    def _start(self, argv: list[str], environment: dict[str, str]) -> None:
        """Returns when its first process runs; `argv` starts systemd-nspawn."""
        with (self._folder / "console").open("ab") as console:
            self._process = subprocess.Popen(argv, env=environment, stdout=console,
                                             stderr=console, stdin=subprocess.DEVNULL)
        self._leader = self.wait_until(self._find_leader, "the first process")

    def _wait_for_end(self) -> int:
        """Returns systemd-nspawn's exit code."""
        assert self._process
        code = self._process.wait(DEADLINE)
        self._leader = 0
        return code

    def kill(self) -> None:
        """As a power failure ends it."""
        if not self._process or self._process.poll() is not None:
            return
        if self._leader:
            # systemd-nspawn ends with it; killed itself, it would leave the machine running.
            os.kill(self._leader, signal.SIGKILL)
        else:
            self._process.kill()
        self._process.wait()

    def _find_leader(self) -> int:
        """The first process of the machine, as the host numbers it; 0 while there is none."""
        assert self._process
        if self._process.poll() is not None:
            raise LabError(f"The machine ended with {self._process.returncode}\n{self._console()}")
        return next(filter(self._is_first_process, children_of(self._process.pid)), 0)

    def _is_first_process(self, process: int) -> bool:
        """Of its own namespace of processes, and past the time when it was still systemd-nspawn."""
        try:
            status = Path(f"/proc/{process}/status").read_text()
            program = os.readlink(f"/proc/{process}/exe")
        except OSError:
            return False  # It is no more.
        numbers = next(line for line in status.splitlines() if line.startswith("NSpid:")).split()
        return numbers[-1] == "1" and len(numbers) > 2 and program.endswith(self._first_program)

    def _console(self) -> str:
        console = self._folder / "console"
        return console.read_text(errors="replace") if console.exists() else "It was never started"

    def describe(self) -> str:
        """The journal, the console and the event log, for the report of a failed test."""
        journal = self._read_journal("--output=short-precise", "--lines=200")
        return f"{journal.stdout}{journal.stderr}{self._console()}\n{self.event_log.text()}"

    def _read_journal(self, *options: str) -> subprocess.CompletedProcess[str]:
        """From outside, so that the state of the machine does not matter."""
        return subprocess.run(
            ["journalctl", f"--directory={self._var()}/log/journal", "--no-pager", *options],
            capture_output=True, text=True, check=False)

    def _var(self) -> Path:
        return self._root / "var"

    # Programs in the machine.

    def run(self, *argv: str, user: str = "root", deadline: float = _RUN_DEADLINE) -> Run:
        """Runs a program of the machine, with the rights of one of its users."""
        enter = ["nsenter", f"--target={self._leader}", "--all", "--wd=/"]
        become = [] if user == "root" else [
            "setpriv", "--reuid", user, "--regid", user, "--init-groups"]
        done = subprocess.run([*enter, *become, *argv], env=nspawn.ENVIRONMENT,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=deadline, check=False)
        return Run(done.returncode, done.stdout, done.stderr)

    def file(self, path: str) -> Path:
        """Where the host sees a file of the running machine."""
        return Path(f"/proc/{self._leader}/root{path}")

    def wait_until(self, condition: Callable[[], T], what: str, deadline: float = DEADLINE) -> T:
        due = time.monotonic() + deadline
        while not (found := condition()):
            if time.monotonic() > due:
                raise LabError(f"Waited for {what}: not within {deadline:g} s")
            time.sleep(_INTERVAL)
        return found


def children_of(process: int) -> list[int]:
    return [int(child) for child in
            Path(f"/proc/{process}/task/{process}/children").read_text().split()]
