"""The sockets that only listen: the system log's and the metrics collector's."""

import asyncio
import re
import socket
from collections.abc import Callable

from lab import names
from lab.inside.part import Tell

_SYSLOG_SOCKET = "/dev/log"
# name:value|type, and whatever a client adds behind.
_SAMPLE = re.compile(r"(?P<name>[^:|]+):(?P<value>-?\d+)\|")


class _Datagrams(asyncio.DatagramProtocol):
    def __init__(self, take: Callable[[str], None]) -> None:
        self._take = take

    def datagram_received(self, data: bytes, _: object) -> None:
        self._take(data.decode(errors="backslashreplace").rstrip("\0\n"))


async def listen_for_syslog(tell: Tell) -> None:
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind(_SYSLOG_SOCKET)
    await asyncio.get_running_loop().create_datagram_endpoint(
        lambda: _Datagrams(lambda text: tell("syslog.line", text=text)), sock=log)


async def listen_for_samples(tell: Tell) -> None:
    def take(text: str) -> None:
        for line in text.splitlines():
            found = _SAMPLE.match(line)
            tell("statsd.sample", text=line, name=found["name"] if found else "",
                 value=int(found["value"]) if found else None)

    await asyncio.get_running_loop().create_datagram_endpoint(
        lambda: _Datagrams(take), local_addr=names.STATSD_ADDRESS)
