"""The HTTPS server that the lab's devices, the fleet and the benchmark share."""

import asyncio
import socket
import ssl
from collections.abc import Awaitable, Callable

import pytest

from lab.cloud.connection import Exchange
from lab.cloud.meter import Meter
from lab.cloud.server import Server, bound, server_context
from lab.common import certificates, deadlines
from lab.common.names import Host

Streams = tuple[asyncio.StreamReader, asyncio.StreamWriter]
REQUEST = b"POST /%d HTTP/1.1\r\nHost: cloud\r\nContent-Length: 4\r\n\r\nbody"
ANSWER_BYTES = len(b"HTTP/1.1 200 \r\nContent-Length: 2\r\n\r\n/1")


async def _answer_later(exchange: Exchange) -> None:
    await asyncio.sleep(0)
    exchange.answer(200, {}, exchange.target.encode())


class Fixture:
    def __init__(self) -> None:
        self.meter = Meter()
        with bound("127.0.0.1", 0) as free:
            self._port = free.getsockname()[1]
        self.server = Server(bound("127.0.0.1", self._port), _answer_later, self.meter)
        certificate = certificates.of_the_cloud()
        self.server.use(server_context(certificate.chain, certificate.key))

    async def connect(self) -> Streams:
        trusting = ssl.create_default_context(cadata=certificates.trusted_bundle())
        return await asyncio.open_connection("127.0.0.1", self._port, ssl=trusting,
                                             server_hostname=Host.MONITORING)

    async def connect_without_tls(self) -> Streams:
        return await asyncio.open_connection("127.0.0.1", self._port)


async def _post(streams: Streams, *numbers: int) -> bytes:
    reader, writer = streams
    writer.write(b"".join(REQUEST % number for number in numbers))
    return await reader.readexactly(ANSWER_BYTES * len(numbers))


async def _assert_closed(streams: Streams) -> None:
    with pytest.raises((ConnectionError, asyncio.IncompleteReadError)):
        await streams[0].readexactly(1)


def _run(test: Callable[[Fixture], Awaitable[None]]) -> None:
    async def run() -> None:
        fixture = Fixture()
        try:
            await asyncio.wait_for(test(fixture), deadlines.scaled(10))
        finally:
            fixture.server.close()
    asyncio.run(run())


def test_pipelined_requests_are_answered_in_order() -> None:
    async def test(fixture: Fixture) -> None:
        await fixture.server.open()
        answers = await _post(await fixture.connect(), 1, 2, 3)
        assert [answers[index:index + 1] for index in range(ANSWER_BYTES - 1, len(answers),
                                                            ANSWER_BYTES)] == [b"1", b"2", b"3"]
    _run(test)


def test_an_idle_connection_is_closed() -> None:
    async def test(fixture: Fixture) -> None:
        fixture.server.close_idle_after(0.05)
        await fixture.server.open()
        streams = await fixture.connect()
        await _post(streams, 1)
        await _assert_closed(streams)
    _run(test)


def test_a_silent_server_accepts_connections_and_drops_them_when_it_opens_again() -> None:
    async def test(fixture: Fixture) -> None:
        await fixture.server.open()
        before = await fixture.connect()
        await _post(before, 1)
        fixture.server.fall_silent()
        before[1].write(REQUEST % 2)
        during = await fixture.connect_without_tls()
        assert fixture.meter.totals["connections"] == 1
        await fixture.server.open()
        await _assert_closed(before)
        await _assert_closed(during)
        await _post(await fixture.connect(), 3)
    _run(test)


def test_a_closed_port_refuses_connections_and_opens_again() -> None:
    async def test(fixture: Fixture) -> None:
        await fixture.server.open()
        streams = await fixture.connect()
        fixture.server.refuse()
        await _assert_closed(streams)
        with pytest.raises(ConnectionRefusedError):
            await fixture.connect_without_tls()
        await fixture.server.open()
        await _post(await fixture.connect(), 1)
    _run(test)


def test_answers_are_sent_without_delay() -> None:
    delays = []

    async def test(fixture: Fixture) -> None:
        await fixture.server.open()
        await _post(await fixture.connect(), 1)
        delays.extend(not one.getsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY)
                      for one in fixture.meter.open)
    _run(test)
    assert delays == [False]


def test_handshakes_and_bytes_are_counted() -> None:
    async def test(fixture: Fixture) -> None:
        await fixture.server.open()
        _, writer = await fixture.connect_without_tls()
        writer.write(b"GET / HTTP/1.1\r\n\r\n")
        await _post(await fixture.connect(), 1)
        totals = fixture.meter.reading()
        assert (totals["connections"], totals["full handshakes"],
                totals["failed handshakes"]) == (2, 1, 1)
        assert totals["received"] > len(REQUEST) and totals["sent"] > ANSWER_BYTES
        assert totals["segments received"] > totals["connections"]
    _run(test)
