"""Clouds with one planted fault each, and the rules of cloud/check that detect it."""

import asyncio
import json
import re
import ssl
from typing import Any

import h11

from lab.cloud.connection import Connection, Exchange
from lab.common.names import Host
from tests.simulated_cloud import EXPIRED, Reply, SimulatedCloud, authority, context_of

_MIB = 1024 * 1024


class RotatesRefreshTokens(SimulatedCloud):
    def refresh(self, token: str) -> Reply:
        status, body = super().refresh(token)
        if status == 200:
            self.refresh_tokens.discard(token)
            body["refresh_token"] = self.new_refresh_token()
        return status, body


class RotatesWithAGracePeriod(SimulatedCloud):
    def refresh(self, token: str) -> Reply:
        status, body = super().refresh(token)
        return status, body | {"refresh_token": self.new_refresh_token()} if status == 200 else body


class FailsRefreshesUnderLoad(SimulatedCloud):
    MOST = 4

    def __init__(self) -> None:
        super().__init__()
        self._running = 0

    async def handle(self, exchange: Exchange) -> None:
        if b"grant_type=refresh_token" not in exchange.body:
            return await super().handle(exchange)
        self._running += 1
        if self._running > self.MOST:
            await self.overload(exchange)
        else:
            await asyncio.sleep(0.05)
            await super().handle(exchange)
        self._running -= 1

    async def overload(self, exchange: Exchange) -> None:
        await self.respond(exchange, 503, {"error": "temporarily_unavailable"})


class ClosesRefreshesUnderLoad(FailsRefreshesUnderLoad):
    """No fault."""

    async def overload(self, exchange: Exchange) -> None:
        exchange.cut()


class LimitsTheRateOfRefreshes(SimulatedCloud):
    def refresh(self, token: str) -> Reply:
        if len(self.access_tokens) > 8:
            return 429, {"error": "slow_down"}
        return super().refresh(token)


class Exchanges(SimulatedCloud):
    """With other members in the answer."""

    MEMBERS: dict[str, Any] = {}

    def exchange(self, code: str) -> Reply:
        status, body = super().exchange(code)
        return status, body | self.MEMBERS if status == 200 else body


class IssuesNoRefreshToken(Exchanges):
    MEMBERS = {"refresh_token": ""}


class IssuesNumbers(Exchanges):
    MEMBERS = {"access_token": 12345678}


class IssuesLineBreaks(Exchanges):
    MEMBERS = {"access_token": "access\ntoken"}


class IssuesShortLivedTokens(Exchanges):
    MEMBERS = {"expires_in": 600}


class IssuesOtherTokens(Exchanges):
    MEMBERS = {"token_type": "mac"}


class WrapsTokens(SimulatedCloud):
    async def respond(self, exchange: Exchange, status: int, body: dict[str, Any]) -> None:
        exchange.answer(status, {}, json.dumps([body]).encode())


class ExplainsNoError(SimulatedCloud):
    def token(self, exchange: Exchange) -> Reply:
        status, body = super().token(exchange)
        return status, body if status == 200 else {"message": "no"}


class AcceptsCodesTwice(SimulatedCloud):
    def exchange(self, code: str) -> Reply:
        self.spent_codes.clear()
        return super().exchange(code)


class RevokesAllForAnEmptyToken(SimulatedCloud):
    def refresh(self, token: str) -> Reply:
        if not token:
            self.refresh_tokens.clear()
        return super().refresh(token)


class IgnoresTheSecret(SimulatedCloud):
    def knows(self, client_secret: str) -> bool:
        return True


class ForbidsUnknownTokens(SimulatedCloud):
    def rejected(self, token: str, exchange: Exchange) -> Reply:
        return 403, {"error": "forbidden"}


class ForbidsExpiredTokens(SimulatedCloud):
    def rejected(self, token: str, exchange: Exchange) -> Reply:
        return 403 if token == EXPIRED else 401, {}


class RejectsMalformedTokens(SimulatedCloud):
    def rejected(self, token: str, exchange: Exchange) -> Reply:
        return 401 if re.fullmatch(r"[\w-]*", token) else 400, {"error": "invalid_request"}


class ClosesOnRejectedBodies(SimulatedCloud):
    async def handle(self, exchange: Exchange) -> None:
        token = exchange.header("authorization").removeprefix("Bearer ")
        if len(exchange.body) > _MIB and token not in self.access_tokens:
            return exchange.cut()
        await super().handle(exchange)


class KnowsNoOtherDevice(SimulatedCloud):
    def misdirected(self, exchange: Exchange) -> Reply:
        return 404, {"error": "no such device"}


class TrustsEveryDevice(SimulatedCloud):
    def misdirected(self, exchange: Exchange) -> Reply:
        return 200, {}


