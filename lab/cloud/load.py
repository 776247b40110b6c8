"""Many simulated devices of one reference cloud, with real TLS and HTTP but without daemons.

Each has one connection, numbers its points, and keeps them until they are accepted, as the daemon
does. Afterwards the stores must have each accepted record once."""

import asyncio
import contextlib
import json
import os
import resource
import ssl
import time
import urllib.request
from collections import Counter
from dataclasses import dataclass, field
from urllib.parse import quote, urlencode, urlsplit

from cloud.process import Cloud

METRIC = "ap/load"
_SERIES = 5
# The time limit of a request of the daemon.
_REQUEST_SECONDS = 10
_FORWARD_SECONDS = 60
_LAST_CYCLES = 10
_HEAD = "POST {path} HTTP/1.1\r\nHost: {host}\r\nContent-Type: {type}\r\n{extra}Content-Length: "
_TICKS = os.sysconf("SC_CLK_TCK")
_TRANSPORT = (OSError, EOFError, asyncio.TimeoutError)
_PARTS = ("service", "postgresql", "victoria-metrics")


@dataclass
class Tally:
    requests: int = 0
    failures: Counter[str] = field(default_factory=Counter)
    # Of accepted requests, in seconds.
    delays: list[float] = field(default_factory=list)


class LoadDevice:
    def __init__(self, cloud: Cloud, device: str, context: ssl.SSLContext, tally: Tally) -> None:
        self.device = device
        self.points = 0
        self.logs = 0
        self._cloud = cloud
        self._service = urlsplit(cloud.service_url)
        self._context = context
        self._tally = tally
        self._token = ""
        self._unsent: list[dict] = []
        self._log_waits = False
        self._start = int(time.time())
        self._stream: tuple[asyncio.StreamReader, asyncio.StreamWriter] | None = None

    async def provision(self, code: str, secret: str) -> bool:
        """Whether it got a token. Without one it waits for another code, as a daemon does."""
        form = {"code": code, "client_id": self._cloud.client_id, "client_secret": secret,
                "redirect_uri": "oob", "scope": "", "grant_type": "authorization_code"}
        try:
            status, body = await self._post(urlsplit(self._cloud.token_url).path, urlencode(form),
                                            "application/x-www-form-urlencoded")
        except _TRANSPORT as error:
            return await self._note_failure(f"exchange: {type(error).__name__}")
        if status != 200:
            return await self._note_failure(f"exchange: {status}")
        self._token = json.loads(body)["access_token"]
        return True

    async def _note_failure(self, what: str) -> bool:
        self._tally.failures[what] += 1
        await self.close()
        return False

    async def cycle(self, points: int, with_log: bool) -> None:
        """Records so many points, and sends those that are not accepted yet."""
        end, first = int(time.time()), self.points + len(self._unsent)
        self._unsent += [{"labels": {"port": str(number % _SERIES)},
                          "startTime": {"seconds": self._start}, "endTime": {"seconds": end},
                          "int64Value": str(number)} for number in range(first, first + points)]
        body = {"metricPoints": [{"metricName": METRIC, "points": self._unsent}]}
        if self._unsent and await self._send("metrics:batchCreatePoints", body):
            self.points += len(self._unsent)
            self._unsent = []
        self._log_waits |= with_log
        if self._log_waits and await self._send("structuredLogs", {
                "typeUrl": "type.example/Load", "value": f"{self.logs:08}"}):
            self.logs += 1
            self._log_waits = False

    async def settle(self) -> None:
        """Repeats what was not accepted: it may be stored, if only the response was lost."""
        for _ in range(_LAST_CYCLES):
            if self._unsent or self._log_waits:
                await self.cycle(0, with_log=False)

    async def _send(self, method: str, body: dict) -> bool:
        """Whether it is accepted; the device keeps what is not."""
        began = time.monotonic()
        self._tally.requests += 1
        try:
            status, _ = await self._post(f"{self._service.path}/{self.device}/{method}",
                                         json.dumps(body, separators=(",", ":")),
                                         "application/json",
                                         f"Authorization: Bearer {self._token}\r\n")
        except _TRANSPORT as error:
            return await self._note_failure(type(error).__name__)
        if status != 200:
            self._tally.failures[str(status)] += 1
            return False
        self._tally.delays.append(time.monotonic() - began)
        return True

    async def _post(self, path: str, body: str, kind: str, extra: str = "") -> tuple[int, bytes]:
        head = _HEAD.format(path=path, host=self._service.netloc, type=kind, extra=extra)
        async with asyncio.timeout(_REQUEST_SECONDS):
            if not self._stream:
                self._stream = await asyncio.open_connection(
                    self._service.hostname, self._service.port, ssl=self._context)
            reader, writer = self._stream
            writer.write(f"{head}{len(body)}\r\n\r\n{body}".encode())
            answer = (await reader.readuntil(b"\r\n\r\n")).decode().lower()
            length = int(answer.partition("content-length: ")[2].partition("\r\n")[0])
            return int(answer.split()[1]), await reader.readexactly(length)

    async def close(self) -> None:
        stream, self._stream = self._stream, None
        if stream:
            stream[1].close()
            with contextlib.suppress(OSError):
                await stream[1].wait_closed()


def devices_of(cloud: Cloud, count: int, tally: Tally) -> list[LoadDevice]:
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    context = ssl.create_default_context(cafile=str(cloud.authority))
    # A cloud can have records of an earlier load.
    name = f"load-{os.urandom(4).hex()}"
    return [LoadDevice(cloud, f"{name}-{number:05}", context, tally) for number in range(count)]


def cpu_seconds(cloud: Cloud) -> dict[str, float]:
    """Of each part of the cloud until now, with its ended children."""
    return {part: sum(map(_cpu, _family(cloud.pid(part)))) for part in _PARTS}


def _family(pid: int) -> list[int]:
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return [pid, *map(int, file.read().split())]


def _cpu(pid: int) -> float:
    with open(f"/proc/{pid}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    # User, system, and both of ended children.
    return sum(map(int, fields[11:15])) / _TICKS


def unexplained(cloud: Cloud, devices: list[LoadDevice]) -> list[str]:
    """What the stores have that was not accepted, or lack after the time for forwarding it."""
    due = time.monotonic() + _FORWARD_SECONDS
    while (found := differences(cloud, devices)) and time.monotonic() < due:
        time.sleep(1)
    return found


def differences(cloud: Cloud, devices: list[LoadDevice]) -> list[str]:
    """What the stores have now that was not accepted, or lack."""
    counts = _by_device(cloud, "count_over_time")
    sums = _by_device(cloud, "sum_over_time")
    logs = {device: int(count) for device, count in cloud.sql(
        "SELECT device, count(*) FROM logs GROUP BY device")}
    found = []
    for one in devices:
        wanted = one.points, one.points * (one.points - 1) // 2, one.logs
        stored = counts.get(one.device, 0), sums.get(one.device, 0), logs.get(one.device, 0)
        if stored != wanted:
            found.append(f"{one.device}: accepted {wanted}, stored {stored}"
                         " (points, sum of their values, logs)")
    return found


def _by_device(cloud: Cloud, function: str) -> dict[str, int]:
    query = f'sum({function}({{__name__="{METRIC}"}}[1d])) by (pelmor_device)'
    url = f"{cloud.query_url}/api/v1/query?query={quote(query)}&time={time.time() + 2}"
    results = json.load(urllib.request.urlopen(url))["data"]["result"]
    return {one["metric"]["pelmor_device"]: int(one["value"][1]) for one in results}
