"""Access to the device's bus for programs of the host: a socket in a folder of the host, whose
connections are relayed to the bus as root's.

For the bus the peer is root, because the sandbox maps the host's user to root, but D-Bus libraries
announce the user id on the host. A bus rejects this mismatch, and not every bus supports anonymous
authentication instead."""

import asyncio
import re
from pathlib import Path

from lab.common import names

# The digits of a user's number are in hexadecimal ASCII: this is 0.
_ROOT = rb"\1 30"
_NAMED_USER = re.compile(rb"^(\0?AUTH EXTERNAL) \w+(?=\r\n)")
# The relay cannot pass descriptors, so the request for them is replaced by an invalid one.
_DESCRIPTORS = (b"NEGOTIATE_UNIX_FD\r\n", b"NEGOTIATE_NOTHING\r\n")
_END_OF_LINE = b"\r\n"
_LAST_LINE = b"BEGIN" + _END_OF_LINE
_CHUNK_BYTES = 64 * 1024


class HostBus:
    def __init__(self, bus_socket: Path) -> None:
        self._bus_socket = bus_socket

    async def start(self) -> None:
        """Does nothing in a device that shares no folder with the machine."""
        folder = Path(names.HOST_FOLDER)
        if not folder.is_dir():
            return
        place = folder / names.HOST_BUS
        self._server = await asyncio.start_unix_server(self._serve, str(place))
        # The programs of the machine are not all root.
        place.chmod(0o666)

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        try:
            from_bus, to_bus = await asyncio.open_unix_connection(str(self._bus_socket))
        except OSError:
            writer.close()
            return
        await asyncio.gather(_relay(reader, to_bus, authenticate=True),
                             _relay(from_bus, writer, authenticate=False))


async def _relay(reader: asyncio.StreamReader, writer: asyncio.StreamWriter, *,
                 authenticate: bool) -> None:
    """Until either end closes its connection."""
    try:
        if authenticate:
            await _authenticate(reader, writer)
        while data := await reader.read(_CHUNK_BYTES):
            writer.write(data)
            await writer.drain()
    except (OSError, asyncio.IncompleteReadError):
        pass  # An end of the connection like any other.
    finally:
        writer.close()


async def _authenticate(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
    line = b""
    while line != _LAST_LINE:
        line = await reader.readuntil(_END_OF_LINE)
        writer.write(_NAMED_USER.sub(_ROOT, line).replace(*_DESCRIPTORS))
        await writer.drain()
