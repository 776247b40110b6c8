"""Makes a device of the fleet ready in its sandbox, and then becomes its daemon.

What the cloud listens on is made here, in the device's own network, and handed out: so the daemon
reaches the cloud at its real names, addresses and port over nothing but its own loopback, and no
device has a way to the machine's network or to another device. Of this program nothing is left once
the daemon runs."""

import json
import os
import socket
import subprocess
import sys
from pathlib import Path
from typing import Any


def listen(address: str, port: int, segment_bytes: int) -> socket.socket:
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    # It listens again after an outage, with connections of the time before on their way out.
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    # As over an Ethernet, so that the kernel's count of segments is that of a real network.
    listener.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, segment_bytes)
    listener.bind((address, port))
    listener.listen()
    return listener


def make_ready(order: dict[str, Any]) -> list[socket.socket]:
    for path, text in order["files"].items():
        Path(path).parent.mkdir(parents=True, exist_ok=True)
        Path(path).write_text(text)
    for folder in order["folders"]:
        Path(folder).mkdir(parents=True, exist_ok=True)
    # It goes on as a process of its own when it listens.
    subprocess.run(order["bus"], check=True)
    return [listen(address, order["port"], order["segment_bytes"])
            for address in order["addresses"]]


def main() -> None:
    link = socket.socket(fileno=int(sys.argv[1]))
    link.set_inheritable(False)
    order = json.loads(link.makefile("rb").readline())
    listeners = make_ready(order)
    socket.send_fds(link, [b"ready"], [listener.fileno() for listener in listeners])
    for listener in listeners:
        listener.close()
    # The power comes, or the other end is gone.
    if link.recv(1):
        os.execv(order["daemon"], [order["daemon"]])


main()
