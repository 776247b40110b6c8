"""An HTTPS server that takes every POST: `sink.py PORT CERTIFICATE POINT [close]`.

After each request it writes to /tmp/sink.PORT how often the text POINT has come in bodies. With
`close` it closes each connection with its first answer."""

import asyncio
import re
import ssl
import sys
from pathlib import Path

_HEAD = b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
_LAST = b"Connection: close\r\n"
_LENGTH = re.compile(rb"^content-length: *(\d+)", re.IGNORECASE | re.MULTILINE)


class Sink:
    def __init__(self, port: int, point: str, close: bool) -> None:
        self._file = Path(f"/tmp/sink.{port}")
        self._file.write_text("0")
        self._point = point.encode()
        self._close = close
        self._points = 0

    async def serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        try:
            while await self._answer(reader, writer) and not self._close:
                pass
        except (asyncio.IncompleteReadError, ConnectionError):
            pass  # The client has gone.
        writer.close()

    async def _answer(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> bool:
        length = _LENGTH.search(await reader.readuntil(b"\r\n\r\n"))
        body = await reader.readexactly(int(length[1])) if length else b""
        self._points += body.count(self._point)
        self._file.write_text(str(self._points))
        writer.write(_HEAD + (_LAST if self._close else b"") + b"\r\n{}")
        await writer.drain()
        return True


async def main() -> None:
    port, certificate, point, *close = sys.argv[1:]
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(certificate)
    sink = Sink(int(port), point, bool(close))
    server = await asyncio.start_server(sink.serve, "127.0.1.2", int(port), ssl=context)
    await server.serve_forever()


asyncio.run(main())
