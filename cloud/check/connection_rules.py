"""The rules of connections to the service."""

import itertools
import time
from concurrent.futures import ThreadPoolExecutor

from cloud.check.cloud import Cloud
from cloud.check.rules import (LOSES_POINTS, TRANSPORT, Failure, Section, accepted,
                               closing_is_failure)

RULES = Section("Connections")
_PIECES = 8
# For the labels of different points.
_NUMBERS = itertools.count()
_CONNECTIONS = 8
_REQUESTS_OF_EACH = 5


def _batch(cloud: Cloud, name: str) -> bytes:
    points = [cloud.point(name, labels={"number": str(next(_NUMBERS))})]
    return cloud.metrics_request(points)


@RULES.rule(
    "connection-kept", "The service answers several requests on one connection.",
    reason="The daemon sends its logs back to back.",
    consequence="Each log costs a connection and a handshake.",
    remedy="Enable keep-alive, and send no `Connection: close`.", needs=("points-accepted",))
def kept(cloud: Cloud) -> None:
    with cloud.to_service() as connection:
        for number in (1, 2, 3):
            answer = connection.post(_batch(cloud, "connection-kept"))
            accepted(cloud, answer, f"request {number}")
            if not answer.keeps_connection:
                raise Failure(f"closes the connection after request {number}")


@RULES.rule(
    "connection-idle", "An unused connection stays usable, or is closed without an answer.",
    reason="The daemon keeps unused connections for up to two minutes.",
    consequence="The daemon discards a connection on which an unasked answer has arrived; other "
                "clients take it for the answer to their next request. On a connection that is "
                "silently dead the next request times out.",
    remedy="Close an idle connection without an answer such as 408, and keep it for longer than a "
           "load balancer in front does.",
    needs=("connection-kept",))
def idle(cloud: Cloud) -> None:
    with cloud.to_service() as connection:
        accepted(cloud, connection.post(_batch(cloud, "connection-idle")), "the first request")
        unasked = connection.listen(cloud.settings.idle_seconds)
        if unasked:
            raise Failure(f"sent {len(unasked)} bytes on an idle connection")
        if unasked is None:
            answer = connection.post(_batch(cloud, "connection-idle"))
            accepted(cloud, answer, f"after {cloud.settings.idle_seconds:g} s")


@RULES.rule(
    "body-without-expect", "The service waits for a body that follows its headers after a second.",
    reason="The daemon never sends `Expect: 100-continue`, however large the body is.",
    consequence="An early answer, such as 411, 413 or 417, is the answer to the request: points "
                "are dropped.",
    remedy="Answer after the body has arrived.", needs=("points-accepted",))
def without_expect(cloud: Cloud) -> None:
    request = _batch(cloud, "body-without-expect")
    head = request.index(b"\r\n\r\n") + 4
    with cloud.to_service() as connection:
        connection.start()
        connection.send(request[:head])
        early = connection.listen(cloud.settings.expect_seconds)
        if early is not None and not early.startswith(b"HTTP/1.1 100"):
            raise Failure("answers, or closes the connection, before the body has arrived")
        connection.send(request[head:])
        accepted(cloud, connection.answer(), "after the body")


@RULES.rule(
    "slow-upload", "A body that takes some seconds to arrive is accepted.",
    reason="Devices have slow uplinks; the daemon allows 10 seconds for a whole request.",
    consequence=TRANSPORT,
    remedy="Allow 10 seconds at least for a request's body, also in proxies.",
    needs=("points-accepted",))
def slow(cloud: Cloud) -> None:
    request = _batch(cloud, "slow-upload")
    size = -(-len(request) // _PIECES)
    with closing_is_failure(), cloud.to_service() as connection:
        connection.start()
        for start in range(0, len(request), size):
            connection.send(request[start:start + size])
            time.sleep(cloud.settings.slow_seconds / _PIECES)
        accepted(cloud, connection.answer(), f"{cloud.settings.slow_seconds:g} s of body")


@RULES.rule(
    "concurrent-requests",
    f"{_CONNECTIONS} connections with {_REQUESTS_OF_EACH} requests each get 2XX only.",
    reason="Devices with a common power-up upload in the same second, and each of them sends "
           "points and a log in parallel.",
    consequence=LOSES_POINTS + " This applies to 429 and 503, too.",
    remedy="Close connections, or do not accept them, to shed load: then the daemon keeps the "
           "points.",
    needs=("structured-log-accepted", "connection-kept"))
def concurrent(cloud: Cloud) -> None:
    def one(connection_number: int) -> None:
        with cloud.to_service() as connection:
            for number in range(_REQUESTS_OF_EACH):
                data = f"concurrent-requests {connection_number}.{number}".encode()
                request = (cloud.structured_log_request(data) if connection_number % 2
                           else _batch(cloud, "concurrent-requests"))
                accepted(cloud, connection.post(request), "a concurrent request")
    with ThreadPoolExecutor(_CONNECTIONS) as threads:
        list(threads.map(one, range(_CONNECTIONS)))
