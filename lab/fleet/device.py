"""One device of the fleet: a sandbox with a bus and the daemon. Larder, tlsdate and the reporter
run outside, in the process of the fleet, and connect to that bus."""

import asyncio
import contextlib
import datetime
import json
import os
import signal
import socket
import time
from pathlib import Path
from typing import Any

from dbus_next.aio import MessageBus
from dbus_next.auth import AuthExternal

from lab.common import certificates, names
from lab.common.errors import LabError
from lab.common.names import Host
from lab.device import sandbox
from lab.device.defaults import DEFAULT_CONFIGURATION, DEFAULT_RELEASE, key_values
from lab.device.inside.bus import configuration
from lab.device.inside.files import of_a_device
from lab.device.inside.larder import Larder
from lab.device.inside.reporter import Reporter
from lab.device.inside.time_daemon import TimeDaemon
from lab.fleet.cloud import Account

_BOOT = Path(__file__).with_name("boot.py")
_BOOT_PROGRAM = f"{names.LAB_FOLDER}/boot.py"
_BUS_FOLDER = "/run/dbus"
_BUS_SOCKET = "system_bus_socket"
_BUS_CONFIGURATION = f"{_BUS_FOLDER}/system.conf"
_MACHINES_BUNDLE = Path(certificates.BUNDLE)
# The payload of a TCP segment with time stamps on an Ethernet.
_SEGMENT_BYTES = 1448
_DEADLINE_SECONDS = 60.0
# Whether the daemon has an access token after each of these log lines.
_TOKEN_LINES = {b"Successfully fetched access token: 200": True, b"Access token invalidated": False}


class _RootOfTheDevice(AuthExternal):
    """The user of the fleet is root in its sandboxes, so it authenticates as user 0."""

    def _authentication_start(self, negotiate_unix_fd: bool = False) -> str:
        self.negotiate_unix_fd = negotiate_unix_fd
        return f"AUTH EXTERNAL {b'0'.hex()}"


class _Neighbour(Reporter):
    """Of a bus that ends with its device, while the connections to it are still there."""

    async def join(self) -> MessageBus:
        bus = await super().join()
        self._tasks.add(asyncio.create_task(_until_its_end(bus)))
        return bus


async def _until_its_end(bus: MessageBus) -> None:
    with contextlib.suppress(EOFError, OSError):
        await bus.wait_for_disconnect()


