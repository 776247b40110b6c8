"""An HTTPS server for those who answer as they please: late, not at all, or with what is no HTTP.

It speaks HTTP by h11 and does no more than that: each device would pay for a web framework, which
takes as long to load as all else in it."""

import asyncio
import ssl
from collections.abc import Awaitable, Callable

import h11

from lab.common.tls import server_context

_READ_BYTES = 64 * 1024
# Of a request's line and headers; a token in them may be long.
_MOST_HEAD_BYTES = 2 * 1024 * 1024
_WITHOUT_BODY = (204, 304)

Headers = list[tuple[str, str]]


class Exchange:
    """A request, and the means to answer it."""

    def __init__(self, connection: "_Connection", head: h11.Request, body: bytes,
                 reused: bool) -> None:
        self._connection = connection
        self.method = head.method.decode()
        self.target = head.target.decode(errors="backslashreplace")
        # As they were spelt.
        self.headers = [(name.decode(), value.decode(errors="backslashreplace"))
                        for name, value in head.headers.raw_items()]
        self.body = body
        self.reused = reused

    async def answer(self, status: int, headers: dict[str, str], body: str) -> None:
        await self._connection.answer(status, list(headers.items()), body.encode())

    def cut(self, last_words: bytes = b"") -> None:
        """Closes the connection, in place of an answer."""
        self._connection.cut(last_words)


Handler = Callable[[Exchange], Awaitable[None]]


class _Connection:
    def __init__(self, handler: Handler, reader: asyncio.StreamReader,
                 writer: asyncio.StreamWriter) -> None:
        self._handler = handler
        self._reader = reader
        self._writer = writer
        self._http = h11.Connection(h11.SERVER, max_incomplete_event_size=_MOST_HEAD_BYTES)

    async def serve(self) -> None:
        reused = False
        try:
            while await self._exchange(reused):
                reused = True
        except h11.RemoteProtocolError as error:
            if self._http.our_state in (h11.IDLE, h11.SEND_RESPONSE):
                await self.answer(error.error_status_hint, [], b"")
        except (ConnectionError, ssl.SSLError):
            pass  # The client has gone.
        finally:
            self._writer.close()

    async def _exchange(self, reused: bool) -> bool:
        head = await self._next_event()
        if not isinstance(head, h11.Request):
            return False
        body = bytearray()
        while isinstance(part := await self._next_event(), h11.Data):
            body += part.data
        await self._handler(Exchange(self, head, bytes(body), reused))
        if self._writer.is_closing() or self._http.our_state is not h11.DONE:
            return False
        self._http.start_next_cycle()
        return True

    async def _next_event(self) -> object:
        while (event := self._http.next_event()) is h11.NEED_DATA:
            if self._http.they_are_waiting_for_100_continue:
                await self._send(h11.InformationalResponse(status_code=100, headers=[]))
            self._http.receive_data(await self._reader.read(_READ_BYTES))
        return event

    async def answer(self, status: int, headers: Headers, body: bytes) -> None:
        if status in _WITHOUT_BODY:
            body = b""
        else:
            headers = [*headers, ("Content-Length", str(len(body)))]
        await self._send(h11.Response(status_code=status, headers=headers), h11.Data(body),
                         h11.EndOfMessage())

    async def _send(self, *events: h11.Event) -> None:
        self._writer.write(b"".join(self._http.send(event) or b"" for event in events))
        await self._writer.drain()

    def cut(self, last_words: bytes) -> None:
        self._writer.write(last_words)
        self._writer.close()


class Server:
    """One address; closed at first."""

    def __init__(self, address: str, port: int, handler: Handler) -> None:
        self._place = address, port
        self._handler = handler
        self._certificate: tuple[str, str]
        self._listener: asyncio.Server | None = None
        self._connections: set[asyncio.Task] = set()

    async def use_certificate(self, chain: str, key: str) -> None:
        """For the connections to come; those made under the old one are closed."""
        self._certificate = chain, key
        if self._listener:
            await self.close()
            await self.open()

    async def open(self) -> None:
        self._listener = await asyncio.start_server(self._serve, *self._place,
                                                    ssl=server_context(*self._certificate))

    async def close(self) -> None:
        if not self._listener:
            return
        self._listener.close()
        self._listener = None
        for connection in self._connections:
            connection.cancel()
        await asyncio.gather(*self._connections, return_exceptions=True)

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        assert task
        self._connections.add(task)
        task.add_done_callback(self._connections.discard)
        await _Connection(self._handler, reader, writer).serve()
