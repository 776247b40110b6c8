"""Monitors calls of the daemon by any program on the bus."""

from dbus_next import Message, MessageType
from dbus_next.aio import MessageBus

from lab.common import names
from lab.device.inside.bus import ADDRESS
from lab.device.inside.dbus_values import from_dbus
from lab.device.inside.part import Report, verb

_BUS = "org.freedesktop.DBus"
_RULES = [f"type='method_call',interface='{names.DAEMON_INTERFACE}'", "type='error'"]


class Monitor:
    def __init__(self, report: Report) -> None:
        self._report = report
        self._bus: MessageBus | None = None

    @verb
    async def start(self) -> None:
        """From now on every call of the daemon's methods and every D-Bus error is an event."""
        self._bus = await MessageBus(bus_address=ADDRESS).connect()
        self._bus.add_message_handler(self._on_message)
        reply = await self._bus.call(Message(
            destination=_BUS, path="/org/freedesktop/DBus", interface=f"{_BUS}.Monitoring",
            member="BecomeMonitor", signature="asu", body=[_RULES, 0]))
        if reply.message_type == MessageType.ERROR:
            raise RuntimeError(f"the bus can't be watched: {reply.body}")

    async def come_back(self) -> None:
        """On a new bus, if the old one was watched."""
        if self._bus:
            await self.start()

    def _on_message(self, message: Message) -> bool:
        if message.message_type == MessageType.METHOD_CALL:
            self._report("bus.call", sender=message.sender, method=message.member,
                         signature=message.signature, arguments=from_dbus(message.body))
        elif message.message_type == MessageType.ERROR:
            text = message.body[0] if message.signature.startswith("s") else ""
            self._report("bus.error", sender=message.sender, destination=message.destination,
                         error=message.error_name, message=text)
        # A monitor must not answer; only the reply to its one call is its own.
        return message.message_type in (MessageType.METHOD_CALL, MessageType.SIGNAL)
