"""The lab's cloud: the identity provider and the monitoring service, each an HTTPS server at its
real name and port."""

import asyncio
import json
import ssl
import tempfile
import weakref
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import parse_qs

from aiohttp import web

from lab.inside.part import Tell, verb
from lab.names import HTTPS_PORT, Endpoint, Host

# How long a request in progress may still take when its server goes away.
_CLOSE_DEADLINE = 0.01
_GARBAGE = b"\x00\xff this is not HTTP \xfe\r\n\r\n"
_TOKEN_PATH = "/token"
_PATHS = {"/metrics:batchCreatePoints": Endpoint.METRICS,
          "/structuredLogs": Endpoint.STRUCTURED_LOGS,
          "/writeLogs": Endpoint.OFFLINE_LOGS}
_GRANTS = {"refresh_token": Endpoint.REFRESH, "authorization_code": Endpoint.EXCHANGE}

_ACCESS = {"access_token": "access-1", "token_type": "Bearer", "expires_in": 3600}
_DEFAULT_BODIES: dict[Endpoint, Any] = {
    Endpoint.REFRESH: _ACCESS,
    Endpoint.EXCHANGE: _ACCESS | {"refresh_token": "refresh-1"},
}

Behaviour = dict[str, Any]


def _default_behaviour(endpoint: Endpoint) -> Behaviour:
    known = endpoint != Endpoint.UNKNOWN
    return {"act": "answer", "status": 200 if known else 404, "delay": 0,
            "held": False, "headers": {},
            "body": json.dumps(_DEFAULT_BODIES.get(endpoint, {})),
            "content_type": "application/json"}


def _endpoint_of(host: Host, path: str, body: str) -> Endpoint:
    if host == Host.IDENTITY:
        grant = parse_qs(body).get("grant_type", [""])[0] if path == _TOKEN_PATH else ""
        return _GRANTS.get(grant, Endpoint.UNKNOWN)
    for ending, endpoint in _PATHS.items():
        if path.endswith(ending):
            return endpoint
    return Endpoint.UNKNOWN


@dataclass
class _Plan:
    """What an endpoint does: the prepared behaviours once each, and then the standing one."""

    standing: Behaviour
    prepared: list[Behaviour] = field(default_factory=list)

    def next(self) -> Behaviour:
        return self.prepared.pop(0) if self.prepared else self.standing


class Cloud:
    def __init__(self, tell: Tell) -> None:
        self._tell = tell
        self._count = 0
        self._plans: dict[Endpoint, _Plan] = {}
        # The answers being held back, oldest first, by the numbers of their requests; each waits
        # for its last changes.
        self._held: dict[int, tuple[Endpoint, asyncio.Future[Behaviour]]] = {}
        # The connections that have brought a request.
        self._used: weakref.WeakSet[asyncio.BaseTransport] = weakref.WeakSet()
        self._servers = {host: _Server(host, self._on_request) for host in Host}
        self.behave(None)

    @verb
    def prepare(self, endpoint: str, times: int | None, behaviour: Behaviour) -> None:
        plan = self._plans[Endpoint(endpoint)]
        if times is None:
            plan.standing = behaviour
        else:
            plan.prepared += [behaviour] * times

    @verb
    def behave(self, endpoint: str | None) -> None:
        for one in [Endpoint(endpoint)] if endpoint else Endpoint:
            self._plans[one] = _Plan(_default_behaviour(one))

    @verb
    def release(self, endpoint: str, number: int | None, changes: Behaviour) -> None:
        """Lets an answer go that is held back: to that request, or else the oldest."""
        held = [one for one, (asked, _) in self._held.items()
                if asked == endpoint and number in (None, one)]
        if not held:
            raise RuntimeError("no answer is held back: wait for the request first")
        self._held.pop(held[0])[1].set_result(changes)

    @verb
    async def use_certificate(self, host: str, chain: str, key: str) -> None:
        await self._servers[Host(host)].use_certificate(chain, key)

    @verb
    async def go_away(self, host: str) -> None:
        await self._servers[Host(host)].close()

    @verb
    async def come_back(self, host: str) -> None:
        await self._servers[Host(host)].open()

    async def _on_request(self, host: Host, request: web.BaseRequest) -> web.StreamResponse:
        body = (await request.content.read()).decode(errors="backslashreplace")
        endpoint = _endpoint_of(host, request.path, body)
        self._count += 1
        number = self._count
        self._tell("cloud.request", number=number, endpoint=endpoint, method=request.method,
                   host=request.host, path=request.raw_path,
                   headers=[list(pair) for pair in request.headers.items()], body=body,
                   reused=self._is_reused(request.transport))
        behaviour = self._plans[endpoint].next()
        if behaviour.get("held"):
            self._held[number] = endpoint, asyncio.get_running_loop().create_future()
            behaviour = behaviour | await self._held[number][1]
        if behaviour["act"] != "answer":
            self._tell("cloud.misbehaved", number=number, endpoint=endpoint, act=behaviour["act"])
            return await self._misbehave(behaviour["act"], request)
        await asyncio.sleep(behaviour["delay"])
        response = await _send(request, behaviour)
        self._tell("cloud.answer", number=number, endpoint=endpoint, status=behaviour["status"],
                   body=behaviour["body"])
        return response

    def _is_reused(self, connection: asyncio.BaseTransport | None) -> bool:
        if not connection or connection in self._used:
            return bool(connection)
        self._used.add(connection)
        return False

    async def _misbehave(self, act: str, request: web.BaseRequest) -> web.StreamResponse:
        if act == "silence":
            await asyncio.Event().wait()
        if request.transport:
            if act == "garbage":
                request.transport.write(_GARBAGE)
            request.transport.close()
        return web.Response()


async def _send(request: web.BaseRequest, behaviour: Behaviour) -> web.StreamResponse:
    response = web.Response(status=behaviour["status"], text=behaviour["body"],
                            content_type=behaviour["content_type"],
                            headers=behaviour["headers"])
    await response.prepare(request)
    await response.write_eof()
    return response


class _Server:
    """One HTTPS server; closed at first."""

    def __init__(self, host: Host, handler: Any) -> None:
        self._host = host
        self._handler = handler
        self._certificate: tuple[str, str]
        self._runner: web.ServerRunner | None = None

    async def use_certificate(self, chain: str, key: str) -> None:
        """For the connections to come; those made under the old one are closed."""
        self._certificate = (chain, key)
        if self._runner:
            await self.close()
            await self.open()

    async def open(self) -> None:
        server = web.Server(lambda request: self._handler(self._host, request))
        self._runner = web.ServerRunner(server)
        await self._runner.setup()
        site = web.TCPSite(self._runner, self._host.address, HTTPS_PORT,
                           shutdown_timeout=_CLOSE_DEADLINE, ssl_context=self._context())
        await site.start()

    async def close(self) -> None:
        if self._runner:
            await self._runner.cleanup()
            self._runner = None

    def _context(self) -> ssl.SSLContext:
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        chain, key = self._certificate
        with tempfile.NamedTemporaryFile("w") as file:
            file.write(key + chain)
            file.flush()
            context.load_cert_chain(file.name)
        return context
