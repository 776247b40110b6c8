"""Clouds with one fault each."""

import asyncio
import contextlib
import json
import re
import ssl
from collections.abc import Callable
from typing import Any

import h11

from lab.cloud.connection import Connection, Exchange
from lab.common.names import Host
from tests.simulated_cloud import Reply, SimulatedCloud, authority, context_of

_MIB = 1024 * 1024
_ERROR: Reply = 500, {"error": "a fault"}

# Faults of the token endpoint.


class Exchanges(SimulatedCloud):
    """With these members in the answer."""

    def __init__(self, **members: Any) -> None:
        super().__init__()
        self._members = members

    def exchange(self, code: str) -> Reply:
        status, body = super().exchange(code)
        return status, body | self._members if status == 200 else body


class Refreshes(SimulatedCloud):
    """`change` is given the cloud, the refresh token and the right answer, and returns another."""

    def __init__(self, change: Callable[["Refreshes", str, Reply], Reply]) -> None:
        super().__init__()
        self._change = change

    def refresh(self, token: str) -> Reply:
        return self._change(self, token, super().refresh(token))


def rotate(cloud: Refreshes, token: str, reply: Reply, grace: bool = False) -> Reply:
    if reply[0] != 200:
        return reply
    if not grace:
        cloud.refresh_tokens.discard(token)
    return 200, reply[1] | {"refresh_token": cloud.new_refresh_token()}


def revoke_earlier(cloud: Refreshes, _: str, reply: Reply) -> Reply:
    if reply[0] == 200:
        cloud.access_tokens &= {reply[1]["access_token"]}
    return reply


def forget(cloud: Refreshes, _: str, reply: Reply) -> Reply:
    cloud.access_tokens.discard(reply[1].get("access_token", ""))
    return reply


def revoke_all(cloud: Refreshes, token: str, reply: Reply) -> Reply:
    if not token:
        cloud.refresh_tokens.clear()
    return reply


def limit(cloud: Refreshes, _: str, reply: Reply) -> Reply:
    return (429, {"error": "slow_down"}) if len(cloud.access_tokens) > 8 else reply


class ForbidsEarlierTokens(Refreshes):
    def __init__(self) -> None:
        super().__init__(revoke_earlier)

    def rejected(self, token: str, exchange: Exchange) -> Reply:
        return 403 if re.fullmatch(r"access-\d+", token) else 401, {}


class WrapsTokens(SimulatedCloud):
    async def respond(self, exchange: Exchange, status: int, body: dict[str, Any]) -> None:
        exchange.answer(status, {}, json.dumps([body]).encode())


class ExplainsNoError(SimulatedCloud):
    def token(self, exchange: Exchange) -> Reply:
        status, body = super().token(exchange)
        return status, body if status == 200 else {"message": "no"}


class AcceptsSpentCodes(SimulatedCloud):
    def exchange(self, code: str) -> Reply:
        self.spent_codes.clear()
        return super().exchange(code)


class AcceptsUnknownCodes(SimulatedCloud):
    def exchange(self, code: str) -> Reply:
        status, body = super().exchange(code)
        return (status, body) if status == 200 or code in self.spent_codes else (200, self.tokens())


class ProvisionsOnce(SimulatedCloud):
    def exchange(self, code: str) -> Reply:
        return super().exchange(code) if not self.spent_codes else (400, {"error": "invalid_grant"})


class IgnoresTheSecret(SimulatedCloud):
    def knows(self, client_secret: str) -> bool:
        return True


class Overloads(SimulatedCloud):
    """By more than this number of requests of a kind at a time."""

    MOST = 2
    # How long each of them waits for others.
    PATIENCE_SECONDS = 0.2

    def __init__(self, kind: bytes, closes: bool = False) -> None:
        super().__init__()
        self._kind, self._closes = kind, closes
        self._running = 0
        self._overloaded = asyncio.Event()

    async def handle(self, exchange: Exchange) -> None:
        if self._kind not in exchange.body:
            return await super().handle(exchange)
        self._running += 1
        if self._running <= self.MOST:
            with contextlib.suppress(TimeoutError):
                await asyncio.wait_for(self._overloaded.wait(), self.PATIENCE_SECONDS)
            await super().handle(exchange)
        else:
            self._overloaded.set()
            if self._closes:
                exchange.cut()
            else:
                await self.respond(exchange, 503, {"error": "temporarily_unavailable"})
        self._running -= 1


# Faults of the service.

class RejectsTokens(SimulatedCloud):
    """`status` is given the token."""

    def __init__(self, status: Callable[[str], int]) -> None:
        super().__init__()
        self._status = status

    def rejected(self, token: str, exchange: Exchange) -> Reply:
        return self._status(token), {"error": "a token"}


class ClosesOnRejectedBodies(SimulatedCloud):
    async def handle(self, exchange: Exchange) -> None:
        token = exchange.header("authorization").removeprefix("Bearer ")
        if len(exchange.body) > _MIB and token not in self.access_tokens:
            return exchange.cut()
        await super().handle(exchange)


class AnswersOtherDevices(SimulatedCloud):
    def __init__(self, status: int) -> None:
        super().__init__()
        self._status = status

    def misdirected(self, exchange: Exchange) -> Reply:
        return self._status, {}


class RejectsPoints(SimulatedCloud):
    """The requests with a point for which `is_wrong` is true of its name and itself."""

    def __init__(self, is_wrong: Callable[[str, dict[str, Any]], bool]) -> None:
        super().__init__()
        self._is_wrong = is_wrong

    def point(self, name: str, point: dict[str, Any]) -> Reply | None:
        return (400, {"error": "invalid point"}) if self._is_wrong(name, point) else None


