"""Prepares a device of the fleet in its sandbox, and then executes the daemon in its own process.

It creates the cloud's listening sockets in the device's own network and passes them to the fleet.
So the daemon reaches the cloud at its real names, addresses and port over the loopback interface,
and no device can reach the host's network or another device."""

import json
import os
import socket
import subprocess
import sys
from pathlib import Path
from typing import Any


def listen(address: str, port: int, segment_bytes: int) -> socket.socket:
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    # It listens again after an outage, while earlier connections are still closing.
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    # As on an Ethernet, so that the kernel's count of segments is realistic.
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
    # The bus forks into the background when it listens.
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
    # A byte is the power-up; the end of the link is the end of the run.
    if link.recv(1):
        os.execv(order["daemon"], [order["daemon"]])


main()
