"""The one cloud of the fleet: identity provider and monitoring service of all devices.

It knows by which device's door a request comes in, whose credentials it bears, and which records it
brings."""

import asyncio
import base64
import json
import secrets
import socket
import time
from collections.abc import Callable
from dataclasses import dataclass, field, replace
from urllib.parse import parse_qs

from lab.common import certificates
from lab.common.names import METHOD_ENDPOINTS, Endpoint, Host
from lab.common.tls import server_context
from lab.fleet.connection import Connection, Meter, Request

# The label of a point that bears its number.
NUMBER_LABEL = "record"
# As long as usual ones are, since each request bears one.
_ACCESS_TOKEN_BYTES = 150
_SECRET_BYTES = 24
_UNAUTHORIZED = 401


@dataclass
class Account:
    """A device as its cloud knows it."""

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
    """A request that came whole, and the status that it was answered with."""

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
        # What came by the wrong door, or with the credentials of another.
        self.strangers: list[str] = []
        self._idle_seconds = 0.0
        self._doors: list[tuple[Account, Host, socket.socket]] = []
        self._servers: list[asyncio.Server] = []
        certificate = certificates.of_the_cloud()
        self._context = server_context(certificate.chain, certificate.key)
        self._refusing = False

    def add(self, account: Account, listeners: dict[Host, socket.socket]) -> None:
        self._doors += [(account, host, listener) for host, listener in listeners.items()]

    async def open(self) -> None:
        loop = asyncio.get_running_loop()
        for account, host, listener in self._doors:
            # A duplicate, since closing a server closes its socket, and that is to be had again.
            self._servers.append(await loop.create_server(
                self._factory(account, host), sock=listener.dup()))

    def keep_unused(self, seconds: float) -> None:
        """After so long without a request it closes a connection, from now on."""
        self._idle_seconds = seconds
        for connection in self.meter.open:
            connection.wait_for_the_next()

    def refuse(self) -> None:
        """From now on no connection is there, and none is made."""
        self._close_servers()
        for _, _, listener in self._doors:
            listener.shutdown(socket.SHUT_RDWR)
        for connection in list(self.meter.open):
            connection.cut()
        self._refusing = True

    def fall_silent(self) -> None:
        """From now on connections are made, and nothing is ever said on them."""
        self._close_servers()
        for connection in self.meter.open:
            connection.fall_silent()

    async def come_back(self) -> None:
        if not self._refusing:
            self._drop_waiting()
        self._refusing = False
        await self.open()

    def close(self) -> None:
        self._close_servers()
        for connection in list(self.meter.open):
            connection.cut()
        for _, _, listener in self._doors:
            listener.close()

    def expire_tokens(self) -> None:
        for account, _, _ in self._doors:
            account.access_token = ""

    def _close_servers(self) -> None:
        for server in self._servers:
            server.close()
        self._servers.clear()

    def _drop_waiting(self) -> None:
        """The connections of the silent time; whoever made them is to make new ones."""
        for connection in list(self.meter.open):
            connection.cut()
        for _, _, listener in self._doors:
            listener.setblocking(False)
            try:
                while True:
                    listener.accept()[0].close()
            except BlockingIOError:
                pass

    def _factory(self, account: Account, host: Host) -> Callable[[], Connection]:
        def answer(request: Request) -> tuple[int, bytes]:
            return self._answer(account, host, request)

        return lambda: Connection(self._context, self.meter, answer, lambda: self._idle_seconds)

    def _answer(self, account: Account, host: Host, request: Request) -> tuple[int, bytes]:
        if host == Host.IDENTITY:
            endpoint, status, body = self._refresh(account, request)
            numbers: tuple[int, ...] = ()
        else:
            endpoint, numbers = self._records(account, request)
            status, body = self._judge(account, request), b"{}"
        self.meter.add("requests")
        self.meter.add("bodies", len(request.body))
        self.arrivals.append(Arrival(account.number, time.monotonic(), endpoint, status, numbers,
                                     len(request.body), request.reused))
        return status, body

    def _refresh(self, account: Account, request: Request) -> tuple[Endpoint, int, bytes]:
        form = parse_qs(request.body.decode())
        if form.get("refresh_token") != [account.refresh_token]:
            self.strangers.append(f"{account.device_id}: another's refresh token")
            return Endpoint.REFRESH, 400, b"{}"
        body = {"access_token": account.issue(), "token_type": "Bearer", "expires_in": 3600}
        return Endpoint.REFRESH, 200, json.dumps(body).encode()

    def _judge(self, account: Account, request: Request) -> int:
        token = request.headers.get("authorization", "").removeprefix("Bearer ")
        if token not in account.issued:
            self.strangers.append(f"{account.device_id}: another's access token")
        return 200 if token == account.access_token else _UNAUTHORIZED

    def _records(self, account: Account, request: Request) -> tuple[Endpoint, tuple[int, ...]]:
        for ending, endpoint in METHOD_ENDPOINTS.items():
            if request.path == f"/v1/devices/{account.device_id}{ending}":
                return endpoint, _numbers(endpoint, json.loads(request.body))
        self.strangers.append(f"{account.device_id}: a request to {request.path}")
        return Endpoint.UNKNOWN, ()


def _numbers(endpoint: Endpoint, body: dict) -> tuple[int, ...]:
    if endpoint == Endpoint.METRICS:
        return tuple(int(point["labels"][NUMBER_LABEL]) for metric in body["metricPoints"]
                     for point in metric["points"])
    log = body if endpoint == Endpoint.STRUCTURED_LOGS else body["writeLog"][0]
    return (int(base64.urlsafe_b64decode(log["value"])),)
