"""A device that boots: a Debian root with the project's packages in it, and with the lab's
simulated programs as services on its real system bus."""

import json
import shutil
import subprocess
from pathlib import Path
from typing import Any

from lab.common import certificates
from lab.common.errors import LabError
from lab.device import system_bus
from lab.device.system_bus import SystemBus
from tests.boot import nspawn
from tests.boot.machine import DEADLINE, HOSTS, Machine

UNIT = "ap-pelmor.service"
# The folder that the daemon sees as names.RUN_FOLDER.
RUN_FOLDER = "/run/ap/pelmor"
START_TIME = f"{RUN_FOLDER}/uploader.start_time"
SIMULATED = ("larder", "tlsdate", "cloud")

_HERE = Path(__file__).resolve().parent
_LAB = _HERE.parents[1] / "lab"
_AUTHORITY = "usr/local/share/ca-certificates/boot-test.crt"
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
# The unit's RestartSec=, and the daemon's start.
_RESTART_DEADLINE = 60.0


class BootedDevice(Machine):
    """The device is off until `boot`."""

    def __init__(self, root: Path, packages: Path) -> None:
        """`root` is copied, and `packages` a folder with the packages to install."""
        super().__init__("/systemd/systemd")
        self._template = root
        self._packages = self._folder / "packages"
        shutil.copytree(packages, self._packages, ignore=_all_but_packages_of_this_machine)
        self.bus = system_bus.chosen()

    # Installation, boot and shutdown.

    def install(self, how: str) -> None:
        """Makes its root: the packages by a shell command in their folder, the simulated programs,
        and an integrator's settings."""
        subprocess.run(["cp", "--archive", "--reflink=auto", self._template, self._root],
                       check=True)
        shutil.copytree(_HERE / "device", self._root, dirs_exist_ok=True)
        self._write("etc/hosts", HOSTS)
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
        self._start(argv, nspawn.ENVIRONMENT)
        for name in SIMULATED:
            self.event_log.wait_for("program.up", after=before, name=name, deadline=DEADLINE)
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
        self.run("systemctl", how)
        return self._wait_for_end()

    def shell(self, command: str, user: str = "root") -> str:
        """The output of a shell command that must succeed."""
        done = self.run("sh", "-e", "-c", command, user=user)
        assert done.code == 0, done
        return done.output

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
        """Entries of the journal."""
        result = self._read_journal("--output=json", "--all", *options)
        assert result.returncode == 0, result
        return [json.loads(line) for line in result.stdout.splitlines()]


def _all_but_packages_of_this_machine(_: str, names: list[str]) -> list[str]:
    result = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True,
                            check=True)
    return [name for name in names if not name.endswith(f"_{result.stdout.strip()}.deb")]
