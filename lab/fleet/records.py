"""The reporter of a device; every record contains its number."""

import asyncio
import random
import time
from dataclasses import dataclass, field

from lab.common import names
from lab.common.names import Endpoint
from lab.device.inside.reporter import Reporter
from lab.device.values import double
from lab.fleet.cloud import NUMBER_LABEL

_BANDS = ("2g", "5g", "6g")
_NAMES = ("ap/radio/utilization", "ap/radio/noise", "ap/clients", "ap/wan/latency")
# The number of points between two logs, whose kinds alternate.
_POINTS_TO_A_LOG = 20
_TYPE_URL = "type.quintara.example/fleet"
_METHODS = {Endpoint.STRUCTURED_LOGS: "RecordStructuredData",
            Endpoint.OFFLINE_LOGS: "RecordOfflineData"}


@dataclass
class Record:
    """The times of the call and of its reply; None without a successful reply."""

    number: int
    endpoint: Endpoint
    sent: float
    replied: float | None = None


@dataclass
class Journal:
    """The reporter of one device and its records."""

    device: int
    reporter: Reporter
    records: list[Record] = field(default_factory=list)

    async def keep(self, per_second: float, over: asyncio.Event) -> None:
        """Records until `over`, at a constant rate with a random phase. On a busy machine it falls
        behind and then catches up."""
        chance = random.Random(self.device)
        due = time.monotonic() + chance.random() / per_second
        while not await _happens(over, due - time.monotonic()):
            await self._record(chance)
            due += 1 / per_second

    async def _record(self, chance: random.Random) -> None:
        number = len(self.records) + 1
        log = number % (_POINTS_TO_A_LOG + 1) == 0
        kinds = tuple(_METHODS)
        endpoint = kinds[number % len(kinds)] if log else Endpoint.METRICS
        record = Record(number, endpoint, time.monotonic())
        self.records.append(record)
        if log:
            reply = await self._call(_METHODS[endpoint], "say",
                                     [_TYPE_URL, str(number).encode()])
        else:
            labels = {"band": chance.choice(_BANDS), NUMBER_LABEL: str(number)}
            reply = await self._call("RecordMetric", "sa{ss}v",
                                     [chance.choice(_NAMES), labels, double(chance.random())])
        if not reply["error"]:
            record.replied = time.monotonic()

    async def _call(self, method: str, signature: str, arguments: list) -> dict:
        try:
            return await self.reporter.call(names.DAEMON_SERVICE, names.DAEMON_PATH,
                                            names.DAEMON_INTERFACE, method, signature, arguments)
        except asyncio.TimeoutError:
            return {"error": "no reply"}


async def _happens(event: asyncio.Event, within: float) -> bool:
    try:
        await asyncio.wait_for(event.wait(), max(within, 0))
    except asyncio.TimeoutError:
        return False
    return True
