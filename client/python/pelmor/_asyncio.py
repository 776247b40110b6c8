"""A client for asyncio."""

import asyncio
import errno
from collections.abc import Callable, Mapping
from types import TracebackType
from typing import Self

from pelmor._client import DEFAULT_TIMEOUT_SECONDS, Busy, Client, Error, Value


class AsyncClient:
    """Sends records from the event loop in which it was created. While the queue is full, a call
    that records waits. Leaving the context sends what is queued; calls that still wait then fail.

    The event loop is blocked only while the client connects, for a millisecond at a time during
    `flush`, and on leaving until the bus has read what was queued."""

    def __init__(self) -> None:
        self._client = Client(queue_wait=0)
        self._loop = asyncio.get_running_loop()
        # Set for a moment, to wake those who wait: records, and calls of `flush`.
        self._has_room = asyncio.Event()
        self._processed = asyncio.Event()
        self._loop.add_reader(self._client, self._process)

    async def __aenter__(self) -> Self:
        return self

    async def __aexit__(self, kind: type[BaseException] | None, error: BaseException | None,
                        traceback: TracebackType | None) -> None:
        self._loop.remove_reader(self._client)
        self._client.close()
        self._wake(self._has_room, self._processed)

    async def record(self, name: str, value: Value,
                     labels: Mapping[str, str] | None = None) -> None:
        """As `Client.record`."""
        await self._until_accepted(lambda: self._client.record(name, value, labels))

    async def record_structured_data(self, type_url: str, data: bytes) -> None:
        """As `Client.record_structured_data`."""
        await self._until_accepted(lambda: self._client.record_structured_data(type_url, data))

    async def record_offline_data(self, type_url: str, data: bytes) -> None:
        """As `Client.record_offline_data`."""
        await self._until_accepted(lambda: self._client.record_offline_data(type_url, data))

    async def flush(self, timeout: float = DEFAULT_TIMEOUT_SECONDS) -> None:
        """As `Client.flush`. Waits also for what other tasks record meanwhile."""
        try:
            await self._until_flushed(self._loop.time() + timeout)
        finally:
            # It can have read what the others wait for: `_process` does not run then.
            self._wake(self._has_room, self._processed)

    @property
    def lost_records(self) -> int:
        """As `Client.lost_records`."""
        return self._client.lost_records

    async def _until_accepted(self, record: Callable[[], None]) -> None:
        try:
            while self._is_busy(record):
                await self._has_room.wait()
        finally:
            self._wake(self._has_room)

    @staticmethod
    def _is_busy(record: Callable[[], None]) -> bool:
        try:
            record()
        except Busy:
            return True
        return False

    async def _until_flushed(self, deadline: float) -> None:
        while True:
            try:
                # Requests the confirmation, and waits for a millisecond.
                return self._client.flush(0)
            except Error as error:
                if error.errno != errno.ETIMEDOUT or self._loop.time() >= deadline:
                    raise
            await self._until_processed(deadline)

    async def _until_processed(self, deadline: float) -> None:
        try:
            async with asyncio.timeout_at(deadline):
                await self._processed.wait()
        except TimeoutError:
            pass

    def _process(self) -> None:
        self._client.process()
        self._wake(self._has_room, self._processed)

    @staticmethod
    def _wake(*events: asyncio.Event) -> None:
        for event in events:
            event.set()
            event.clear()
