"""Sends messages to programs of the booted device, as fast as the bus takes them, from several
connections at once: `python3 -m inside.flood KIND BYTES COUNT DESTINATION...`.

The kind is "signal" or "ping"; each connection sends COUNT messages with a body of BYTES to each
destination, reads all replies, and ends when the bus has handled all. Prints how many were sent."""

import asyncio
import os
import sys

from dbus_next import Message, MessageType

_SOCKET = "/run/dbus/system_bus_socket"
_CONNECTIONS = 3
_CHUNK_BYTES = 64 * 1024
_BUS = "org.freedesktop.DBus"


def _marshalled(message: Message, serial: int) -> bytes:
    message.serial = serial
    return bytes(message._marshall())


def _message(kind: str, size: int, destination: str) -> Message:
    member = {"signal": ("org.example.Flood", "Happened"), "ping": (f"{_BUS}.Peer", "Ping")}[kind]
    kinds = {"signal": MessageType.SIGNAL, "ping": MessageType.METHOD_CALL}
    return Message(message_type=kinds[kind], destination=destination, path="/",
                   interface=member[0], member=member[1], signature="ay", body=[bytes(size)])


async def _connect() -> tuple[asyncio.StreamReader, asyncio.StreamWriter]:
    # Without a D-Bus library, which would spend its time on the replies.
    reader, writer = await asyncio.open_unix_connection(_SOCKET)
    user = str(os.getuid()).encode().hex().encode()
    writer.write(b"\0AUTH EXTERNAL " + user + b"\r\n")
    accepted = await reader.readline()
    if not accepted.startswith(b"OK "):
        raise RuntimeError(f"the bus rejects this user: {accepted!r}")
    hello = Message(destination=_BUS, path="/org/freedesktop/DBus", interface=_BUS, member="Hello")
    writer.write(b"BEGIN\r\n" + _marshalled(hello, 1))
    return reader, writer


async def _send(messages: list[bytes], count: int) -> int:
    reader, writer = await _connect()
    replies = asyncio.create_task(_read_to_the_end(reader))
    sent = 0
    try:
        for _ in range(count):
            for message in messages:
                writer.write(message)
                await writer.drain()
                sent += 1
        writer.write_eof()
    except ConnectionError:
        pass  # The bus has reached a limit, and closes the connection.
    await replies
    return sent


async def _read_to_the_end(reader: asyncio.StreamReader) -> None:
    try:
        while await reader.read(_CHUNK_BYTES):
            pass
    except ConnectionError:
        pass


async def main(kind: str, size: str, count: str, *destinations: str) -> None:
    messages = [_marshalled(_message(kind, int(size), name), 2) for name in destinations]
    sent = await asyncio.gather(*(_send(messages, int(count)) for _ in range(_CONNECTIONS)))
    print(sum(sent))


asyncio.run(main(*sys.argv[1:]))
