"""The service's connections to PostgreSQL.

asyncpg has a pool, but when PostgreSQL was killed in the middle of queries it lost connections, one
by one, until none was left. Here a connection that has seen any failure is not used again."""

import asyncio
import contextlib
from collections.abc import AsyncIterator

import asyncpg

_CONNECTIONS = 8
_CONNECT_SECONDS = 8
# What a query raises when PostgreSQL fails or is replaced. The internal error is of a connection
# whose server has said goodbye, but has not closed it yet.
FAILURES = (OSError, asyncpg.PostgresError, asyncpg.InterfaceError, asyncpg.InternalClientError)


class Database:
    def __init__(self, folder: str) -> None:
        """`folder` is that of PostgreSQL's socket."""
        self._folder = folder
        self._slots = asyncio.Semaphore(_CONNECTIONS)
        self._idle: list[asyncpg.Connection] = []

    @contextlib.asynccontextmanager
    async def transaction(self) -> AsyncIterator[asyncpg.Connection]:
        """Commits at its end, unless anything was raised; raises one of `FAILURES`."""
        async with self._slots:
            connection = await self._connection()
            try:
                await connection.execute("BEGIN")
                yield connection
                await connection.execute("COMMIT")
            except BaseException:
                # PostgreSQL rolls back. Asking it to could wait for as long as it hangs.
                connection.terminate()
                raise
            self._idle.append(connection)

    async def _connection(self) -> asyncpg.Connection:
        while self._idle:
            connection = self._idle.pop()
            if not connection.is_closed():
                return connection
        return await asyncpg.connect(host=self._folder, user="cloud", database="cloud",
                                     timeout=_CONNECT_SECONDS,
                                     server_settings={"lock_timeout": "5s"})

    def close(self) -> None:
        """Ends the connections that are not in use."""
        for connection in self._idle:
            connection.terminate()
