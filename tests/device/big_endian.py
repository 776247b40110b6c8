"""Calls in big-endian byte order (D-Bus Specification, "Message Protocol"):
`python3 big_endian.py DESTINATION PATH INTERFACE` makes one call of each method, and prints the
type and the serial of each reply."""

import os
import socket
import struct
import sys

METHOD_CALL = 1
PATH, INTERFACE, MEMBER, DESTINATION, SIGNATURE = 1, 2, 3, 6, 8
FIXED_HEADER_BYTES = 16


def aligned(data: bytes, to: int) -> bytes:
    return data + bytes(-len(data) % to)


def text(value: str) -> bytes:
    encoded = value.encode()
    return struct.pack(">I", len(encoded)) + encoded + b"\0"


def signature(value: str) -> bytes:
    return bytes([len(value)]) + value.encode() + b"\0"


def call(serial: int, fields: dict[int, tuple[str, str]], body: bytes = b"") -> bytes:
    array = b""
    for code, (kind, value) in fields.items():
        array = aligned(array, 8) + bytes([code]) + signature(kind)
        array = aligned(array, 4) + (signature(value) if kind == "g" else text(value))
    header = struct.pack(">cBBBIII", b"B", METHOD_CALL, 0, 1, len(body), serial, len(array))
    return aligned(header + array, 8) + body


def method(serial: int, target: list[str], member: str, types: str, body: bytes) -> bytes:
    destination, path, interface = target
    return call(serial, {PATH: ("o", path), INTERFACE: ("s", interface), MEMBER: ("s", member),
                         DESTINATION: ("s", destination), SIGNATURE: ("g", types)}, body)


def point() -> bytes:
    """The name ap/big, a label, and the number 258."""
    labels = text("band") + bytes(3) + text("5g")
    body = aligned(text("ap/big"), 4) + struct.pack(">I", len(labels))
    body = aligned(body, 8) + labels
    return aligned(body + signature("i"), 4) + struct.pack(">i", 258)


def log(data: bytes) -> bytes:
    return aligned(text("type/big"), 4) + struct.pack(">I", len(data)) + data


def replies(bus: socket.socket, count: int) -> None:
    """Prints the replies to our serials; those of the bus have the byte order of the machine."""
    with bus.makefile("rb") as stream:
        while count > 0:
            header = stream.read(FIXED_HEADER_BYTES)
            order = "<" if header[:1] == b"l" else ">"
            body_size, _, fields_size = struct.unpack(order + "III", header[4:])
            rest = stream.read(fields_size + -fields_size % 8 + body_size)
            # The field REPLY_SERIAL.
            at = rest.find(b"\x05\x01u\0")
            if header[1] != 4 and at >= 0:
                print(header[1], struct.unpack_from(order + "I", rest, at + 4)[0])
                count -= 1


def main() -> None:
    target = sys.argv[1:]
    with socket.socket(socket.AF_UNIX) as bus:
        bus.connect("/run/dbus/system_bus_socket")
        bus.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        if not bus.recv(4096).startswith(b"OK "):
            sys.exit("The bus does not let this user in")
        name = "org.freedesktop.DBus"
        bus.sendall(b"BEGIN\r\n" + call(1, {
            PATH: ("o", "/org/freedesktop/DBus"), INTERFACE: ("s", name), MEMBER: ("s", "Hello"),
            DESTINATION: ("s", name)}))
        bus.sendall(method(2, target, "RecordMetric", "sa{ss}v", point())
                    + method(3, target, "RecordStructuredData", "say", log(b"\x01\x00\xff"))
                    + method(4, target, "RecordOfflineData", "say", log(b"")))
        replies(bus, 4)


if __name__ == "__main__":
    main()