class RejectsTimes(SimulatedCloud):
    """`is_wrong` is given a time as seconds from now."""

    def __init__(self, is_wrong: Callable[[int], bool], time: str = "endTime") -> None:
        super().__init__()
        self._is_wrong, self._time = is_wrong, time

    def point(self, name: str, point: dict[str, Any]) -> Reply | None:
        wrong = self._is_wrong(point[self._time]["seconds"] - self.now())
        return (400, {"error": "invalid time"}) if wrong else None


class FixesTypes(SimulatedCloud):
    def __init__(self) -> None:
        super().__init__()
        self._types: dict[str, str] = {}

    def point(self, name: str, point: dict[str, Any]) -> Reply | None:
        [type_] = [key for key in point if key.endswith("Value")]
        return _ERROR if self._types.setdefault(name, type_) != type_ else None


class RejectsDuplicates(SimulatedCloud):
    """In a request."""

    def metrics(self, exchange: Exchange, groups: list[dict[str, Any]]) -> Reply:
        keys = [json.dumps([group["metricName"], point["labels"], point["endTime"]])
                for group in groups for point in group["points"]]
        return (409 if len(keys) != len(set(keys)) else 200), {}


class RejectsRepeatedBodies(SimulatedCloud):
    def __init__(self) -> None:
        super().__init__()
        self._seen: set[tuple[str, bytes]] = set()

    def service(self, exchange: Exchange) -> Reply:
        reply = super().service(exchange)
        key = exchange.target, exchange.body
        if reply[0] == 200 and key in self._seen:
            return 409, {"error": "exists"}
        self._seen.add(key)
        return reply


class LimitsBodies(SimulatedCloud):
    def service(self, exchange: Exchange) -> Reply:
        return (413, {}) if len(exchange.body) > _MIB else super().service(exchange)


class LimitsPoints(SimulatedCloud):
    def metrics(self, exchange: Exchange, groups: list[dict[str, Any]]) -> Reply:
        many = sum(len(group["points"]) for group in groups) > 500
        return (400, {"error": "too many points"}) if many else super().metrics(exchange, groups)


class RejectsLogs(SimulatedCloud):
    """`is_wrong` is given the target and the body, with the members of `writeLog`."""

    def __init__(self, is_wrong: Callable[[str, dict[str, Any]], bool]) -> None:
        super().__init__()
        self._is_wrong = is_wrong

    def log(self, exchange: Exchange, body: dict[str, Any]) -> Reply:
        log = body | body.get("writeLog", [{}])[0]
        return _ERROR if self._is_wrong(exchange.target, log) else (200, {})


class LimitsTheRateOfLogs(SimulatedCloud):
    def __init__(self) -> None:
        super().__init__()
        self._logs = 0

    def log(self, exchange: Exchange, body: dict[str, Any]) -> Reply:
        self._logs += 1
        return 429 if self._logs > 15 else 200, {}


# Faults of connections and answers.

class AnswersLogs(SimulatedCloud):
    """Structured logs with these bytes, or never."""

    def __init__(self, answer: bytes | None) -> None:
        super().__init__()
        self._answer = answer

    async def handle(self, exchange: Exchange) -> None:
        if not exchange.target.endswith("/structuredLogs"):
            return await super().handle(exchange)
        if self._answer is None:
            await asyncio.Event().wait()
        exchange.cut(self._answer or b"")


class ClosesConnections(SimulatedCloud):
    async def respond(self, exchange: Exchange, status: int, body: dict[str, Any]) -> None:
        exchange.answer(status, {"Connection": "close"}, json.dumps(body).encode())


class AnswersIdleConnections(SimulatedCloud):
    async def respond(self, exchange: Exchange, status: int, body: dict[str, Any]) -> None:
        await super().respond(exchange, status, body)
        if b"connection-idle" in exchange.body:
            asyncio.get_running_loop().call_later(
                0.05, exchange.cut, b"HTTP/1.1 408 \r\nContent-Length: 0\r\n\r\n")


class _EarlyConnection(Connection):
    def _handle_events(self) -> None:
        super()._handle_events()
        if self._http.their_state is h11.SEND_BODY and not self._body:
            self.answer(411, [], b"")


class AnswersBeforeTheBody(SimulatedCloud):
    CONNECTION = _EarlyConnection


class _ImpatientConnection(Connection):
    def _handle_events(self) -> None:
        super()._handle_events()
        if self._http.their_state is h11.SEND_BODY:
            asyncio.get_running_loop().call_later(0.1, self._give_up)

    def _give_up(self) -> None:
        if self._http.their_state is h11.SEND_BODY:
            self.close()


class GivesUpOnSlowBodies(SimulatedCloud):
    CONNECTION = _ImpatientConnection


class Tls(SimulatedCloud):
    """With another context."""

    def __init__(self, change: Callable[[ssl.SSLContext], ssl.SSLContext | None]) -> None:
        super().__init__()
        self._change = change

    def context(self) -> ssl.SSLContext:
        context = super().context()
        return self._change(context) or context


def resume_nothing(context: ssl.SSLContext) -> None:
    context.options |= ssl.OP_NO_TICKET
    context.num_tickets = 0


def speak_old_tls(context: ssl.SSLContext) -> None:
    context.maximum_version = ssl.TLSVersion.TLSv1_2


def speak_new_tls(context: ssl.SSLContext) -> None:
    context.minimum_version = ssl.TLSVersion.TLSv1_3


def omit_the_intermediate(_: ssl.SSLContext) -> ssl.SSLContext:
    return context_of(authority().create_child_ca().issue_cert("localhost"))


def have_another_name(_: ssl.SSLContext) -> ssl.SSLContext:
    return context_of(authority().issue_cert(str(Host.MONITORING)))
