"""A device that boots: a Debian root with the project's packages in it, run by systemd-nspawn, and
with the lab's simulated programs as services on its real system bus.

The test observes it from outside, through the namespaces of its first process; the simulated
programs report over a socket."""

import json
import os
import shutil
import signal
import subprocess
import tempfile
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any, TypeVar

from lab.common import certificates
from lab.common.errors import LabError
from lab.device import system_bus
from lab.device.events import EventLog
from lab.device.programs import Cloud, Larder, TimeDaemon
from lab.device.system_bus import SystemBus
from tests.boot import nspawn
from tests.boot.wire import Wire

UNIT = "ap-pelmor.service"
# The folder that the daemon sees as names.RUN_FOLDER.
RUN_FOLDER = "/run/ap/pelmor"
START_TIME = f"{RUN_FOLDER}/uploader.start_time"
SIMULATED = ("larder", "tlsdate", "cloud")

_HERE = Path(__file__).resolve().parent
_LAB = _HERE.parents[1] / "lab"
_AUTHORITY = "usr/local/share/ca-certificates/boot-test.crt"
_HOSTS = """\
127.0.0.1 localhost
127.0.1.1 oauth2.quintara.example
127.0.1.2 pelmor.quintara.example
"""
# In the root before its first boot, as in the build of a device's image.
_INSTALL = """\
set -e
mkdir -p /var/log/journal
cd /opt/packages
{install}
systemd-sysusers
update-ca-certificates
systemctl enable {simulated}
systemctl {broker} dbus-broker.service
"""
_DEADLINE = 20.0
_RUN_DEADLINE = 30.0
# The unit's RestartSec=, and the daemon's start.
_RESTART_DEADLINE = 60.0
_INTERVAL = 0.05

T = TypeVar("T")


@dataclass(frozen=True)
class Run:
    """The result of a program in the device."""

    code: int
    output: str
    errors: str


