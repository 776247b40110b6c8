"""Stores what devices send: each request once, in one transaction with the others that wait.

One writer serves all requests of an instance. While it commits, new requests gather into the next
transaction. A lock for each device keeps other instances from storing its repetitions meanwhile."""

import asyncio
import hashlib
import json
from base64 import urlsafe_b64decode
from dataclasses import dataclass, field
from typing import Any

import asyncpg

from cloud.database import Database
from cloud.points import Identity, Point, new_points, pack, stored_form, unpack

# Of one transaction; a request can have megabytes.
_MOST_REQUESTS = 200
# Devices wait for 10 seconds.
_COMMIT_SECONDS = 6


class StoreUnavailable(Exception):
    """It is unknown whether the request is stored: it must not be answered."""


@dataclass
class Batch:
    device: str
    points: list[Point]
    # Those of earlier batches of its time, filled by the ledger.
    stored: list[Identity] = field(default_factory=list)

    @property
    def oldest(self) -> int:
        return min(point.end for point in self.points)

    @property
    def newest(self) -> int:
        return max(point.end for point in self.points)


@dataclass
class Log:
    """A record of either kind."""

    device: str
    kind: str
    digest: bytes
    type_url: bytes
    value: bytes
    device_time: int | None
    properties: bytes | None
    # The row of an equal log before it, if the device is known to have received the response to it.
    before: int = 0
    # The number of its row, or of the row that it repeats.
    row: int = 0

    @staticmethod
    def of(device: str, kind: str, body: dict[str, Any], text: bytes) -> "Log":
        record = body["writeLog"][0] if "writeLog" in body else body
        properties = body.get("properties")
        return Log(device, kind, hashlib.sha256(kind.encode() + text).digest(),
                   record["typeUrl"].encode(), urlsafe_b64decode(record["value"]),
                   body["deviceTimestamp"]["seconds"] if properties else None,
                   json.dumps(properties).encode() if properties else None)


Item = Batch | Log


class Ledger:
    def __init__(self, database: Database) -> None:
        self._database = database
        self._waiting: asyncio.Queue[tuple[Item, asyncio.Future]] = asyncio.Queue()

    async def put(self, item: Item) -> None:
        """Returns when it is stored; raises a `StoreUnavailable`."""
        done = asyncio.get_running_loop().create_future()
        self._waiting.put_nowait((item, done))
        await done

    async def run(self) -> None:
        while True:
            group = [await self._waiting.get()]
            while not self._waiting.empty() and len(group) < _MOST_REQUESTS:
                group.append(self._waiting.get_nowait())
            # A request that has timed out meanwhile will be repeated.
            group = [(item, done) for item, done in group if not done.done()]
            if group:
                await self._store([item for item, _ in group], [done for _, done in group])

    async def _store(self, items: list[Item], done: list[asyncio.Future]) -> None:
        failure = None
        try:
            async with (asyncio.timeout(_COMMIT_SECONDS),
                        self._database.transaction() as connection):
                await _write(connection, items)
        except Exception as error:  # Of whatever kind: it is not known to be stored.
            failure = StoreUnavailable(f"PostgreSQL: {type(error).__name__}: {error}")
        for one in done:
            if one.done():
                continue
            if failure:
                one.set_exception(failure)
            else:
                one.set_result(None)


async def _write(connection: asyncpg.Connection, items: list[Item]) -> None:
    # In one order everywhere, so that two instances cannot wait for each other.
    locks = sorted({_lock_of(item.device) for item in items})
    await connection.execute("SELECT pg_advisory_xact_lock(lock) FROM unnest($1::bigint[]) lock",
                             locks)
    if batches := [item for item in items if isinstance(item, Batch)]:
        await _write_batches(connection, batches)
    if logs := [item for item in items if isinstance(item, Log)]:
        await _write_logs(connection, logs)


def _lock_of(device: str) -> int:
    return int.from_bytes(hashlib.blake2b(device.encode(), digest_size=8).digest(), signed=True)


async def _write_batches(connection: asyncpg.Connection, batches: list[Batch]) -> None:
    rows = await connection.fetch(
        "SELECT place, identities FROM unnest($1::text[], $2::bigint[], $3::bigint[])"
        " WITH ORDINALITY AS batch(device, oldest, newest, place) JOIN journal"
        " ON journal.device = batch.device AND journal.newest >= batch.oldest"
        " AND journal.oldest <= batch.newest",
        *map(list, zip(*((one.device, one.oldest, one.newest) for one in batches))))
    for row in rows:
        batches[row["place"] - 1].stored += unpack(row["identities"])
    # What earlier requests of this transaction store, by device.
    before: dict[str, list[Identity]] = {}
    journal, points = [], []
    for batch in batches:
        new = new_points(batch.points, batch.stored + before.get(batch.device, []))
        if not new:
            continue
        identities = [point.identity for point, _ in new]
        before.setdefault(batch.device, []).extend(identities)
        stored = stored_form(new)
        journal.append((batch.device, batch.oldest, batch.newest, pack(identities), stored.samples,
                        not stored.samples))
        points += [(batch.device, *row) for row in stored.rows]
    await _insert(connection, "journal",
                  "device oldest newest identities samples settled", journal)
    await _insert(connection, "points",
                  "device name labels start_time end_time type value", points)


async def _write_logs(connection: asyncpg.Connection, logs: list[Log]) -> None:
    rows = await connection.fetch(
        "SELECT wanted.device, last.* FROM unnest($1::text[]) AS wanted(device), LATERAL ("
        " SELECT id, digest, delivered FROM logs WHERE logs.device = wanted.device"
        " ORDER BY id DESC LIMIT 1) AS last", list({log.device for log in logs}))
    last = {row["device"]: row for row in rows}
    for log in logs:
        # A device repeats a log until it gets a response, and only then sends the next.
        earlier = last.get(log.device)
        if (earlier and earlier["digest"] == log.digest and not earlier["delivered"]
                and earlier["id"] != log.before):
            log.row = earlier["id"]
            continue
        log.row = await connection.fetchval(
            "INSERT INTO logs (device, kind, type_url, value, device_time, properties, digest)"
            " VALUES ($1, $2, $3, $4, $5, $6, $7) RETURNING id", log.device, log.kind,
            log.type_url, log.value, log.device_time, log.properties, log.digest)
        last[log.device] = {"id": log.row, "digest": log.digest, "delivered": False}


async def _insert(connection: asyncpg.Connection, table: str, columns: str,
                  rows: list[tuple]) -> None:
    if rows:
        await connection.copy_records_to_table(table, records=rows, columns=columns.split())
