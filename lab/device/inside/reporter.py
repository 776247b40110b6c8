"""A client of the daemon: the connection over which the lab calls it and watches the names on the
bus."""

import asyncio
from typing import Any

from dbus_next import Message, MessageFlag, MessageType
from dbus_next.aio import MessageBus
from dbus_next.auth import Authenticator

from lab.common import deadlines, names
from lab.device.inside.bus import ADDRESS
from lab.device.inside.dbus_values import from_dbus, signal, to_dbus
from lab.device.inside.part import Report, verb

_BUS = "org.freedesktop.DBus"
# Longer than the longest blocking call of the daemon.
_CALL_DEADLINE = deadlines.scaled(30.0)
# The D-Bus library fails if the send buffer is full; this many calls always fit.
_CALLS_AT_ONCE = 100


class Reporter:
    def __init__(self, report: Report, address: str = ADDRESS,
                 auth: Authenticator | None = None) -> None:
        self._report = report
        self._address = address
        self._auth = auth
        self._bus: MessageBus
        self._names: set[str] = set()
        self._changed = asyncio.Condition()
        self._tasks: set[asyncio.Task] = set()

    async def connect(self) -> None:
        """To a bus that has just started."""
        self._names.clear()
        self._bus = await self.join()
        self._bus.add_message_handler(self._on_message)
        rule = f"type='signal',sender='{_BUS}',member='NameOwnerChanged'"
        await self._bus.call(Message(destination=_BUS, path="/org/freedesktop/DBus",
                                     interface=_BUS, member="AddMatch", signature="s",
                                     body=[rule]))

    async def join(self) -> MessageBus:
        """Another connection to the same bus."""
        return await MessageBus(bus_address=self._address, auth=self._auth).connect()

    def _on_message(self, message: Message) -> bool:
        if message.message_type != MessageType.SIGNAL or message.member != "NameOwnerChanged":
            return False
        name, _, owner = message.body
        if not name.startswith(":"):
            self._note(name, bool(owner))
        return False

    def _note(self, name: str, owned: bool) -> None:
        (self._names.add if owned else self._names.discard)(name)
        self._report("bus.name", name=name, owned=owned)
        task = asyncio.create_task(self._notify())
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    async def _notify(self) -> None:
        async with self._changed:
            self._changed.notify_all()

    async def wait_for_name(self, name: str, *, owned: bool) -> None:
        """Until the whole bus sees that the name has an owner, or none."""
        async with self._changed:
            await self._changed.wait_for(lambda: (name in self._names) == owned)

    @verb
    async def call(self, destination: str, path: str, interface: str, method: str,
                   signature: str, arguments: list) -> dict[str, Any]:
        reply = await asyncio.wait_for(
            self._bus.call(Message(destination=destination, path=path, interface=interface,
                                   member=method, signature=signature, body=to_dbus(arguments))),
            _CALL_DEADLINE)
        if reply.message_type == MessageType.ERROR:
            message = reply.body[0] if reply.signature.startswith("s") else ""
            return {"signature": "", "values": [], "error": reply.error_name, "message": message}
        return {"signature": reply.signature, "values": from_dbus(reply.body), "error": "",
                "message": ""}

    @verb
    async def call_all(self, method: str, signature: str, all_arguments: list[list]) -> None:
        replies = []
        for first in range(0, len(all_arguments), _CALLS_AT_ONCE):
            replies += await asyncio.gather(*(
                self.call(names.DAEMON_SERVICE, names.DAEMON_PATH, names.DAEMON_INTERFACE, method,
                          signature, arguments)
                for arguments in all_arguments[first:first + _CALLS_AT_ONCE]))
        failed = [reply["error"] for reply in replies if reply["error"]]
        if failed:
            raise RuntimeError(f"{len(failed)} calls failed, the first with {failed[0]}")

    @verb
    async def emit(self, destination: str, path: str, interface: str, member: str,
                   signature: str, values: list) -> None:
        """Sends a signal in this connection's own name, to one program or, with no destination,
        to all that listen; the bus has it when this returns."""
        message = signal(path, interface, member, signature, values)
        message.destination = destination or None
        await self._bus.send(message)
        await self._bus.call(Message(destination=_BUS, path="/org/freedesktop/DBus",
                                     interface="org.freedesktop.DBus.Peer", member="Ping"))

    async def wake(self, destination: str) -> None:
        """Causes an iteration of the program's event loop, by a ping."""
        await self._bus.send(Message(destination=destination, path="/",
                                     interface="org.freedesktop.DBus.Peer", member="Ping",
                                     flags=MessageFlag.NO_REPLY_EXPECTED))
