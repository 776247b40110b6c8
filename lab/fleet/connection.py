"""One connection to the fleet's cloud: TLS and HTTP/1.1, with every byte counted.

It does TLS by itself, on buffers: only so each byte on the wire passes through its hands."""

import asyncio
import socket
import ssl
import struct
import time
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

_READ_BYTES = 64 * 1024
_END_OF_HEAD = b"\r\n\r\n"
# tcpi_segs_out and tcpi_segs_in of the kernel's struct tcp_info.
_TCP_INFO_BYTES = 144
_SEGMENTS = struct.Struct("=136x2I")


@dataclass(frozen=True)
class Request:
    path: str
    # By their names in lower case.
    headers: dict[str, str]
    body: bytes
    # Whether its connection had brought another one before.
    reused: bool


# To a status and a body.
Answer = Callable[[Request], tuple[int, bytes]]


class Meter:
    """What passes through the cloud's connections, in all and in each second."""

    def __init__(self) -> None:
        self._began = time.monotonic()
        self.by_second: dict[str, Counter[int]] = {}
        self.totals: Counter[str] = Counter()
        self.open: set["Connection"] = set()

    def start(self) -> None:
        """The first second begins now."""
        self._began = time.monotonic()

    def add(self, what: str, amount: int = 1) -> None:
        self.totals[what] += amount
        self.by_second.setdefault(what, Counter())[int(time.monotonic() - self._began)] += amount

    def reading(self) -> Counter[str]:
        """The totals until now, those of the connections that are still open among them."""
        open_now = sum((connection.segments() for connection in self.open), Counter())
        return self.totals + open_now


class Connection(asyncio.Protocol):
    def __init__(self, context: ssl.SSLContext, meter: Meter, answer: Answer,
                 idle_seconds: Callable[[], float]) -> None:
        self._meter = meter
        self._answer = answer
        self._idle_seconds = idle_seconds
        self._incoming, self._outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self._tls = context.wrap_bio(self._incoming, self._outgoing, server_side=True)
        self._shaken = False
        self._received = bytearray()
        self._requests = 0
        self._transport: Any
        self._goodbye: asyncio.TimerHandle | None = None

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        self._transport = transport
        self._meter.open.add(self)
        self._meter.add("connections")

    def connection_lost(self, _: Exception | None) -> None:
        if self._goodbye:
            self._goodbye.cancel()
        self._meter.open.discard(self)
        for what, amount in self.segments().items():
            self._meter.add(what, amount)

    def data_received(self, data: bytes) -> None:
        self._meter.add("received", len(data))
        self._incoming.write(data)
        try:
            self._advance()
        except ssl.SSLWantReadError:
            self._flush()
        except ssl.SSLError:
            # A goodbye, or no TLS.
            if not self._shaken:
                self._meter.add("failed handshakes")
            self.close()

    def fall_silent(self) -> None:
        if not self._transport.is_closing():
            self._transport.pause_reading()

    def cut(self) -> None:
        self._transport.abort()

    def close(self) -> None:
        try:
            self._tls.unwrap()
        except ssl.SSLError:
            pass  # The other end has not said goodbye yet, and need not.
        self._flush()
        self._transport.close()

    def segments(self) -> Counter[str]:
        connected = self._transport.get_extra_info("socket")
        info = connected.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, _TCP_INFO_BYTES)
        sent, received = _SEGMENTS.unpack(info)
        return Counter({"segments sent": sent, "segments received": received})

    def _advance(self) -> None:
        if not self._shaken:
            self._tls.do_handshake()
            self._shaken = True
            resumed = self._tls.session_reused
            self._meter.add("resumed handshakes" if resumed else "full handshakes")
        while True:
            data = self._tls.read(_READ_BYTES)
            if not data:
                self.close()
                return
            self._received += data
            self._answer_all()

    def _answer_all(self) -> None:
        while request := self._next_request():
            self._requests += 1
            status, body = self._answer(request)
            head = (f"HTTP/1.1 {status} \r\nContent-Type: application/json\r\n"
                    f"Content-Length: {len(body)}\r\n\r\n")
            self._tls.write(head.encode() + body)
            self._flush()
            self.wait_for_the_next()

    def _next_request(self) -> Request | None:
        head, found, rest = bytes(self._received).partition(_END_OF_HEAD)
        if not found:
            return None
        first, *lines = head.decode("latin-1").split("\r\n")
        headers = {name.lower(): value.strip()
                   for name, _, value in (line.partition(":") for line in lines)}
        length = int(headers.get("content-length", "0"))
        if len(rest) < length:
            return None
        self._received = bytearray(rest[length:])
        return Request(first.split(" ")[1], headers, rest[:length], reused=self._requests > 0)

    def wait_for_the_next(self) -> None:
        """For as long as unused connections are kept now."""
        if self._goodbye:
            self._goodbye.cancel()
        loop = asyncio.get_running_loop()
        self._goodbye = loop.call_later(self._idle_seconds(), self.close)

    def _flush(self) -> None:
        if data := self._outgoing.read():
            self._meter.add("sent", len(data))
            self._transport.write(data)
