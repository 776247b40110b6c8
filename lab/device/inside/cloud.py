"""The cloud of a device: the identity provider and the monitoring service, each an HTTPS server at
its real name and port, with faults on demand."""

import asyncio
import functools
import json
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import unquote, urlsplit

from lab.cloud.connection import Exchange
from lab.cloud.endpoints import endpoint_of, usual_body
from lab.cloud.server import Server, bound, server_context
from lab.common.names import HTTPS_PORT, Endpoint, Host
from lab.device.inside.part import Report, verb

_GARBAGE = b"\x00\xff this is not HTTP \xfe\r\n\r\n"

Behaviour = dict[str, Any]


def _default_behaviour(endpoint: Endpoint) -> Behaviour:
    known = endpoint != Endpoint.UNKNOWN
    return {"act": "answer", "status": 200 if known else 404, "delay": 0,
            "held": False, "headers": {},
            "body": json.dumps(usual_body(endpoint)),
            "content_type": "application/json"}


@dataclass
class _Plan:
    """The behaviour of an endpoint: each prepared one once, then the default."""

    default: Behaviour
    prepared: list[Behaviour] = field(default_factory=list)

    def next(self) -> Behaviour:
        return self.prepared.pop(0) if self.prepared else self.default


class Cloud:
    def __init__(self, report: Report) -> None:
        self._report = report
        self._count = 0
        self._plans: dict[Endpoint, _Plan] = {}
        # Answers that wait for their release and its changes, oldest first, by request number.
        self._held: dict[int, tuple[Endpoint, asyncio.Future[Behaviour]]] = {}
        self._servers = {host: Server(bound(host.address, HTTPS_PORT),
                                      functools.partial(self._on_request, host))
                         for host in Host}
        self.behave(None)

    @verb
    def prepare(self, endpoint: str, times: int | None, behaviour: Behaviour) -> None:
        plan = self._plans[Endpoint(endpoint)]
        if times is None:
            plan.default = behaviour
        else:
            plan.prepared += [behaviour] * times

    @verb
    def behave(self, endpoint: str | None) -> None:
        for one in [Endpoint(endpoint)] if endpoint else Endpoint:
            self._plans[one] = _Plan(_default_behaviour(one))

    @verb
    def release(self, endpoint: str, number: int | None, changes: Behaviour) -> None:
        """Sends the held answer to that request, or else the oldest."""
        held = [one for one, (asked, _) in self._held.items()
                if asked == endpoint and number in (None, one)]
        if not held:
            raise RuntimeError("no answer is held: wait for the request first")
        self._held.pop(held[0])[1].set_result(changes)

    @verb
    async def use_certificate(self, host: str, chain: str, key: str) -> None:
        """For new connections; those made with the old certificate are closed."""
        server = self._servers[Host(host)]
        server.use(server_context(chain, key))
        if server.is_open:
            server.refuse()
            await server.open()

    @verb
    def go_away(self, host: str) -> None:
        self._servers[Host(host)].refuse()

    @verb
    async def come_back(self, host: str) -> None:
        await self._servers[Host(host)].open()

    async def _on_request(self, host: Host, exchange: Exchange) -> None:
        body = exchange.body.decode(errors="backslashreplace")
        endpoint = endpoint_of(host, unquote(urlsplit(exchange.target).path), body)
        self._count += 1
        number = self._count
        self._report("cloud.request", number=number, endpoint=endpoint, method=exchange.method,
                     host=exchange.header("host"), path=exchange.target,
                     headers=[list(pair) for pair in exchange.headers], body=body,
                     reused=exchange.reused)
        behaviour = self._plans[endpoint].next()
        if behaviour.get("held"):
            self._held[number] = endpoint, asyncio.get_running_loop().create_future()
            behaviour = behaviour | await self._held[number][1]
        if behaviour["act"] != "answer":
            self._report("cloud.misbehaved", number=number, endpoint=endpoint, act=behaviour["act"])
            return await _misbehave(behaviour, exchange)
        await asyncio.sleep(behaviour["delay"])
        content_type = {"Content-Type": f"{behaviour['content_type']}; charset=utf-8"}
        exchange.answer(behaviour["status"], content_type | behaviour["headers"],
                        behaviour["body"].encode())
        self._report("cloud.answer", number=number, endpoint=endpoint, status=behaviour["status"],
                     body=behaviour["body"])


async def _misbehave(behaviour: Behaviour, exchange: Exchange) -> None:
    if behaviour["act"] == "silence":
        await asyncio.Event().wait()
    exchange.cut(_GARBAGE if behaviour["act"] == "garbage" else behaviour.get("after", "").encode())
