"""Finds out which responses to logs have reached their device.

Two equal logs in a row are either two records, or one that the device repeats because it got no
response: the requests do not differ. The second is a repetition unless the device has received the
response to the first. It has when its kernel has acknowledged all bytes sent to it. (A load
balancer that ends TLS acknowledges in place of the device, and must then pass the result on.)"""

import asyncio
import fcntl
import logging
import os
import struct
import termios

from cloud.database import FAILURES, Database
from cloud.ledger import Log

_PERIOD_SECONDS = 0.1
# A kernel may delay an acknowledgement, though the device already sends its next log.
_DELAYED_SECONDS = 0.5
_POLL_SECONDS = 0.01
_LOG = logging.getLogger(__name__)


class _Response:
    """It has a descriptor, because the device may close the connection at once: the kernel knows
    what was acknowledged as long as one is open."""

    def __init__(self, log: Log, transport: asyncio.Transport) -> None:
        self.row = log.row
        self.digest = log.digest
        self._transport = transport
        self._descriptor = os.dup(transport.get_extra_info("socket").fileno())
        # Else a part of it may be lost with the transport.
        self._is_sent = transport.get_write_buffer_size() == 0

    def has_arrived(self) -> bool:
        # The kernel's count of bytes that are not acknowledged (SIOCOUTQ).
        count, = struct.unpack("i", fcntl.ioctl(self._descriptor, termios.TIOCOUTQ, bytes(4)))
        return self._is_sent and count == 0

    def is_lost(self) -> bool:
        return not self.has_arrived() and (not self._is_sent or self._transport.is_closing())

    def close(self) -> None:
        os.close(self._descriptor)


class Deliveries:
    def __init__(self, database: Database) -> None:
        self._database = database
        # By device, until the database knows of it. A device sends one log after the other.
        self._responses: dict[str, _Response] = {}

    def note(self, log: Log, transport: asyncio.Transport | None) -> None:
        """The response to the log has been written to the transport."""
        self._forget(log.device)
        if transport and not transport.is_closing():
            self._responses[log.device] = _Response(log, transport)

    async def row_before(self, log: Log) -> int:
        """The row of an equal log before this one, if the device has received the response to it,
        which the database may not know yet; otherwise 0."""
        response = self._responses.get(log.device)
        if not response or response.digest != log.digest:
            return 0
        for _ in range(round(_DELAYED_SECONDS / _POLL_SECONDS)):
            if self._responses.get(log.device) is not response:
                break
            if response.has_arrived():
                return response.row
            await asyncio.sleep(_POLL_SECONDS)
        return 0

    async def run(self) -> None:
        while True:
            await asyncio.sleep(_PERIOD_SECONDS)
            await self.save()

    async def save(self) -> None:
        for device in [name for name, one in self._responses.items() if one.is_lost()]:
            self._forget(device)
        arrived = {name: one for name, one in self._responses.items() if one.has_arrived()}
        if not arrived:
            return
        try:
            async with self._database.transaction() as connection:
                await connection.execute("UPDATE logs SET delivered = true WHERE id = ANY($1)",
                                         [one.row for one in arrived.values()])
        except FAILURES as error:
            _LOG.warning("unable to save deliveries: %s", error)
            return
        for device, response in arrived.items():
            if self._responses.get(device) is response:
                self._forget(device)

    def _forget(self, device: str) -> None:
        if response := self._responses.pop(device, None):
            response.close()
