"""An HTTPS server at one address. It is closed at first."""

import asyncio
import contextlib
import socket
import ssl
import tempfile

from lab.cloud.connection import Connection, Handler, Shared
from lab.cloud.meter import Meter


def server_context(chain: str, key: str) -> ssl.SSLContext:
    """From PEM texts; the library reads only files."""
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    with tempfile.NamedTemporaryFile("w") as file:
        file.write(key + chain)
        file.flush()
        context.load_cert_chain(file.name)
    return context


def bound(address: str, port: int) -> socket.socket:
    """A socket that does not listen yet."""
    # asyncio sets TCP_NODELAY only for a socket of this protocol. Without it a client waits 40 ms
    # for the end of many answers.
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM, socket.IPPROTO_TCP)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind((address, port))
    return listener


class Server:
    """Owns its `listener`, which stays bound while the server is closed."""

    def __init__(self, listener: socket.socket, handler: Handler, meter: Meter | None = None,
                 connection: type[Connection] = Connection) -> None:
        self._listener = listener
        self._connection = connection
        self._listener.setblocking(False)
        self._shared = Shared(handler, meter or Meter())
        self._acceptor: asyncio.Server | None = None

    def use(self, context: ssl.SSLContext) -> None:
        """For connections made from now on."""
        self._shared.context = context

    def close_idle_after(self, seconds: float) -> None:
        self._shared.idle_seconds = seconds
        for connection in self._shared.connections:
            connection.start_idle_timer()

    async def open(self) -> None:
        """Connections that were made while the server was silent are closed."""
        self._end_connections()
        with contextlib.suppress(OSError):  # No more pending connections.
            while True:
                self._listener.accept()[0].close()
        # A duplicate, since asyncio closes the socket that it is given.
        self._acceptor = await asyncio.get_running_loop().create_server(
            lambda: self._connection(self._shared), sock=self._listener.dup())

    def refuse(self) -> None:
        """Closes the port and every connection to it."""
        self._stop_accepting()
        with contextlib.suppress(OSError):  # It was closed already.
            self._listener.shutdown(socket.SHUT_RDWR)
        self._end_connections()

    def fall_silent(self) -> None:
        """From now on the kernel completes TCP connections, and no byte on any is answered."""
        self._stop_accepting()
        for connection in self._shared.connections:
            connection.fall_silent()

    def close(self) -> None:
        self.refuse()
        self._listener.close()

    @property
    def is_open(self) -> bool:
        return self._acceptor is not None

    def _stop_accepting(self) -> None:
        if self._acceptor:
            self._acceptor.close()
            self._acceptor = None

    def _end_connections(self) -> None:
        for task in self._shared.tasks:
            task.cancel()
        for connection in list(self._shared.connections):
            connection.close()
