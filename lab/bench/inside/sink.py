"""An HTTPS server that accepts every POST: `python3 -m lab.bench.inside.sink PORT CERTIFICATE POINT
[close]`.

After each request it writes to /tmp/sink.PORT how often the text POINT has occurred in bodies. With
`close` it closes each connection after its first answer."""

import asyncio
import sys
from pathlib import Path

from lab.cloud.connection import Exchange
from lab.cloud.server import Server, bound, server_context
from lab.common.names import Host


class Sink:
    def __init__(self, file: Path, point: str, close: bool) -> None:
        self._file = file
        self._point = point.encode()
        self._headers = {"Content-Type": "application/json"}
        if close:
            self._headers["Connection"] = "close"
        self._points = 0

    def answer(self, exchange: Exchange) -> None:
        self._points += exchange.body.count(self._point)
        self._file.write_text(str(self._points))
        exchange.answer(200, self._headers, b"{}")


async def main() -> None:
    port, certificate, point, *close = sys.argv[1:]
    file = Path(f"/tmp/sink.{port}")
    server = Server(bound(Host.MONITORING.address, int(port)),
                    Sink(file, point, bool(close)).answer)
    server.use(server_context(Path(certificate).read_text(), ""))
    await server.open()
    file.write_text("0")
    await asyncio.Event().wait()


asyncio.run(main())
