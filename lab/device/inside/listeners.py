"""The receivers of datagrams: system log, journal and metrics collector."""

import asyncio
import re
import socket
import sys
from collections.abc import Callable
from pathlib import Path

from lab.common import names
from lab.device.inside.part import Report

_SYSLOG_SOCKET = "/dev/log"
# dbus-broker does not start without it.
_JOURNAL_SOCKET = Path("/run/systemd/journal/socket")
_JOURNAL_ERROR = re.compile(r"^PRIORITY=[0-3]$", re.MULTILINE)
# name:value|type, and optional fields.
_SAMPLE = re.compile(r"(?P<name>[^:|]+):(?P<value>-?\d+)\|")


class _Datagrams(asyncio.DatagramProtocol):
    def __init__(self, take: Callable[[str], None]) -> None:
        self._take = take

    def datagram_received(self, data: bytes, _: object) -> None:
        self._take(data.decode(errors="backslashreplace").rstrip("\0\n"))


async def listen_for_syslog(report: Report) -> None:
    await _listen_at(_SYSLOG_SOCKET, lambda text: report("syslog.line", text=text))


async def listen_for_journal() -> None:
    """Prints errors to standard error, like those of the other programs."""
    def take(text: str) -> None:
        if _JOURNAL_ERROR.search(text):
            print(text, file=sys.stderr)

    _JOURNAL_SOCKET.parent.mkdir(parents=True)
    await _listen_at(str(_JOURNAL_SOCKET), take)


async def _listen_at(path: str, take: Callable[[str], None]) -> None:
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    listener.bind(path)
    await asyncio.get_running_loop().create_datagram_endpoint(
        lambda: _Datagrams(take), sock=listener)


async def listen_for_samples(report: Report) -> None:
    def take(text: str) -> None:
        for line in text.splitlines():
            found = _SAMPLE.match(line)
            report("statsd.sample", text=line, name=found["name"] if found else "",
                   value=int(found["value"]) if found else None)

    await asyncio.get_running_loop().create_datagram_endpoint(
        lambda: _Datagrams(take), local_addr=names.STATSD_ADDRESS)
