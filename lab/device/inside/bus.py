"""The device's system bus, at its real path."""

import asyncio
import os
import signal
import socket
from pathlib import Path

from lab.device import system_bus
from lab.device.inside.part import Report, verb

SOCKET = Path("/run/dbus/system_bus_socket")
ADDRESS = f"unix:path={SOCKET}"
_CONFIGURATION_FILE = Path("/run/dbus/system.conf")
# A socket without a file, to which the bus reports that it is ready.
_READY_SOCKET = "@bus-ready"
_BACKLOG = 128
_CONFIGURATION = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>%ADDRESS%</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
"""


class Bus:
    def __init__(self, report: Report, bus_configuration: str = "") -> None:
        """The default configuration allows everything to everyone."""
        self._report = report
        self._configuration = bus_configuration or configuration(ADDRESS)
        self._program = system_bus.chosen()

    async def start(self) -> None:
        """Returns when the bus accepts connections. May be called again after `stop`."""
        _CONFIGURATION_FILE.parent.mkdir(parents=True, exist_ok=True)
        _CONFIGURATION_FILE.write_text(self._configuration)
        read_end, write_end = os.pipe()
        self._lifeline = open(read_end, "rb")
        with _listen() as listener, _notices() as notices, open(write_end, "wb"):
            # In a new session, to be killed as a group: dbus-broker is two processes.
            self._process = await asyncio.create_subprocess_exec(
                *self._program.command(str(_CONFIGURATION_FILE)), stdin=listener,
                pass_fds=[write_end], start_new_session=True,
                env=os.environ | {"NOTIFY_SOCKET": _READY_SOCKET})
            await self._become_ready(notices)
        self._report("bus.started")

    async def _become_ready(self, notices: socket.socket) -> None:
        ready = asyncio.create_task(asyncio.get_running_loop().sock_recv(notices, 4096))
        ended = asyncio.create_task(self._process.wait())
        await asyncio.wait((ready, ended), return_when=asyncio.FIRST_COMPLETED)
        ready.cancel()
        if not ended.cancel():
            raise RuntimeError(f"{self._program} did not start")

    @verb
    async def stop(self) -> None:
        """Ends the bus and every connection to it."""
        os.killpg(self._process.pid, signal.SIGKILL)
        await self._process.wait()
        with self._lifeline:
            # The last process of the bus closes the other end.
            await asyncio.to_thread(self._lifeline.read)
        self._report("bus.stopped")


def configuration(address: str) -> str:
    """For a bus that listens at this address, unless it inherits a socket."""
    return _CONFIGURATION.replace("%ADDRESS%", address)


def _listen() -> socket.socket:
    SOCKET.unlink(missing_ok=True)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(str(SOCKET))
    listener.listen(_BACKLOG)
    return listener


def _notices() -> socket.socket:
    notices = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
    notices.bind(_READY_SOCKET.replace("@", "\0"))
    return notices
