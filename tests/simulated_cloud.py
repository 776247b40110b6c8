"""A cloud that keeps every rule of cloud/check, on the lab's HTTPS server; faulty ones derive from
it."""

import asyncio
import contextlib
import functools
import itertools
import json
import re
import ssl
import tempfile
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any
from urllib.parse import parse_qs

import trustme

from cloud.check.cloud import Cloud, Settings
from cloud.check.daemon import Client, Target
from cloud.check.run import Outcome, Result, Run, selected
from lab.cloud.connection import Connection, Exchange
from lab.cloud.endpoints import endpoint_of
from lab.cloud.server import Server, bound, server_context
from lab.common import deadlines
from lab.common.names import METHOD_ENDPOINTS, Endpoint, Host
from lab.device import api
from lab.device.events import Event
from lab.device.programs import Request

DEVICE = "device-0001"
CLIENT_SECRET = "s3cret/with \"quotes\" & more"
BASE = "/v1/devices"
EXPIRED = "access-expired"
# Prints a code; the cloud accepts each such code once.
CODE_COMMAND = "cat /proc/sys/kernel/random/uuid"
_CODE = re.compile(r"[0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12}")
# Larger bodies take seconds to check, and have the form of smaller ones.
_MOST_CHECKED_BYTES = 256 * 1024
# Statuses of RFC 6749 and RFC 6750.
_BAD_REQUEST = 400
_UNAUTHORIZED = 401

Reply = tuple[int, dict[str, Any]]


@functools.cache
def authority() -> trustme.CA:
    return trustme.CA()


@functools.cache
def certificate() -> trustme.LeafCert:
    return authority().issue_cert("localhost")


def context_of(leaf: trustme.LeafCert, chain: int = 1) -> ssl.SSLContext:
    """Presents the first `chain` certificates."""
    pems = b"".join(blob.bytes() for blob in leaf.cert_chain_pems[:chain])
    return server_context(pems.decode(), leaf.private_key_pem.bytes().decode())


class SimulatedCloud:
    """Identity provider and service on one port of the loopback address."""

    CONNECTION = Connection

    def __init__(self, checks_requests: bool = False) -> None:
        self._checks_requests = checks_requests
        self.spent_codes: set[str] = set()
        self.refresh_tokens: set[str] = set()
        self.access_tokens: set[str] = set()
        # Of docs/cloud-api.yaml, violations and requests that were checked.
        self.faults: list[str] = []
        self.checked_requests = 0
        self._numbers = itertools.count(1)

    def now(self) -> int:
        return int(time.time())

    def context(self) -> ssl.SSLContext:
        return context_of(certificate())

    async def handle(self, exchange: Exchange) -> None:
        if exchange.target == "/token":
            reply = self.token(exchange)
        else:
            reply = self.service(exchange)
        await self.respond(exchange, *reply)

    async def respond(self, exchange: Exchange, status: int, body: dict[str, Any]) -> None:
        exchange.answer(status, {"Content-Type": "application/json"}, json.dumps(body).encode())

    # The identity provider.

    def token(self, exchange: Exchange) -> Reply:
        form = {name: values[0] for name, values in parse_qs(
            exchange.body.decode(), keep_blank_values=True).items()}
        self.check_request(exchange, Host.IDENTITY)
        if not self.knows(form["client_secret"]):
            return _UNAUTHORIZED, {"error": "invalid_client"}
        if form["grant_type"] == "authorization_code":
            return self.exchange(form["code"])
        return self.refresh(form["refresh_token"])

    def knows(self, client_secret: str) -> bool:
        return client_secret == CLIENT_SECRET

    def exchange(self, code: str) -> Reply:
        if code in self.spent_codes or not _CODE.fullmatch(code):
            return _BAD_REQUEST, {"error": "invalid_grant"}
        self.spent_codes.add(code)
        return 200, self.tokens() | {"refresh_token": self.new_refresh_token()}

    def refresh(self, token: str) -> Reply:
        if token not in self.refresh_tokens:
            return _BAD_REQUEST, {"error": "invalid_grant"}
        return 200, self.tokens()

    def tokens(self) -> dict[str, Any]:
        token = f"access-{next(self._numbers)}"
        self.access_tokens.add(token)
        return {"access_token": token, "token_type": "Bearer", "expires_in": 3600}

    def new_refresh_token(self) -> str:
        token = f"refresh-{next(self._numbers)}"
        self.refresh_tokens.add(token)
        return token

    # The service.

    def service(self, exchange: Exchange) -> Reply:
        token = exchange.header("authorization").removeprefix("Bearer").strip()
        if token not in self.access_tokens:
            return self.rejected(token, exchange)
        if exchange.target not in [f"{BASE}/{DEVICE}{ending}" for ending in METHOD_ENDPOINTS]:
            return self.misdirected(exchange)
        self.check_request(exchange, Host.MONITORING)
        endpoint = endpoint_of(Host.MONITORING, exchange.target, "")
        body = json.loads(exchange.body)
        if endpoint != Endpoint.METRICS:
            return self.log(exchange, body)
        return self.metrics(exchange, body["metricPoints"])

    def rejected(self, token: str, exchange: Exchange) -> Reply:
        """Of a token."""
        return _UNAUTHORIZED, {}

    def misdirected(self, exchange: Exchange) -> Reply:
        return _UNAUTHORIZED, {}

    def metrics(self, exchange: Exchange, groups: list[dict[str, Any]]) -> Reply:
        for group in groups:
            for point in group["points"]:
                if reply := self.point(group["metricName"], point):
                    return reply
        return 200, {}

    def point(self, name: str, point: dict[str, Any]) -> Reply | None:
        """The answer that rejects its request, if any."""

    def log(self, exchange: Exchange, body: dict[str, Any]) -> Reply:
        return 200, {}

    def check_request(self, exchange: Exchange, host: Host) -> None:
        if not self._checks_requests or len(exchange.body) > _MOST_CHECKED_BYTES:
            return
        headers = {name.lower(): value for name, value in exchange.headers}
        request = Request(0, Event(0, 0.0, "", {}), Endpoint.UNKNOWN, exchange.method, str(host),
                          exchange.target, headers, exchange.body.decode())
        self.checked_requests += 1
        self.faults += api.of_the_cloud().faults(request)


