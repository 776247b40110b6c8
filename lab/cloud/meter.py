"""Counts the traffic of HTTPS connections."""

import socket
import struct
import time
from collections import Counter

# tcpi_segs_out and tcpi_segs_in of the kernel's struct tcp_info.
_TCP_INFO_BYTES = 144
_SEGMENTS = struct.Struct("=136x2I")


class Meter:
    """The traffic of a set of connections, in total and per second."""

    def __init__(self) -> None:
        self._began = time.monotonic()
        self.open: set[socket.socket] = set()
        self.by_second: dict[str, Counter[int]] = {}
        self.totals: Counter[str] = Counter()

    def start(self) -> None:
        """Makes now the beginning of the first second."""
        self._began = time.monotonic()

    def add(self, what: str, amount: int = 1) -> None:
        self.totals[what] += amount
        self.by_second.setdefault(what, Counter())[int(time.monotonic() - self._began)] += amount

    def opened(self, connection: socket.socket) -> None:
        self.open.add(connection)
        self.add("connections")

    def closed(self, connection: socket.socket) -> None:
        self.open.discard(connection)
        for what, amount in _segments(connection).items():
            self.add(what, amount)

    def reading(self) -> Counter[str]:
        """The totals until now, including those of open connections."""
        return self.totals + sum(map(_segments, self.open), Counter())


def _segments(connection: socket.socket) -> Counter[str]:
    info = connection.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, _TCP_INFO_BYTES)
    sent, received = _SEGMENTS.unpack(info)
    return Counter({"segments sent": sent, "segments received": received})
