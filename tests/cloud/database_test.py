"""The service keeps its connections to PostgreSQL, whatever happens to them."""

import asyncio
import contextlib
import os
import struct
from collections.abc import Awaitable, Callable
from pathlib import Path

import asyncpg
import pytest

from cloud.database import FAILURES, Database
from cloud.process import Cloud

pytestmark = pytest.mark.xdist_group("cloud")
# More than there are connections.
_ROUNDS = 10
_ANSWER_SECONDS = 10


async def _is_cancelled(connection: asyncpg.Connection) -> None:
    async with asyncio.timeout(0.02):
        await connection.execute("SELECT pg_sleep(60)")


async def _is_ended_by_the_server(connection: asyncpg.Connection) -> None:
    await connection.execute("SELECT pg_terminate_backend(pg_backend_pid())")


async def _fails(connection: asyncpg.Connection) -> None:
    await connection.execute("SELECT 1/0")


async def _is_aborted(connection: asyncpg.Connection) -> None:
    connection.terminate()
    await connection.execute("SELECT 1")


def as_owner(cloud: Cloud, work: Callable[[Database], Awaitable[None]]) -> None:
    """Runs it as the user who may connect."""
    async def run() -> None:
        database = Database(str(cloud.data / "run"))
        await work(database)
        database.close()

    own = os.geteuid()
    os.seteuid(cloud.data.stat().st_uid)
    try:
        asyncio.run(run())
    finally:
        os.seteuid(own)


@pytest.mark.parametrize("failure", [_is_cancelled, _is_ended_by_the_server, _fails, _is_aborted])
def test_a_connection_that_failed_is_replaced(
        cloud: Cloud, failure: Callable[[asyncpg.Connection], Awaitable[None]]) -> None:
    async def work(database: Database) -> None:
        for _ in range(_ROUNDS):
            with pytest.raises(FAILURES):
                async with database.transaction() as connection:
                    await failure(connection)
        async with asyncio.timeout(_ANSWER_SECONDS), database.transaction() as connection:
            assert await connection.fetchval("SELECT 1") == 1

    as_owner(cloud, work)


def test_what_is_written_before_a_failure_is_rolled_back(cloud: Cloud) -> None:
    async def work(database: Database) -> None:
        insert = "INSERT INTO codes VALUES ($1, 'pelmor', 'none', 9999999999)"
        with pytest.raises(FAILURES):
            async with database.transaction() as connection:
                await connection.execute(insert, b"rolled back")
                await _fails(connection)
        async with database.transaction() as connection:
            await connection.execute(insert, b"committed")

    as_owner(cloud, work)
    assert cloud.sql("SELECT encode(hash, 'escape') FROM codes WHERE device = 'none'") == [
        ["committed"]]


def test_a_connection_that_the_server_has_closed_meanwhile_does_not_cost_a_transaction(
        cloud: Cloud) -> None:
    async def work(database: Database) -> None:
        async with database.transaction() as other:
            async with database.transaction() as idle:
                pid = await idle.fetchval("SELECT pg_backend_pid()")
            await other.execute(f"SELECT pg_terminate_backend({pid})")
        async with asyncio.timeout(_ANSWER_SECONDS):
            while not idle.is_closed():
                await asyncio.sleep(0)
        async with database.transaction() as one, database.transaction() as another:
            for connection in (one, another):
                assert await connection.fetchval("SELECT pg_backend_pid()") != pid

    as_owner(cloud, work)


def _message(kind: bytes, content: bytes) -> bytes:
    """Of PostgreSQL's protocol."""
    return kind + struct.pack("!i", len(content) + 4) + content


_READY = _message(b"Z", b"I")
_GREETING = (_message(b"R", struct.pack("!i", 0)) + _message(b"S", b"server_version\0" b"15.0\0")
             + _message(b"K", bytes(8)) + _READY)
_LAST_WORDS = _message(b"E", b"SFATAL\0C57P01\0Mterminating connection\0\0")


async def _serve(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
    """Ends with an error after the second query, but does not close the connection."""
    with contextlib.suppress(asyncio.IncompleteReadError, ConnectionError):
        length, = struct.unpack("!i", await reader.readexactly(4))
        await reader.readexactly(length - 4)
        writer.write(_GREETING)
        for number in range(1, 10):
            _, length = struct.unpack("!ci", await reader.readexactly(5))
            await reader.readexactly(length - 4)
            writer.write(_message(b"C", b"DONE\0") + _READY + (_LAST_WORDS if number == 2 else b""))
    writer.close()


def test_a_connection_whose_server_has_said_goodbye_is_replaced(tmp_path: Path) -> None:
    async def work() -> None:
        async with await asyncio.start_unix_server(_serve, tmp_path / ".s.PGSQL.5432"):
            database = Database(str(tmp_path))
            async with asyncio.timeout(_ANSWER_SECONDS):
                for _ in range(_ROUNDS):
                    async with database.transaction():
                        pass
                    with pytest.raises(FAILURES):
                        async with database.transaction():
                            pass
            database.close()

    asyncio.run(work())
