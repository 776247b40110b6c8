"""The cloud of the fleet: identity provider and monitoring service of all devices.

It knows for each request the device on whose sockets it arrived, the credentials, and the records
in it."""

import base64
import functools
import json
import secrets
import socket
import time
from dataclasses import dataclass, field, replace
from urllib.parse import parse_qs

from lab.cloud.connection import Exchange
from lab.cloud.endpoints import endpoint_of, token_response
from lab.cloud.meter import Meter
from lab.cloud.server import Server, server_context
from lab.common import certificates
from lab.common.names import METHOD_ENDPOINTS, Endpoint, Host

# The label of a point with its number.
NUMBER_LABEL = "record"
# A usual length, since each request carries one.
_ACCESS_TOKEN_BYTES = 150
_SECRET_BYTES = 24
_UNAUTHORIZED = 401


@dataclass
class Account:
    """The credentials of a device."""

    number: int
    refresh_token: str = field(default_factory=lambda: secrets.token_urlsafe(_SECRET_BYTES))
    client_secret: str = field(default_factory=lambda: secrets.token_urlsafe(_SECRET_BYTES))
    access_token: str = ""
    issued: set[str] = field(default_factory=set)

    @property
    def device_id(self) -> str:
        return f"device-{self.number:04}"

    def issue(self) -> str:
        self.access_token = secrets.token_urlsafe(_ACCESS_TOKEN_BYTES)
        self.issued.add(self.access_token)
        return self.access_token

    def secrets(self) -> set[str]:
        return {self.refresh_token, self.client_secret, *self.issued}


@dataclass(frozen=True)
class Arrival:
    """A complete request, and the status of its answer."""

    device: int
    time: float
    endpoint: Endpoint
    status: int
    # Of the records in it.
    numbers: tuple[int, ...]
    body_bytes: int
    reused: bool

    def moved(self, seconds: float) -> "Arrival":
        return replace(self, time=self.time + seconds)


class Cloud:
    def __init__(self) -> None:
        self.meter = Meter()
        self.arrivals: list[Arrival] = []
        # Requests on another device's sockets or with its credentials.
        self.misdirected: list[str] = []
        self._accounts: list[Account] = []
        self._servers: list[Server] = []
        certificate = certificates.of_the_cloud()
        self._context = server_context(certificate.chain, certificate.key)

    def add(self, account: Account, listeners: dict[Host, socket.socket]) -> None:
        self._accounts.append(account)
        for host, listener in listeners.items():
            server = Server(listener, functools.partial(self._answer, account, host), self.meter)
            server.use(self._context)
            self._servers.append(server)

    async def open(self) -> None:
        for server in self._servers:
            await server.open()

    def close_idle_after(self, seconds: float) -> None:
        for server in self._servers:
            server.close_idle_after(seconds)

    def refuse(self) -> None:
        for server in self._servers:
            server.refuse()

    def fall_silent(self) -> None:
        for server in self._servers:
            server.fall_silent()

    def close(self) -> None:
        for server in self._servers:
            server.close()

    def expire_tokens(self) -> None:
        for account in self._accounts:
            account.access_token = ""

    def _answer(self, account: Account, host: Host, exchange: Exchange) -> None:
        endpoint = endpoint_of(host, exchange.target, exchange.body.decode())
        numbers: tuple[int, ...] = ()
        if host == Host.IDENTITY:
            status, body = self._refresh(account, exchange)
        else:
            status, body = self._judge(account, exchange), {}
            numbers = self._record_numbers(account, endpoint, exchange)
        self.meter.add("requests")
        self.meter.add("bodies", len(exchange.body))
        self.arrivals.append(Arrival(account.number, time.monotonic(), endpoint, status, numbers,
                                     len(exchange.body), exchange.reused))
        exchange.answer(status, {"Content-Type": "application/json"}, json.dumps(body).encode())

    def _refresh(self, account: Account, exchange: Exchange) -> tuple[int, dict]:
        form = parse_qs(exchange.body.decode())
        if form.get("refresh_token") != [account.refresh_token]:
            self.misdirected.append(f"{account.device_id}: another's refresh token")
            return 400, {}
        return 200, token_response(account.issue())

    def _judge(self, account: Account, exchange: Exchange) -> int:
        token = exchange.header("authorization").removeprefix("Bearer ")
        if token not in account.issued:
            self.misdirected.append(f"{account.device_id}: another's access token")
        return 200 if token == account.access_token else _UNAUTHORIZED

    def _record_numbers(self, account: Account, endpoint: Endpoint,
                        exchange: Exchange) -> tuple[int, ...]:
        if exchange.target not in _paths_of(account):
            self.misdirected.append(f"{account.device_id}: a request to {exchange.target}")
            return ()
        return _numbers(endpoint, json.loads(exchange.body))


def _paths_of(account: Account) -> list[str]:
    return [f"/v1/devices/{account.device_id}{ending}" for ending in METHOD_ENDPOINTS]


def _numbers(endpoint: Endpoint, body: dict) -> tuple[int, ...]:
    if endpoint == Endpoint.METRICS:
        return tuple(int(point["labels"][NUMBER_LABEL]) for metric in body["metricPoints"]
                     for point in metric["points"])
    log = body if endpoint == Endpoint.STRUCTURED_LOGS else body["writeLog"][0]
    return (int(base64.urlsafe_b64decode(log["value"])),)
