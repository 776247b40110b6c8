"""One HTTPS connection, with HTTP/1.1 by h11. It runs TLS on memory buffers, so that the meter sees
every byte on the wire."""

import asyncio
import contextlib
import ssl
from collections.abc import Awaitable, Callable
from dataclasses import dataclass, field
from typing import Any

import h11

from lab.cloud.meter import Meter

_READ_BYTES = 64 * 1024
# Limit of a request line with its headers; a token in them may be long.
_MOST_HEAD_BYTES = 2 * 1024 * 1024
_WITHOUT_BODY = (204, 304)


class Exchange:
    """A request, and the means to answer it."""

    def __init__(self, connection: "Connection", head: h11.Request, body: bytes,
                 reused: bool) -> None:
        self._connection = connection
        self.method = head.method.decode()
        self.target = head.target.decode(errors="backslashreplace")
        # With the names as the client spelt them.
        self.headers = [(name.decode(), value.decode(errors="backslashreplace"))
                        for name, value in head.headers.raw_items()]
        self.body = body
        # Whether the connection carried an earlier request.
        self.reused = reused

    def header(self, wanted: str) -> str:
        """`wanted` is in lower case; empty if the request has no such header."""
        return next((value for name, value in self.headers if name.lower() == wanted), "")

    def answer(self, status: int, headers: dict[str, str], body: bytes) -> None:
        """Raises a `ConnectionError` if the client has disconnected."""
        self._connection.answer(status, list(headers.items()), body)

    def cut(self, last_bytes: bytes = b"") -> None:
        """Sends `last_bytes`, which need not be HTTP, and closes the connection."""
        self._connection.cut(last_bytes)


# Answers at once, or by a coroutine that runs as a task.
Handler = Callable[[Exchange], Awaitable[None] | None]


@dataclass
class Shared:
    """The state that all connections of a server share."""

    handler: Handler
    meter: Meter
    context: ssl.SSLContext | None = None
    # How long a connection may stay open without a request; None is for ever.
    idle_seconds: float | None = None
    connections: set["Connection"] = field(default_factory=set)
    # The running handlers; a handler may outlive its connection.
    tasks: set[asyncio.Task] = field(default_factory=set)


class Connection(asyncio.Protocol):
    def __init__(self, shared: Shared) -> None:
        assert shared.context
        self._shared = shared
        self._meter = shared.meter
        self._incoming, self._outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self._tls = shared.context.wrap_bio(self._incoming, self._outgoing, server_side=True)
        self._is_encrypted = False
        self._http = h11.Connection(h11.SERVER, max_incomplete_event_size=_MOST_HEAD_BYTES)
        self._head: h11.Request
        self._body = bytearray()
        self._requests = 0
        self._transport: Any
        self._idle_timer: asyncio.TimerHandle | None = None

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        self._transport = transport
        self._shared.connections.add(self)
        self._meter.opened(transport.get_extra_info("socket"))

    def connection_lost(self, _: Exception | None) -> None:
        if self._idle_timer:
            self._idle_timer.cancel()
        self._shared.connections.discard(self)
        self._meter.closed(self._transport.get_extra_info("socket"))

    def data_received(self, data: bytes) -> None:
        self._meter.add("received", len(data))
        self._incoming.write(data)
        has_ended = self._read()
        self._flush()
        self._handle_events()
        if has_ended:
            self.close()

    def fall_silent(self) -> None:
        if not self._transport.is_closing():
            self._transport.pause_reading()

    def close(self) -> None:
        with contextlib.suppress(ssl.SSLError):  # The client need not have closed its side.
            self._tls.unwrap()
        self._flush()
        self._transport.close()

    def cut(self, last_bytes: bytes) -> None:
        self._tls.write(last_bytes)
        self.close()

    def answer(self, status: int, headers: list[tuple[str, str]], body: bytes) -> None:
        if self._transport.is_closing():
            raise ConnectionResetError("the client has disconnected")
        if status in _WITHOUT_BODY:
            body = b""
        else:
            headers = [*headers, ("Content-Length", str(len(body)))]
        self._send(h11.Response(status_code=status, headers=headers), h11.Data(body),
                   h11.EndOfMessage())
        if self._http.our_state is h11.DONE and self._http.their_state is h11.DONE:
            self._http.start_next_cycle()
            self.start_idle_timer()
        else:
            self.close()

    def start_idle_timer(self) -> None:
        """Anew, with the present limit."""
        if self._idle_timer:
            self._idle_timer.cancel()
        if self._shared.idle_seconds is not None:
            self._idle_timer = asyncio.get_running_loop().call_later(
                self._shared.idle_seconds, self.close)

    def _read(self) -> bool:
        """Returns whether TLS has ended or failed."""
        try:
            if not self._is_encrypted:
                self._tls.do_handshake()
                self._is_encrypted = True
                resumed = self._tls.session_reused
                self._meter.add("resumed handshakes" if resumed else "full handshakes")
            while data := self._tls.read(_READ_BYTES):
                self._http.receive_data(data)
        except ssl.SSLWantReadError:
            return False
        except ssl.SSLError:
            if not self._is_encrypted:
                self._meter.add("failed handshakes")
        return True

    def _handle_events(self) -> None:
        try:
            while (event := self._http.next_event()) not in (h11.NEED_DATA, h11.PAUSED):
                self._handle_event(event)
        except h11.RemoteProtocolError as error:
            if self._http.our_state in (h11.IDLE, h11.SEND_RESPONSE):
                self.answer(error.error_status_hint, [], b"")
            self.close()
            return
        if self._http.they_are_waiting_for_100_continue:
            self._send(h11.InformationalResponse(status_code=100, headers=[]))

    def _handle_event(self, event: Any) -> None:
        if isinstance(event, h11.Request):
            self._head, self._body = event, bytearray()
        elif isinstance(event, h11.Data):
            self._body += event.data
        elif isinstance(event, h11.EndOfMessage):
            exchange = Exchange(self, self._head, bytes(self._body), reused=self._requests > 0)
            self._requests += 1
            if coroutine := self._shared.handler(exchange):
                task = asyncio.create_task(self._finish(coroutine))
                self._shared.tasks.add(task)
                task.add_done_callback(self._shared.tasks.discard)

    async def _finish(self, coroutine: Awaitable[None]) -> None:
        with contextlib.suppress(ConnectionError):
            await coroutine
            # The client may have sent its next request meanwhile.
            self._handle_events()

    def _send(self, *events: h11.Event) -> None:
        self._tls.write(b"".join(self._http.send(event) or b"" for event in events))
        self._flush()

    def _flush(self) -> None:
        if data := self._outgoing.read():
            self._meter.add("sent", len(data))
            self._transport.write(data)