class Rejects(SimulatedCloud):
    """Requests with points that `is_wrong`."""

    def point(self, name: str, point: dict[str, Any]) -> Reply | None:
        return (400, {"error": "invalid point"}) if self.is_wrong(name, point) else None

    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        raise NotImplementedError


class RejectsNull(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return point.get("doubleValue", 0) is None


class ReadsIntegersAsDoubles(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        value = int(point.get("int64Value", 0))
        return int(float(value)) != value


class RejectsLargeDoubles(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return abs(point.get("doubleValue") or 0) > 1e300


class RejectsControlCharacters(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return "\u0001" in point.get("stringValue", "")


class RejectsDots(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return any("." in label for label in point["labels"])


class RejectsOtherAlphabets(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return not "".join(point["labels"]).isascii()


class RejectsEmptyNames(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return not name


class FixesTypes(Rejects):
    def __init__(self) -> None:
        super().__init__()
        self._types: dict[str, str] = {}

    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        [type_] = [key for key in point if key.endswith("Value")]
        return self._types.setdefault(name, type_) != type_


class RejectsThePast(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return point["endTime"]["seconds"] < self.now() - 300


class RejectsTheFuture(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return point["endTime"]["seconds"] > self.now() + 60


class RejectsBackwardIntervals(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return point["endTime"]["seconds"] < point["startTime"]["seconds"]


class RejectsLongIntervals(Rejects):
    def is_wrong(self, name: str, point: dict[str, Any]) -> bool:
        return point["startTime"]["seconds"] < self.now() - 30 * 24 * 3600


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
        if sum(len(group["points"]) for group in groups) > 500:
            return 400, {"error": "too many points"}
        return super().metrics(exchange, groups)


class DecodesStandardBase64(SimulatedCloud):
    def log(self, exchange: Exchange, body: dict[str, Any]) -> Reply:
        value = body.get("value") or body.get("writeLog", [{}])[0].get("value", "")
        return 400 if set(value) & set("-_") else 200, {}


class AnswersLogs(SimulatedCloud):
    """Structured logs with these bytes."""

    ANSWER = b""

    async def handle(self, exchange: Exchange) -> None:
        if exchange.target.endswith("/structuredLogs"):
            return await self.respond_to_log(exchange)
        await super().handle(exchange)

    async def respond_to_log(self, exchange: Exchange) -> None:
        exchange.cut(self.ANSWER)


class Redirects(AnswersLogs):
    ANSWER = b"HTTP/1.1 308 \r\nLocation: /elsewhere\r\nContent-Length: 0\r\n\r\n"


class LeavesAnswersUnframed(AnswersLogs):
    ANSWER = b"HTTP/1.1 200 \r\nContent-Type: application/json\r\n\r\n{}"


class SpeaksHttp10(AnswersLogs):
    ANSWER = b"HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\n{}"


class SpeaksNoHttp(AnswersLogs):
    ANSWER = b"\x00\xff this is not HTTP\r\n\r\n"


class CutsAnswers(AnswersLogs):
    ANSWER = b"HTTP/1.1 200 \r\nContent-Length: 20\r\n\r\n{}"


class SendsLargeHeaders(AnswersLogs):
    ANSWER = b"HTTP/1.1 200 \r\n" + b"X: %s\r\n" % (b"x" * 60_000) * 5 + b"\r\n"


class SendsLargeBodies(AnswersLogs):
    ANSWER = b"HTTP/1.1 200 \r\nContent-Length: %d\r\n\r\n" % (_MIB + 1) + b" " * (_MIB + 1)


class AnswersLate(AnswersLogs):
    async def respond_to_log(self, exchange: Exchange) -> None:
        await asyncio.Event().wait()


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


class ResumesNoSessions(SimulatedCloud):
    def context(self) -> ssl.SSLContext:
        context = super().context()
        context.options |= ssl.OP_NO_TICKET
        context.num_tickets = 0
        return context


class SpeaksOldTls(SimulatedCloud):
    def context(self) -> ssl.SSLContext:
        context = super().context()
        context.maximum_version = ssl.TLSVersion.TLSv1_2
        return context


class SpeaksNewTls(SimulatedCloud):
    def context(self) -> ssl.SSLContext:
        context = super().context()
        context.minimum_version = ssl.TLSVersion.TLSv1_3
        return context


class OmitsTheIntermediate(SimulatedCloud):
    def context(self) -> ssl.SSLContext:
        return context_of(authority().create_child_ca().issue_cert("localhost"))


class HasAnotherName(SimulatedCloud):
    def context(self) -> ssl.SSLContext:
        return context_of(authority().issue_cert(str(Host.MONITORING)))
