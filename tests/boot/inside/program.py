"""A simulated program of the lab as a service of the booted device, or around it: `python3 -m
inside.program NAME`.

It reports to the test and obeys it over a socket in a shared folder, in the JSON lines of the lab,
and ends with the test."""

import asyncio
import json
import os
import socket
import sys
from pathlib import Path
from typing import Any

from lab.common.names import Host
from lab.device.inside.cloud import Cloud
from lab.device.inside.larder import Larder
from lab.device.inside.part import Report, event_line, reply_to
from lab.device.inside.reporter import Reporter
from lab.device.inside.time_daemon import TimeDaemon

_LINK = "/opt/link/socket"
_CERTIFICATE = Path("/opt/lab/certificate.json")
_LONGEST_LINE = 1024 * 1024


async def _start(name: str, report: Report) -> Any:
    """Returns the part when it serves."""
    if name == "cloud":
        cloud = Cloud(report)
        certificate = json.loads(_CERTIFICATE.read_text())
        for host in Host:
            await cloud.use_certificate(host, **certificate)
            await cloud.come_back(host)
        return cloud
    reporter = Reporter(report)
    await reporter.connect()
    part = {"larder": Larder, "tlsdate": TimeDaemon}[name](report, reporter)
    await part.start()
    return part


def _notify_ready() -> None:
    if supervisor := os.environ.get("NOTIFY_SOCKET"):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notices:
            notices.sendto(b"READY=1", supervisor)


async def main(name: str) -> None:
    reader, writer = await asyncio.open_unix_connection(_LINK, limit=_LONGEST_LINE)
    writer.write(json.dumps({"hello": name}).encode() + b"\n")

    def report(kind: str, **details: Any) -> None:
        writer.write(event_line(kind, details))

    part = await _start(name, report)
    report("program.up", name=name)
    _notify_ready()
    while line := await reader.readline():
        writer.write(await reply_to(json.loads(line), part))


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1]))
