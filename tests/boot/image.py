"""An image that docs/integration.md makes, booted with a read-only root and a /var that survives
the boots.

Its neighbours and its cloud run outside of it, on its bus and in its network, so that the image
contains nothing for the test but their addresses, users and CA."""

import json
import os
import shutil
import socket
import subprocess
from collections.abc import Sequence
from pathlib import Path

from lab.common import certificates
from lab.common.errors import LabError
from lab.common.tree import ROOT
from tests.boot import nspawn
from tests.boot.machine import DEADLINE, HOSTS, Machine, children_of

_HERE = Path(__file__).resolve().parent
_USERS = {"larder": 901, "tlsdate": 902}
_PACKAGE_MANAGERS = ("etc/apt", "etc/dpkg", "usr/bin/apt", "usr/bin/dpkg", "usr/bin/opkg",
                     "usr/bin/rpm", "var/lib/apt", "var/lib/dpkg")
_POLICY = "etc/dbus-1/system.d/simulated.conf"
# Debian 13 has another name for it.
_LIBRARIES = {"trixie": ("libssl3", "libssl3t64")}


class Image(Machine):
    """Off until `boot`."""

    def __init__(self, first_program: str) -> None:
        super().__init__(first_program)
        self._bus = self._folder / "bus"
        self.var = self._folder / "var"
        self._neighbours: list[subprocess.Popen] = []
        certificate = certificates.of_the_cloud()
        self._certificate = self._folder / "certificate.json"
        self._certificate.write_text(json.dumps(
            {"chain": certificate.chain, "key": certificate.key}))
        # The cloud's network is the image's too, in all its boots.
        self._cloud = self._start_program("cloud", ["--unshare-net"])

    def __exit__(self, *reason: object) -> None:
        super().__exit__(*reason)
        _end(self._cloud)

    def build(self, commands: Sequence[str], parts: Path | None = None) -> None:
        """Makes its root by shell commands in the source tree, and adds files to it."""
        suite = os.environ.get("PELMOR_BOOT_SUITE", "bookworm")
        authorities = self._folder / "authorities.pem"
        authorities.write_text(certificates.trusted_bundle())
        script = "\n".join(["set -e", *commands]).replace(*_LIBRARIES.get(suite, ("", "")))
        built = subprocess.run(
            ["sh", "-x", "-c", script], cwd=ROOT, capture_output=True, text=True, check=False,
            env=os.environ | {"IMAGE": str(self._root), "SUITE": suite,
                              "CA_BUNDLE": str(authorities)})
        if built.returncode != 0:
            raise LabError(f"The image was not built\n{built.stdout}{built.stderr}")
        if parts:
            shutil.copytree(parts, self._root, dirs_exist_ok=True)
        (self._root / "etc/hosts").write_text(HOSTS)
        shutil.copy(_HERE / "device" / _POLICY, self._root / "usr/share/dbus-1/system.d")
        with (self._root / "etc/passwd").open("a") as passwd:
            passwd.writelines(f"{user}:x:{number}:{number}::/:/bin/false\n"
                              for user, number in _USERS.items())
        self.erase()

    def package_managers(self) -> list[str]:
        """Their files in its root."""
        return [path for path in _PACKAGE_MANAGERS if (self._root / path).exists()]

    def erase(self) -> None:
        """Its /var is that of a new device, with what the factory writes."""
        shutil.rmtree(self.var, ignore_errors=True)
        shutil.copytree(_HERE / "device/var", self.var)
        (self.var / "log/journal").mkdir(parents=True)

    def boot(self) -> None:
        """Returns when its bus accepts connections and its neighbours run."""
        shutil.rmtree(self._bus, ignore_errors=True)
        self._bus.mkdir()
        [network] = children_of(self._cloud.pid)
        argv = nspawn.command(self._root, "--boot", "--read-only", f"--bind={self.var}:/var",
                              f"--bind={self._bus}:/run/dbus",
                              network=f"--network-namespace-path=/proc/{network}/ns/net")
        # Its /tmp is a file system in memory.
        self._start(argv, {"PATH": nspawn.ENVIRONMENT["PATH"]})
        self.wait_until(self._has_a_bus, "its bus")
        for name, number in _USERS.items():
            self._neighbours.append(self._start_program(
                name, ["--bind", str(self._bus), "/run/dbus"],
                ["setpriv", "--reuid", str(number), "--clear-groups"]))

    def update(self) -> None:
        """Another copy of its root takes the place of this one; the machine is off."""
        old = self._root.rename(self._folder / "old")
        subprocess.run(["cp", "--archive", "--reflink=auto", old, self._root], check=True)
        shutil.rmtree(old)

    def _var(self) -> Path:
        return self.var

    def kill(self) -> None:
        super().kill()
        for neighbour in self._neighbours:
            _end(neighbour)
        self._neighbours.clear()

    def _has_a_bus(self) -> bool:
        with socket.socket(socket.AF_UNIX) as client:
            return client.connect_ex(str(self._bus / "system_bus_socket")) == 0

    def _start_program(self, name: str, options: Sequence[str],
                       become: Sequence[str] = ()) -> subprocess.Popen:
        """Starts a simulated program in a sandbox with these options and the host's files; returns
        when it runs."""
        before = self.event_log.last()
        # A process that changes its user would outlive bubblewrap, but not its namespace.
        sandbox = ("bwrap", "--die-with-parent", "--unshare-pid", "--cap-add", "ALL",
                   "--dev-bind", "/", "/", "--tmpfs", "/run", "--tmpfs", "/opt",
                   # Readable by all users; bubblewrap would create it as 0700.
                   "--dir", "/opt/lab",
                   "--bind", str(self._link), "/opt/link",
                   "--ro-bind", str(ROOT / "lab"), "/opt/lab/lab",
                   "--ro-bind", str(_HERE / "inside"), "/opt/lab/inside",
                   "--ro-bind", str(self._certificate), "/opt/lab/certificate.json",
                   "--setenv", "PYTHONPATH", "/opt/lab")
        process = subprocess.Popen(
            [*sandbox, *options, *become, "/usr/bin/python3", "-B", "-s", "-m", "inside.program",
             name], stdin=subprocess.DEVNULL)
        self.event_log.wait_for("program.up", after=before, name=name, deadline=DEADLINE)
        return process


def _end(sandbox: subprocess.Popen) -> None:
    sandbox.kill()
    sandbox.wait()