async def _close(server: Server) -> None:
    server.close()
    await asyncio.gather(*asyncio.all_tasks() - {asyncio.current_task()}, return_exceptions=True)


@functools.cache
def _ca_folder() -> tempfile.TemporaryDirectory:
    folder = tempfile.TemporaryDirectory()
    authority().cert_pem.write_to_path(f"{folder.name}/ca.pem")
    return folder


def ca_file() -> str:
    """The bundle that verifies the cloud."""
    return f"{_ca_folder().name}/ca.pem"


@contextmanager
def running(cloud: SimulatedCloud) -> Iterator[int]:
    """Serves the cloud from a thread; yields its port."""
    listener = bound("127.0.0.1", 0)
    port = listener.getsockname()[1]
    loop = asyncio.new_event_loop()
    server = Server(listener, cloud.handle, connection=cloud.CONNECTION)
    server.use(cloud.context())
    thread = threading.Thread(target=loop.run_forever)
    thread.start()
    try:
        asyncio.run_coroutine_threadsafe(server.open(), loop).result()
        yield port
    finally:
        asyncio.run_coroutine_threadsafe(_close(server), loop).result()
        loop.call_soon_threadsafe(loop.stop)
        thread.join()
        loop.close()


def settings_for(port: int, **changes: Any) -> Settings:
    url = f"https://localhost:{port}"
    values: dict[str, Any] = {
        "service": Target.of(url + BASE), "token": Target.of(url + "/token"),
        "client": Client("client-1", CLIENT_SECRET, "scope-1"), "ca_file": ca_file(),
        "device": DEVICE, "foreign_device": "device-0002", "code_command": CODE_COMMAND,
        "expired_token": EXPIRED, "idle_seconds": 0.2, "slow_seconds": 0.3, "expect_seconds": 0.1,
        "answer_seconds": deadlines.scaled(60), "most_seconds": deadlines.scaled(600)}
    return Settings(**(values | changes))


def checked(cloud: SimulatedCloud, *only: str, **changes: Any) -> dict[str, Result]:
    """Checks the cloud by all rules, or these."""
    with running(cloud) as port:
        with contextlib.closing(Cloud(settings_for(port, **changes))) as tested:
            results = Run(tested, lambda _: None).check(selected(only))
    return {result.rule.name: result for result in results}


def failed(results: dict[str, Result]) -> set[str]:
    return {name for name, result in results.items() if result.outcome == Outcome.FAILED}
