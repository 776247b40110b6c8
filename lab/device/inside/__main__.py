"""Runs a device until the other end of the link is closed.

    python3 -m lab.device.inside LINK DOORS

Both are descriptors of sockets: for commands, and for passing listening sockets out.
"""

import asyncio
import resource
import socket
import sys

from lab.device.inside.controller import Controller


async def main() -> None:
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    await Controller(socket.socket(fileno=int(sys.argv[2]))).serve(
        socket.socket(fileno=int(sys.argv[1])))


asyncio.run(main())
