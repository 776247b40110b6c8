"""A real cloud, in place of the simulated one: what a device needs to know of it, and the relay
that forwards the bytes of its connections.

The device's listening sockets for the cloud's hosts are made in its network and passed out, so that
the sandbox itself stays without a network: it reaches only these hosts. TLS is between the daemon
and the cloud; the relay sees nothing of it."""

import asyncio
import contextlib
import socket
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any
from urllib.parse import urlsplit

from cloud.process import Cloud
from lab.common.errors import LabError
from lab.common.names import Host
from lab.device.events import EventLog

_CHUNK = 64 * 1024
_DEFAULT_PORT = 443
_NAMED_ADDRESS = "127.0.2.{}"

Place = tuple[str, int]


@dataclass(frozen=True)
class ExternalCloud:
    """`authority` is the CA bundle of the device, in PEM. `places` states where to find a host, if
    name resolution does not."""

    service_url: str
    token_url: str
    authority: str
    client_id: str
    client_secret: str = field(repr=False)
    scope: str = ""
    places: dict[Place, Place] = field(default_factory=dict)

    def hosts(self) -> list[Place]:
        """The identity provider and the monitoring service; one place if they are the same."""
        return list(dict.fromkeys(_host_of(url) for url in (self.token_url, self.service_url)))

    def configuration(self) -> dict[str, str]:
        """Of the daemon, as for `Device.configure`."""
        return {"url": self.service_url, "client_id": self.client_id,
                "client_secret": self.client_secret, "scope": self.scope}

    def check(self, daemon: Path) -> None:
        """Raises a `LabError` if the daemon would ask another identity provider: it is compiled
        into the program."""
        if self.token_url.encode() not in daemon.read_bytes():
            raise LabError(f"{daemon} is built for another token endpoint: build it with "
                           f"-DPELMOR_TOKEN_ENDPOINT_URL={self.token_url}")


def of_the_reference(cloud: Cloud) -> ExternalCloud:
    """The cloud of this tree. The release build's daemon asks the identity provider of its build,
    which must be among the names of the cloud's certificate."""
    port = urlsplit(cloud.service_url).port or _DEFAULT_PORT
    return ExternalCloud(cloud.service_url, f"https://{Host.IDENTITY}/token",
                         cloud.authority.read_text(), cloud.client_id,
                         cloud.client_secret_file.read_text(),
                         places={(Host.IDENTITY.value, _DEFAULT_PORT): ("127.0.0.1", port)})


def _host_of(url: str) -> Place:
    parts = urlsplit(url)
    if parts.scheme != "https" or not parts.hostname:
        raise LabError(f"not an https URL: {url}")
    return parts.hostname, parts.port or _DEFAULT_PORT


def addresses(hosts: list[Place]) -> dict[Place, str]:
    """The address of each host inside the device."""
    # libcurl itself resolves localhost.
    names = [name for name, _ in hosts if name != "localhost" and not name.startswith("127.")]
    inside = {name: _NAMED_ADDRESS.format(number)
              for number, name in enumerate(dict.fromkeys(names), 1)}
    return {(name, port): inside.get(name, "127.0.0.1" if name == "localhost" else name)
            for name, port in hosts}


class Relay:
    """Forwards the connections that a device makes to the listeners, on a thread, until `close`.

    Events: "relay.opened" (host); "relay.closed" (host, sent, received: bytes from and to the
    device); "relay.failed" (host, error)."""

    def __init__(self, listeners: dict[Place, socket.socket], places: dict[Place, Place],
                 event_log: EventLog) -> None:
        self._listeners = listeners
        self._places = places
        self._event_log = event_log
        self._ended = asyncio.Event()
        self._loop = asyncio.new_event_loop()
        self._connections: set[asyncio.Task] = set()
        self._thread = threading.Thread(target=self._run, name="relay", daemon=True)
        self._thread.start()

    def close(self) -> None:
        self._loop.call_soon_threadsafe(self._ended.set)
        self._thread.join()

    def _run(self) -> None:
        with asyncio.Runner(loop_factory=lambda: self._loop) as runner:
            runner.run(self._serve())

    async def _serve(self) -> None:
        servers = [await asyncio.start_server(self._accepted(host), sock=listener)
                   for host, listener in self._listeners.items()]
        await self._ended.wait()
        for server in servers:
            server.close()
        for connection in self._connections:
            connection.cancel()
        await asyncio.gather(*self._connections, return_exceptions=True)

    def _accepted(self, host: Place):
        async def forward(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
            task = asyncio.current_task()
            assert task
            self._connections.add(task)
            task.add_done_callback(self._connections.discard)
            with contextlib.closing(writer):
                await self._forward(host, reader, writer)
        return forward

    async def _forward(self, host: Place, reader: asyncio.StreamReader,
                       writer: asyncio.StreamWriter) -> None:
        name = f"{host[0]}:{host[1]}"
        try:
            answers, requests = await asyncio.open_connection(*self._places.get(host, host))
        except OSError as error:
            self._report("relay.failed", host=name, error=str(error))
            # The device sees a reset, as it would without a relay.
            writer.transport.abort()
            return
        self._report("relay.opened", host=name)
        sent = received = 0
        try:
            with contextlib.closing(requests):
                sent, received = await asyncio.gather(_copy(reader, requests),
                                                      _copy(answers, writer))
        finally:
            self._report("relay.closed", host=name, sent=sent, received=received)

    def _report(self, kind: str, **details: object) -> None:
        self._event_log.add(time.monotonic(), kind, details)


def relay_to(cloud: ExternalCloud, call: Callable[..., Any], doors: socket.socket,
             event_log: EventLog) -> Relay:
    """For a device whose verbs `call` calls, and that sends its sockets to `doors`."""
    places = addresses(cloud.hosts())
    call("doors.open", places=[[address, port] for (_, port), address in places.items()],
         names={name: address for (name, _), address in places.items()})
    descriptors = socket.recv_fds(doors, 1, len(places))[1]
    listeners = {host: socket.socket(fileno=descriptor)
                 for host, descriptor in zip(places, descriptors, strict=True)}
    return Relay(listeners, cloud.places, event_log)


async def _copy(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> int:
    """Until either side ends, which ends the other too; the number of bytes."""
    count = 0
    with contextlib.suppress(ConnectionError):
        while data := await reader.read(_CHUNK):
            writer.write(data)
            count += len(data)
            await writer.drain()
    writer.close()
    return count
