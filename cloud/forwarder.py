"""Forwards the journal's samples to VictoriaMetrics, until it has them on disk.

VictoriaMetrics accepts samples into memory and writes them to disk within seconds, so a killed one
loses some that it has accepted. Samples are therefore sent again if the process that received them
has been replaced before they were old enough to be on disk. It keeps one of equal samples
(-dedup.minScrapeInterval=1ms), so sending them again changes nothing."""

import asyncio
import logging
import re

import aiohttp
import asyncpg

from cloud.database import FAILURES, Database

_PERIOD_SECONDS = 0.5
# Limits of one import.
_MOST_BATCHES = 500
_ON_DISK_SECONDS = 30
_IMPORT_SECONDS = 30
# How long points are recognized as repeated: the daemon drops them when they are 30 minutes old.
_KEPT_MINUTES = 60
_CLEANING_SECONDS = 60
_STARTED = re.compile(rb"^vm_app_start_timestamp (\d+)$", re.MULTILINE)
_LOG = logging.getLogger(__name__)


class Forwarder:
    def __init__(self, database: Database, url: str) -> None:
        self._database = database
        self._url = url
        self._cleaned = 0.0
        self._failure = ""

    async def run(self) -> None:
        timeout = aiohttp.ClientTimeout(total=_IMPORT_SECONDS)
        async with aiohttp.ClientSession(timeout=timeout) as session:
            while True:
                try:
                    was_full = await self._round(session)
                    self._failure = ""
                except (aiohttp.ClientError, *FAILURES) as error:
                    was_full = False
                    self._note(f"{type(error).__name__}: {error}")
                if not was_full:
                    await asyncio.sleep(_PERIOD_SECONDS)

    def _note(self, failure: str) -> None:
        """Logs a failure once, not in every round."""
        if failure != self._failure:
            _LOG.warning("samples wait in the journal: %s", failure)
        self._failure = failure

    async def _round(self, session: aiohttp.ClientSession) -> bool:
        """Returns whether more may be waiting."""
        process = await self._process(session)
        async with self._database.transaction() as connection:
            await connection.execute(
                "UPDATE journal SET sent_to = NULL WHERE NOT settled AND sent_to <> $1", process)
            # The samples are on disk if their process is still alive now.
            await connection.execute(
                "UPDATE journal SET settled = true, samples = '' WHERE NOT settled AND sent_to = $1"
                " AND sent_at < clock_timestamp() - make_interval(secs => $2)", process,
                float(_ON_DISK_SECONDS))
            await self._clean(connection)
        return await self._send(session, process)

    async def _process(self, session: aiohttp.ClientSession) -> int:
        """The start time of the present VictoriaMetrics process. Its supervisor waits a second
        before it replaces one, so that no two are the same."""
        async with session.get(f"{self._url}/metrics") as response:
            response.raise_for_status()
            found = _STARTED.search(await response.read())
        if not found:
            raise aiohttp.ClientError("VictoriaMetrics does not state its start time")
        return int(found[1])

    async def _send(self, session: aiohttp.ClientSession, process: int) -> bool:
        async with self._database.transaction() as connection:
            # Other instances take other rows.
            rows = await connection.fetch(
                "SELECT id, samples FROM journal WHERE NOT settled AND sent_to IS NULL"
                " ORDER BY id LIMIT $1 FOR UPDATE SKIP LOCKED", _MOST_BATCHES)
            if not rows:
                return False
            async with session.post(f"{self._url}/api/v1/import",
                                    data=b"".join(row["samples"] for row in rows)) as response:
                response.raise_for_status()
            await connection.execute(
                "UPDATE journal SET sent_to = $1, sent_at = clock_timestamp()"
                " WHERE id = ANY($2)", process, [row["id"] for row in rows])
        return len(rows) == _MOST_BATCHES

    async def _clean(self, connection: asyncpg.Connection) -> None:
        """Deletes what is no longer needed."""
        now = asyncio.get_running_loop().time()
        if now < self._cleaned + _CLEANING_SECONDS:
            return
        await connection.execute(
            "DELETE FROM journal WHERE settled AND received < now() - make_interval(mins => $1)",
            _KEPT_MINUTES)
        for table in ("access_tokens", "codes"):
            await connection.execute(
                f"DELETE FROM {table} WHERE expires_at < extract(epoch FROM now())")
        self._cleaned = now