class Device:
    def __init__(self, account: Account, daemon: Path, folder: Path, interval: int) -> None:
        """`folder` is the device's own, for its bus's socket."""
        self.account = account
        # The times at which the daemon checked its registration, which begins a cycle, and at
        # which it logged that it got or lost an access token.
        self.checks: list[float] = []
        self.tokens: list[tuple[float, bool]] = []
        self.log: list[bytes] = []
        self.listeners: dict[Host, socket.socket] = {}
        self._daemon = daemon
        folder.mkdir()
        self._folder = folder
        # The full path may exceed the limit of a socket address.
        self._folder_descriptor = os.open(folder, os.O_PATH | os.O_DIRECTORY)
        self._interval = interval
        address = f"unix:path=/proc/self/fd/{self._folder_descriptor}/{_BUS_SOCKET}"
        self.reporter = _Neighbour(self._on_event, address, _RootOfTheDevice())
        self._larder = Larder(self._on_event, self.reporter)
        self._time_daemon = TimeDaemon(self._on_event, self.reporter)
        self._link: socket.socket
        self._process: asyncio.subprocess.Process | None = None
        self._reading: asyncio.Task | None = None

    @property
    def sandbox_pid(self) -> int:
        assert self._process
        return self._process.pid

    async def come_up(self) -> None:
        """Starts everything except the daemon, which `power_up` starts."""
        self._link, theirs = socket.socketpair()
        self._link.settimeout(_DEADLINE_SECONDS)
        with theirs:
            self._process = await asyncio.create_subprocess_exec(
                *self._command(theirs.fileno()), pass_fds=[theirs.fileno()],
                stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.PIPE,
                stderr=asyncio.subprocess.STDOUT)
        self._reading = asyncio.create_task(self._read_log(self._process.stdout))
        await asyncio.to_thread(self._hand_over)
        await self.reporter.connect()
        self._larder.register(self.account.device_id)
        await self._larder.start()
        await self._time_daemon.start()

    def power_up(self) -> None:
        self._link.send(b"!")

    async def on_the_bus(self) -> None:
        waiting = self.reporter.wait_for_name(names.DAEMON_SERVICE, owned=True)
        try:
            await asyncio.wait_for(waiting, _DEADLINE_SECONDS)
        except asyncio.TimeoutError as error:
            raise LabError(f"{self.account.device_id}: the daemon did not start\n"
                           f"{self.log_text()}") from error

    async def stop(self, daemon_pid: int) -> int:
        """As the device's supervisor would; the daemon's exit code."""
        os.kill(daemon_pid, signal.SIGTERM)
        return await asyncio.wait_for(self.wait(), _DEADLINE_SECONDS)

    async def wait(self) -> int:
        """Until the daemon has ended, and with it the sandbox; its exit code."""
        assert self._process
        return await self._process.wait()

    async def end(self) -> None:
        """The sandbox with all that is in it."""
        if self._process and self._process.returncode is None:
            self._process.kill()
            await self._process.wait()
        if self._reading:
            await self._reading
        os.close(self._folder_descriptor)

    def leaks(self) -> int:
        """How many lines of the log contain a secret."""
        secrets = [secret.encode() for secret in self.account.secrets()]
        return sum(any(secret in line for secret in secrets) for line in self.log)

    def log_text(self) -> str:
        return b"".join(self.log).decode(errors="replace")

    def _command(self, link: int) -> list[str]:
        binds = ["--ro-bind", str(_BOOT), _BOOT_PROGRAM,
                 "--ro-bind", str(self._daemon), names.DAEMON_PROGRAM,
                 "--bind", str(self._folder), _BUS_FOLDER]
        return sandbox.around(["/usr/bin/python3", "-I", "-S", "-B", _BOOT_PROGRAM, str(link)],
                              binds)

    def _hand_over(self) -> None:
        self._link.sendall(json.dumps(self._order()).encode() + b"\n")
        _, descriptors, _, _ = socket.recv_fds(self._link, 16, len(Host))
        if len(descriptors) != len(Host):
            raise LabError(f"{self.account.device_id} did not come up\n{self.log_text()}")
        self.listeners = {host: socket.socket(fileno=descriptor)
                          for host, descriptor in zip(Host, descriptors, strict=True)}

    def _order(self) -> dict[str, Any]:
        keys = DEFAULT_CONFIGURATION | {
            "PELMOR_CLIENT_SECRET": self.account.client_secret,
            "PELMOR_UPLOAD_INTERVAL_IN_SECONDS": str(self._interval)}
        # As on a real device, whose daemon reads all the CAs of its system.
        bundle = _MACHINES_BUNDLE.read_text() + certificates.trusted_bundle()
        files = of_a_device() | {
            certificates.BUNDLE: bundle,
            names.CONFIGURATION: key_values(keys),
            names.RELEASE: key_values(DEFAULT_RELEASE),
            names.REFRESH_TOKEN: self.account.refresh_token,
            _BUS_CONFIGURATION: configuration(f"unix:path={_BUS_FOLDER}/{_BUS_SOCKET}")}
        return {"files": files, "folders": [names.RUN_FOLDER],
                "bus": ["/usr/bin/dbus-daemon", f"--config-file={_BUS_CONFIGURATION}", "--fork",
                        "--nopidfile"],
                "addresses": [host.address for host in Host], "port": names.HTTPS_PORT,
                "segment_bytes": _SEGMENT_BYTES, "daemon": names.DAEMON_PROGRAM}

    def _on_event(self, kind: str, **details: Any) -> None:
        if kind == "larder.call" and details["method"] == "CheckDeviceRegistered":
            self.checks.append(time.monotonic())

    async def _read_log(self, output: asyncio.StreamReader | None) -> None:
        assert output
        while line := await output.readline():
            self.log.append(line)
            self.tokens += [(_logged_at(line), there) for text, there in _TOKEN_LINES.items()
                            if text in line]


def _logged_at(line: bytes) -> float:
    """By the monotonic clock. The daemon's own time: when the line is read may be much later."""
    logged = datetime.datetime.fromisoformat(line.split()[0].decode())
    return logged.timestamp() - time.time() + time.monotonic()
