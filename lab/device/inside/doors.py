"""The listening sockets for the hosts of a real cloud, which are passed out of the device."""

import socket
from pathlib import Path

from lab.device.inside.part import verb

_HOSTS = Path("/etc/hosts")
_BACKLOG = 128


class Doors:
    """`link` is a socket to the outside."""

    def __init__(self, link: socket.socket) -> None:
        self._link = link

    @verb
    def open(self, places: list[list], names: dict[str, str]) -> None:
        """Listens at each place, an address with a port, and sends the sockets; `names` are the
        addresses of names."""
        # The first entry of a name counts.
        entries = "".join(f"{address} {name}\n" for name, address in names.items())
        _HOSTS.write_text(entries + _HOSTS.read_text())
        listeners = [socket.create_server((address, port), backlog=_BACKLOG)
                     for address, port in places]
        socket.send_fds(self._link, [b"\0"], [listener.fileno() for listener in listeners])
        for listener in listeners:
            listener.close()