class BootedDevice:
    """A context manager; the device is off until `boot`."""

    def __init__(self, root: Path, packages: Path) -> None:
        """`root` is copied, and `packages` a folder with the packages to install."""
        self._template = root
        self._folder = Path(tempfile.mkdtemp(prefix="pelmor-boot-"))
        self._folder.chmod(0o755)
        self._root = self._folder / "root"
        self._link = self._folder / "link"
        self._link.mkdir()
        self._packages = self._folder / "packages"
        shutil.copytree(packages, self._packages, ignore=_all_but_packages_of_this_machine)
        self._process: subprocess.Popen | None = None
        self._leader = 0
        self.bus = system_bus.chosen()
        self.event_log = EventLog()
        self._wire = Wire(self._link / "socket", self.event_log)
        self.larder = Larder("larder", self._wire.call, self.event_log)
        self.clock = TimeDaemon("tlsdate", self._wire.call, self.event_log)
        self.cloud = Cloud(self._wire.call, self.event_log)

    def __enter__(self) -> "BootedDevice":
        return self

    def __exit__(self, *_: object) -> None:
        self._kill()
        self._wire.close()
        shutil.rmtree(self._folder)

    # Installation, boot and shutdown.

    def install(self, how: str) -> None:
        """Makes its root: the packages by a shell command in their folder, the simulated programs,
        and an integrator's settings."""
        subprocess.run(["cp", "--archive", "--reflink=auto", self._template, self._root],
                       check=True)
        shutil.copytree(_HERE / "device", self._root, dirs_exist_ok=True)
        self._write("etc/hosts", _HOSTS)
        self._write(_AUTHORITY, certificates.trusted_bundle())
        certificate = certificates.of_the_cloud()
        self._write("opt/lab/certificate.json",
                    json.dumps({"chain": certificate.chain, "key": certificate.key}))
        enabled = " ".join(f"simulated@{name}.service" for name in SIMULATED)
        # Where it is not enabled, dbus.service is dbus-daemon.
        broker = "enable" if self.bus is SystemBus.DBUS_BROKER else "disable"
        script = _INSTALL.format(install=how, simulated=enabled, broker=broker)
        installed = subprocess.run(
            nspawn.command(self._root, "--as-pid2", f"--bind-ro={self._packages}:/opt/packages",
                           "/bin/sh", "-c", script),
            env=nspawn.ENVIRONMENT, stdin=subprocess.DEVNULL, capture_output=True, text=True,
            check=False)
        if installed.returncode != 0:
            raise LabError(f"The packages did not install\n{installed.stdout}{installed.stderr}")

    def _write(self, path: str, text: str) -> None:
        file = self._root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def boot(self) -> None:
        """Returns when its services have started."""
        before = self.event_log.last()
        argv = nspawn.command(self._root, "--boot", "--kill-signal=SIGRTMIN+3",
                              f"--bind-ro={_LAB}:/opt/lab/lab",
                              f"--bind-ro={_HERE / 'inside'}:/opt/lab/inside",
                              f"--bind-ro={self._packages}:/opt/packages",
                              f"--bind={self._link}:/opt/link")
        with (self._folder / "console").open("ab") as console:
            self._process = subprocess.Popen(argv, env=nspawn.ENVIRONMENT, stdout=console,
                                             stderr=console, stdin=subprocess.DEVNULL)
        self._leader = self.wait_until(self._find_leader, "the device's first process")
        for name in SIMULATED:
            self.event_log.wait_for("program.up", after=before, name=name, deadline=_DEADLINE)
        self.wait_for_service()

    def reboot(self) -> None:
        """As its own administrator reboots it; returns when its services have started again."""
        code = self._end("reboot")
        if code != nspawn.REBOOT:
            raise LabError(f"The device ended with {code} in place of a reboot")
        self.boot()

    def power_off(self) -> int:
        """Returns systemd-nspawn's exit code."""
        return self._end("poweroff")

    def _end(self, how: str) -> int:
        assert self._process
        self.run("systemctl", how)
        code = self._process.wait(_DEADLINE)
        self._leader = 0
        return code

    def _kill(self) -> None:
        if not self._process or self._process.poll() is not None:
            return
        if self._leader:
            # systemd-nspawn ends with it; killed itself, it would leave the device running.
            os.kill(self._leader, signal.SIGKILL)
        else:
            self._process.kill()
        self._process.wait()

    def _find_leader(self) -> int:
        """The first process of the device, as the host numbers it; 0 while there is none."""
        assert self._process
        if self._process.poll() is not None:
            console = (self._folder / "console").read_text(errors="replace")
            raise LabError(f"The device ended with {self._process.returncode}\n{console}")
        children = Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
        return next((int(child) for child in children.read_text().split()
                     if _is_first_process(int(child))), 0)

    # Programs in the device.

    def run(self, *argv: str, user: str = "root", deadline: float = _RUN_DEADLINE) -> Run:
        """Runs a program of the device, with the rights of one of its users."""
        enter = ["nsenter", f"--target={self._leader}", "--all", "--wd=/"]
        become = ["setpriv", "--reuid", user, "--regid", user, "--init-groups"]
        done = subprocess.run([*enter, *become, *argv], env=nspawn.ENVIRONMENT,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=deadline, check=False)
        return Run(done.returncode, done.stdout, done.stderr)

    def shell(self, command: str, user: str = "root") -> str:
        """The output of a shell command that must succeed."""
        done = self.run("sh", "-e", "-c", command, user=user)
        assert done.code == 0, done
        return done.output

    def file(self, path: str) -> Path:
        """Where the host sees a file of the running device."""
        return Path(f"/proc/{self._leader}/root{path}")

    # The daemon.

    def unit(self, name: str) -> str:
        """A property of the daemon's unit."""
        return self.run("systemctl", "show", "--value", f"--property={name}", UNIT).output.strip()

    def daemon(self) -> int:
        """The daemon's process, as the device numbers it; 0 while there is none."""
        return int(self.unit("MainPID") or 0)

    def view(self, user: str) -> dict[str, bool]:
        """The folders that the daemon sees, each with whether a user may write to it."""
        result = self.run("env", "PYTHONPATH=/opt/lab", "/usr/bin/python3", "-B", "-s", "-m",
                          "inside.view", str(self.daemon()), user)
        if result.code != 0:
            raise LabError(f"The daemon's folders can't be listed: {result.errors}")
        return json.loads(result.output)

    def wait_for_service(self) -> None:
        self.wait_until(lambda: self.unit("ActiveState") == "active", f"{UNIT}'s start")

    def wait_for_restart(self, old: int) -> None:
        """Until another process than the old one serves."""
        self.wait_until(lambda: self.daemon() not in (0, old), f"another process of {UNIT}",
                        _RESTART_DEADLINE)
        self.wait_for_service()

    def log(self, process: int | None = None) -> list[str]:
        """The lines that the daemon has logged since the boot, all or one process's."""
        return [entry["MESSAGE"] for entry in self.journal("--boot", f"--unit={UNIT}")
                if entry["SYSLOG_IDENTIFIER"] == "ap-pelmor"
                and process in (None, int(entry["_PID"]))]

    def wait_for_log(self, process: int, *texts: str) -> None:
        """Until a line holds one of the texts."""
        self.wait_until(lambda: any(text in line for line in self.log(process) for text in texts),
                        f"a log line with {' or '.join(texts)}")

    def journal(self, *options: str) -> list[dict[str, Any]]:
        """Entries of the journal, read from outside, so that the state of the device does not
        matter."""
        result = subprocess.run(
            ["journalctl", f"--directory={self._root}/var/log/journal", "--output=json", "--all",
             *options], capture_output=True, text=True, check=True)
        return [json.loads(line) for line in result.stdout.splitlines()]

    def describe(self) -> str:
        """The journal and the event log, for the report of a failed test."""
        if not (self._root / "var/log/journal").is_dir():
            return "It was never booted"
        journal = subprocess.run(
            ["journalctl", f"--directory={self._root}/var/log/journal", "--output=short-precise",
             "--no-pager", "--lines=200"], capture_output=True, text=True, check=False)
        return f"{journal.stdout}{journal.stderr}\n{self.event_log.text()}"

    def wait_until(self, condition: Callable[[], T], what: str, deadline: float = _DEADLINE) -> T:
        due = time.monotonic() + deadline
        while not (found := condition()):
            if time.monotonic() > due:
                raise LabError(f"Waited for {what}: not within {deadline:g} s")
            time.sleep(_INTERVAL)
        return found


def _all_but_packages_of_this_machine(_: str, names: list[str]) -> list[str]:
    result = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True,
                            check=True)
    return [name for name in names if not name.endswith(f"_{result.stdout.strip()}.deb")]


def _is_first_process(process: int) -> bool:
    """Of its own namespace of processes, and past the time when it was still systemd-nspawn."""
    try:
        status = Path(f"/proc/{process}/status").read_text()
        program = os.readlink(f"/proc/{process}/exe")
    except OSError:
        return False  # It is no more.
    numbers = next(line for line in status.splitlines() if line.startswith("NSpid:")).split()
    return numbers[-1] == "1" and len(numbers) > 2 and program.endswith("/systemd/systemd")
