"""Starts the daemon, reads its log, and reports its exit."""

import asyncio
import os
import socket
import struct
from typing import Any

from lab.common import names
from lab.device.inside.part import Report, verb
from lab.device.inside.reporter import Reporter
from lab.device.inside.systemd import Systemd
from lab.device.status import PREFIX

_NOTIFY_SOCKET = "/run/ap-pelmor.notify"
_LONGEST_LINE = 1024 * 1024
# Printed by qemu when a signal kills the emulated program.
_EMULATORS_LINE = b"qemu: uncaught target signal "


class Daemon:
    def __init__(self, report: Report, reporter: Reporter, systemd: Systemd) -> None:
        self._report = report
        self._reporter = reporter
        self._systemd = systemd
        self._process: asyncio.subprocess.Process | None = None
        self._watch: asyncio.Task | None = None
        self._notify: socket.socket | None = None
        # In microseconds; the last states whether the clocks are stopped at these values.
        self._offsets = (0, 0, False)

    @verb
    async def start(self, environment: dict[str, str], under: list[str]) -> None:
        if self._process:
            raise RuntimeError("the daemon runs already")
        self._listen_for_notices()
        self._systemd.status = ""
        self._write_offsets()
        self._process = await asyncio.create_subprocess_exec(
            *under, names.DAEMON_PROGRAM, stdin=asyncio.subprocess.DEVNULL,
            stdout=asyncio.subprocess.PIPE, stderr=asyncio.subprocess.STDOUT,
            limit=_LONGEST_LINE,
            env=os.environ | names.DAEMON_ENVIRONMENT | {"NOTIFY_SOCKET": _NOTIFY_SOCKET}
            | environment)
        self._report("daemon.started", pid=self._process.pid)
        self._watch = asyncio.create_task(self._see_it_end(self._process))

    @verb
    def signal(self, signal: int) -> None:
        if not self._process:
            raise RuntimeError("the daemon does not run")
        self._process.send_signal(signal)

    @verb
    async def move_clocks(self, wall: int, monotonic: int, stopped: bool) -> None:
        """To so many microseconds from the machine's clocks, or, stopped, from zero."""
        self._offsets = (wall, monotonic, stopped)
        self._write_offsets()
        if self._process:
            # Its timers are set by the old clock: wake it up to read the new one.
            await self._reporter.wake(names.DAEMON_SERVICE)

    def _write_offsets(self) -> None:
        # In place: the daemon has the file mapped.
        file = os.open(names.CLOCK_SHIFT_FILE, os.O_WRONLY | os.O_CREAT, 0o644)
        os.pwrite(file, struct.pack("=qqq", *self._offsets), 0)
        os.close(file)

    def _listen_for_notices(self) -> None:
        if self._notify:
            return
        self._notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self._notify.bind(_NOTIFY_SOCKET)
        asyncio.get_running_loop().add_reader(self._notify, self._on_notice, self._notify)

    def _on_notice(self, notify: socket.socket) -> None:
        text = notify.recv(4096).decode(errors="replace")
        self._report("daemon.notify", text=text)
        if text.startswith(PREFIX):
            self._systemd.status = text.removeprefix(PREFIX)

    async def _see_it_end(self, process: Any) -> None:
        while line := await process.stdout.readline():
            if line.startswith(_EMULATORS_LINE):
                continue
            self._report("daemon.log", text=line.decode(errors="backslashreplace").rstrip("\n"))
        code = await process.wait()
        self._process = None
        self._report("daemon.exited", code=code)
