"""Reporters that record the same metric point repeatedly, as fast as the bus accepts it, without
waiting for replies.

Each is a process: `python3 -m lab.device.inside.flood BYTES`.
"""

import asyncio
import os
import socket
import sys

from dbus_next import Message, MessageFlag, Variant

from lab.common import names
from lab.device.inside.bus import SOCKET
from lab.device.inside.part import verb

# In one write, so that Python's own cost is small next to the bus's.
_POINTS_AT_ONCE = 64


class Flood:
    def __init__(self) -> None:
        self._reporters: list[asyncio.subprocess.Process] = []

    @verb
    async def start(self, reporters: int, text_bytes: int) -> None:
        for _ in range(reporters):
            self._reporters.append(await asyncio.create_subprocess_exec(
                sys.executable, "-B", "-s", "-m", "lab.device.inside.flood", str(text_bytes)))

    @verb
    async def stop(self) -> None:
        for reporter in self._reporters:
            if reporter.returncode is None:
                reporter.kill()
            await reporter.wait()
        self._reporters.clear()


def _hello() -> bytes:
    return Message(destination=names.BUS_SERVICE, path=names.BUS_PATH,
                   interface=names.BUS_SERVICE, member="Hello", serial=1)._marshall()


def _point(text: str) -> bytes:
    """All points share one serial, which the bus allows for calls without a reply."""
    return Message(destination=names.DAEMON_SERVICE, path=names.DAEMON_PATH,
                   interface=names.DAEMON_INTERFACE, member="RecordMetric", signature="sa{ss}v",
                   body=["ap/flood", {"text": text}, Variant("d", 0.25)], serial=2,
                   flags=MessageFlag.NO_REPLY_EXPECTED)._marshall()


def main() -> None:
    with socket.socket(socket.AF_UNIX) as bus:
        bus.connect(str(SOCKET))
        bus.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        if not bus.recv(4096).startswith(b"OK "):
            sys.exit("The bus does not let this user in")
        bus.sendall(b"BEGIN\r\n" + _hello())
        points = _point("x" * int(sys.argv[1])) * _POINTS_AT_ONCE
        while True:
            bus.sendall(points)


if __name__ == "__main__":
    main()
