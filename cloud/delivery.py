"""Finds out which responses to logs have reached their device.

Two equal structured logs in a row are either two records, or one that the device repeats because it
got no response: the requests do not differ. The second is a repetition unless the device has
received the response to the first. It has when its kernel has acknowledged all bytes sent to it. (A
load balancer that ends TLS acknowledges in place of the device, and must then pass the result
on.)"""

import asyncio
import fcntl
import logging
import struct
import termios

import asyncpg

_PERIOD_SECONDS = 0.1
_LOG = logging.getLogger(__name__)


class Deliveries:
    def __init__(self, pool: asyncpg.Pool) -> None:
        self._pool = pool
        self._sent: list[tuple[asyncio.Transport, int]] = []
        self._delivered: list[int] = []

    def note(self, transport: asyncio.Transport | None, row: int) -> None:
        """The response to the log of this row has been written to the transport."""
        if transport:
            self._sent.append((transport, row))

    async def run(self) -> None:
        while True:
            await asyncio.sleep(_PERIOD_SECONDS)
            self._sort()
            await self._save()

    def _sort(self) -> None:
        sent, self._sent = self._sent, []
        for transport, row in sent:
            if transport.is_closing():
                continue
            if _has_arrived(transport):
                self._delivered.append(row)
            else:
                self._sent.append((transport, row))

    async def _save(self) -> None:
        if not self._delivered:
            return
        try:
            await self._pool.execute("UPDATE logs SET delivered = true WHERE id = ANY($1)",
                                     self._delivered)
            self._delivered = []
        except (OSError, asyncpg.PostgresError, asyncpg.InterfaceError) as error:
            _LOG.warning("unable to save deliveries: %s", error)


def _has_arrived(transport: asyncio.Transport) -> bool:
    socket = transport.get_extra_info("socket")
    # The kernel's count of bytes that are not acknowledged (SIOCOUTQ).
    unacknowledged, = struct.unpack("i", fcntl.ioctl(socket.fileno(), termios.TIOCOUTQ, bytes(4)))
    return unacknowledged == 0 and transport.get_write_buffer_size() == 0
