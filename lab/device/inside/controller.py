"""Creates the parts of a device and executes commands from outside."""

import asyncio
import json
import socket
from typing import Any

from lab.common import deadlines
from lab.common.names import Host
from lab.device.inside.bus import SOCKET, Bus
from lab.device.inside.cloud import Cloud
from lab.device.inside.daemon import Daemon
from lab.device.inside.doors import Doors
from lab.device.inside.files import Files, of_a_device
from lab.device.inside.flood import Flood
from lab.device.inside.host_bus import HostBus
from lab.device.inside.larder import Larder
from lab.device.inside.listeners import listen_for_journal, listen_for_samples, listen_for_syslog
from lab.device.inside.load import Load
from lab.device.inside.monitor import Monitor
from lab.device.inside.part import event_line, reply_to, verb
from lab.device.inside.reporter import Reporter
from lab.device.inside.systemd import Systemd
from lab.device.inside.time_daemon import TimeDaemon

_LONGEST_LINE = 256 * 1024 * 1024


class Controller:
    def __init__(self, doors: socket.socket) -> None:
        self._writer: asyncio.StreamWriter
        # The event loop itself keeps only weak references to tasks.
        self._tasks: set[asyncio.Task] = set()
        self._bus = Bus(self._report)
        self._host_bus = HostBus(SOCKET)
        self._reporter = Reporter(self._report)
        self._files = Files(self._report)
        self._cloud = Cloud(self._report)
        self._larder = Larder(self._report, self._reporter)
        self._time_daemon = TimeDaemon(self._report, self._reporter)
        self._systemd = Systemd(self._report, self._reporter)
        self._monitor = Monitor(self._report)
        self._parts = {"device": self, "bus": self._bus, "files": self._files,
                       "reporter": self._reporter, "cloud": self._cloud, "larder": self._larder,
                       "tlsdate": self._time_daemon, "systemd": self._systemd,
                       "monitor": self._monitor, "doors": Doors(doors),
                       "load": Load(self._report, self._reporter), "flood": Flood(),
                       "daemon": Daemon(self._report, self._reporter, self._systemd)}

    async def serve(self, link: socket.socket) -> None:
        """Runs until the other end closes the link; the namespace ends with this process."""
        reader, self._writer = await asyncio.open_connection(sock=link, limit=_LONGEST_LINE)
        while line := await reader.readline():
            task = asyncio.create_task(self._obey(json.loads(line)))
            self._tasks.add(task)
            task.add_done_callback(self._tasks.discard)

    def _report(self, kind: str, **details: Any) -> None:
        self._writer.write(event_line(kind, details))

    async def _obey(self, command: dict[str, Any]) -> None:
        part = self._parts.get(command["verb"].partition(".")[0])
        self._writer.write(await reply_to(command, part))

    @verb
    async def come_up(self, authorities: dict[str, str], chain: str, key: str,
                      has_cloud: bool) -> None:
        self._lay_files(authorities)
        await listen_for_syslog(self._report)
        await listen_for_samples(self._report)
        await listen_for_journal()
        await self._bus.start()
        await self._host_bus.start()
        await self._reporter.connect()
        for host in Host if has_cloud else ():
            await self._cloud.use_certificate(host, chain, key)
            await self._cloud.come_back(host)
        await self._larder.start()
        await self._time_daemon.start()
        await self._systemd.start()
        self._report("device.up")

    @verb
    async def start_bus(self) -> None:
        """Restarts the bus, and on it the simulated programs that ran before."""
        await self._bus.start()
        await self._reporter.connect()
        for program in (self._larder, self._time_daemon, self._systemd,
                        self._monitor):
            await program.come_back()

    def _lay_files(self, authorities: dict[str, str]) -> None:
        for path, text in (of_a_device() | authorities).items():
            self._files.write(path, text.encode())

    @verb
    async def run(self, argv: list[str], deadline: float) -> dict[str, Any]:
        program = await asyncio.create_subprocess_exec(
            *argv, stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.PIPE,
            stderr=asyncio.subprocess.PIPE)
        try:
            output, errors = await asyncio.wait_for(program.communicate(),
                                                    deadlines.scaled(deadline))
        except asyncio.TimeoutError:
            program.kill()
            raise
        return {"code": program.returncode, "output": output.decode(errors="replace"),
                "errors": errors.decode(errors="replace")}
