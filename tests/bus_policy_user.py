"""A user of a device on a real bus: `python3 -m tests.bus_policy_user CONFIGURATION`, in a sandbox.

Two connections share the bus, a service and a caller. Standard input has the order as JSON: the
names that each of them owns, and the messages from one to the other. Standard output has the
outcome of each message, one a line: of a call "ok", the name of its error or "disconnected"; of
anything else whether it "arrived" or was "lost". The kind "release" makes the bus announce that a
name has no owner."""

import asyncio
import json
import sys
from pathlib import Path
from typing import Any

from dbus_next import Message, MessageType
from dbus_next.aio import MessageBus

from lab.device.inside.bus import ADDRESS, Bus
from lab.device.inside.listeners import listen_for_journal

_BUS = "org.freedesktop.DBus"
_FORGED_SERIAL = 7
# A destination: the other connection, by its unique name.
_RECEIVER = "receiver"


class Party:
    """Answers each call, and records all messages that arrive."""

    async def start(self, names: list[str]) -> None:
        self.seen: list[tuple[str, str]] = []
        self.connection = await MessageBus(bus_address=ADDRESS).connect()
        self.connection.add_message_handler(self._on_message)
        await self.ask_bus("AddMatch", "s", "type='signal'")
        for name in names:
            await self.connection.request_name(name)

    def _on_message(self, message: Message) -> Message | None:
        self.seen.append((message.member or "", message.sender))
        if message.message_type is MessageType.METHOD_CALL:
            return Message.new_method_return(message)
        return None

    async def ask_bus(self, member: str, signature: str = "", *body: Any) -> None:
        """Returns when the bus has handled the messages that the party sent before, and the party
        those that arrived before."""
        await self.connection.call(Message(
            destination=_BUS, path="/org/freedesktop/DBus", interface=_BUS, member=member,
            signature=signature, body=list(body)))


async def _outcome_of_call(sender: Party, message: Message) -> str:
    try:
        return (await sender.connection.call(message)).error_name or "ok"
    except (ConnectionError, EOFError):
        return "disconnected"


async def _outcome(sender: Party, receiver: Party, message: Message) -> str:
    receiver.seen.clear()
    await sender.connection.send(message)
    return await _arrival(sender, receiver, message.member or "", sender.connection.unique_name)


async def _outcome_of_release(sender: Party, receiver: Party, name: str) -> str:
    receiver.seen.clear()
    await sender.connection.release_name(name)
    return await _arrival(sender, receiver, "NameOwnerChanged", _BUS)


async def _arrival(sender: Party, receiver: Party, member: str, source: str) -> str:
    await sender.ask_bus("GetId")
    await receiver.ask_bus("GetId")
    return "arrived" if (member, source) in receiver.seen else "lost"


async def _handle(sender: Party, receiver: Party, kind: str, details: dict[str, Any]) -> str:
    if kind == "release":
        return await _outcome_of_release(sender, receiver, details["name"])
    if details["destination"] == _RECEIVER:
        details["destination"] = receiver.connection.unique_name
    message = _message(kind, details)
    if kind == "call":
        return await _outcome_of_call(sender, message)
    return await _outcome(sender, receiver, message)


def _message(kind: str, details: dict[str, Any]) -> Message:
    kinds = {"call": MessageType.METHOD_CALL, "signal": MessageType.SIGNAL,
             "reply": MessageType.METHOD_RETURN}
    serial = {"reply_serial": _FORGED_SERIAL} if kind == "reply" else {}
    return Message(message_type=kinds[kind], **serial, **details)


async def main() -> None:
    await listen_for_journal()
    await Bus(lambda _, **__: None, Path(sys.argv[1]).read_text()).start()
    order = json.load(sys.stdin)
    parties = {name: Party() for name in ("service", "caller")}
    for name, party in parties.items():
        await party.start(order["names"][name])
    for sender, kind, details in order["messages"]:
        receiver = "caller" if sender == "service" else "service"
        print(await _handle(parties[sender], parties[receiver], kind, details), flush=True)


asyncio.run(main())
