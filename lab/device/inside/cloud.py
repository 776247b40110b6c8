"""The lab's cloud: the identity provider and the monitoring service, each an HTTPS server at its
real name and port."""

import asyncio
import functools
import json
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import parse_qs, unquote, urlsplit

from lab.common.names import HTTPS_PORT, METHOD_ENDPOINTS, Endpoint, Host
from lab.device.inside.https import Exchange, Server
from lab.device.inside.part import Tell, verb

_GARBAGE = b"\x00\xff this is not HTTP \xfe\r\n\r\n"
_TOKEN_PATH = "/token"
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
    for ending, endpoint in METHOD_ENDPOINTS.items():
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
        self._servers = {
            host: Server(host.address, HTTPS_PORT, functools.partial(self._on_request, host))
            for host in Host}
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

    async def _on_request(self, host: Host, exchange: Exchange) -> None:
        body = exchange.body.decode(errors="backslashreplace")
        path = unquote(urlsplit(exchange.target).path)
        endpoint = _endpoint_of(host, path, body)
        self._count += 1
        number = self._count
        self._tell("cloud.request", number=number, endpoint=endpoint, method=exchange.method,
                   host=_header(exchange, "host"), path=exchange.target,
                   headers=[list(pair) for pair in exchange.headers], body=body,
                   reused=exchange.reused)
        behaviour = self._plans[endpoint].next()
        if behaviour.get("held"):
            self._held[number] = endpoint, asyncio.get_running_loop().create_future()
            behaviour = behaviour | await self._held[number][1]
        if behaviour["act"] != "answer":
            self._tell("cloud.misbehaved", number=number, endpoint=endpoint, act=behaviour["act"])
            return await _misbehave(behaviour, exchange)
        await asyncio.sleep(behaviour["delay"])
        await _answer(exchange, behaviour)
        self._tell("cloud.answer", number=number, endpoint=endpoint, status=behaviour["status"],
                   body=behaviour["body"])


def _header(exchange: Exchange, wanted: str) -> str:
    return next((value for name, value in exchange.headers if name.lower() == wanted), "")


async def _misbehave(behaviour: Behaviour, exchange: Exchange) -> None:
    if behaviour["act"] == "silence":
        await asyncio.Event().wait()
    exchange.cut(_GARBAGE if behaviour["act"] == "garbage" else behaviour.get("after", "").encode())


async def _answer(exchange: Exchange, behaviour: Behaviour) -> None:
    content_type = f"{behaviour['content_type']}; charset=utf-8"
    await exchange.answer(behaviour["status"],
                          {"Content-Type": content_type} | behaviour["headers"], behaviour["body"])
