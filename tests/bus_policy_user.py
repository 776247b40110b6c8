"""A user of a device on a real bus: `python3 -m tests.bus_policy_user CONFIGURATION`, in a sandbox.

Two connections share the bus: a service that owns the names to serve, and a caller. Standard input
has the order as JSON. Standard output has the outcome of each message, one a line: of a call "ok"
or the name of its error, of anything else whether it arrived at the service."""

import asyncio
import json
import sys
from pathlib import Path
from typing import Any

from dbus_next import Message, MessageType
from dbus_next.aio import MessageBus

from lab.inside.bus import ADDRESS, Bus
from lab.inside.listeners import listen_for_journal

_BUS = "org.freedesktop.DBus"
_FORGED_SERIAL = 7


class Service:
    """Answers each call, and sees all that arrives."""

    def __init__(self) -> None:
        self.seen: list[tuple[str, str]] = []

    async def start(self, names: list[str]) -> None:
        self.connection = await MessageBus(bus_address=ADDRESS).connect()
        self.connection.add_message_handler(self._on_message)
        await _ask_bus(self.connection, "AddMatch", "s", "type='signal'")
        for name in names:
            await self.connection.request_name(name)

    def _on_message(self, message: Message) -> Message | None:
        self.seen.append((message.member or "", message.sender))
        if message.message_type is MessageType.METHOD_CALL:
            return Message.new_method_return(message)
        return None


async def _ask_bus(connection: MessageBus, member: str, signature: str = "", *body: Any) -> None:
    """What was sent over the connection, or to it, before has been handled when this returns."""
    await connection.call(Message(destination=_BUS, path="/org/freedesktop/DBus", interface=_BUS,
                                  member=member, signature=signature, body=list(body)))


async def _outcome(caller: MessageBus, service: Service, message: Message) -> str:
    if message.message_type is MessageType.METHOD_CALL:
        return (await caller.call(message)).error_name or "ok"
    service.seen.clear()
    await caller.send(message)
    await _ask_bus(caller, "GetId")
    await _ask_bus(service.connection, "GetId")
    return "arrived" if (message.member or "", caller.unique_name) in service.seen else "lost"


def _message(kind: str, details: dict[str, Any]) -> Message:
    kinds = {"call": MessageType.METHOD_CALL, "signal": MessageType.SIGNAL,
             "reply": MessageType.METHOD_RETURN}
    serial = {"reply_serial": _FORGED_SERIAL} if kind == "reply" else {}
    return Message(message_type=kinds[kind], **serial, **details)


async def main() -> None:
    await listen_for_journal()
    await Bus(lambda _, **__: None, Path(sys.argv[1]).read_text()).start()
    order = json.load(sys.stdin)
    service = Service()
    await service.start(order["served"])
    caller = await MessageBus(bus_address=ADDRESS).connect()
    for kind, details in order["messages"]:
        print(await _outcome(caller, service, _message(kind, details)), flush=True)


asyncio.run(main())
