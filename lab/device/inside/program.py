"""The base of the simulated programs on the bus.

It handles method calls at the level of messages, so that any of them can be rejected, delayed, left
unanswered or answered wrongly."""

import asyncio
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

from dbus_next import Message, MessageType
from dbus_next.aio import MessageBus

from lab.device import verbs
from lab.device.inside.dbus_values import from_dbus, signal, to_dbus
from lab.device.inside.part import Report
from lab.device.inside.reporter import Reporter

_PEER = "org.freedesktop.DBus.Peer"
_UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"

# A right answer: its signature and its values.
Answer = tuple[str, list]


class Refusal(Exception):
    """A D-Bus error instead of an answer."""

    def __init__(self, name: str, message: str) -> None:
        super().__init__(message)
        self.name = name
        self.message = message


@dataclass
class Behaviour:
    """How a method differs from its right answer."""

    outcome: str
    # For how many more calls; None for all.
    times: int | None
    make: Callable[[], Answer] | None = None
    delay: float = 0


class SimulatedProgram(verbs.SimulatedProgram):
    # Set by each program: its label in the event log, and its name on the bus.
    label: str
    service: str

    def __init__(self, report: Report, reporter: Reporter) -> None:
        self._report = report
        self._reporter = reporter
        self._bus: MessageBus | None = None
        self._behaviours: dict[str, Behaviour] = {}

    def answer(self, message: Message) -> Answer:
        """The right answer to a call; raises a `Refusal` if there is none."""
        raise NotImplementedError

    async def start(self) -> None:
        if self._bus:
            raise RuntimeError(f"{self.service} runs already")
        bus = await self._reporter.join()
        bus.add_message_handler(lambda message: self._on_message(bus, message))
        self._bus = bus
        await bus.request_name(self.service)
        await self._reporter.wait_for_name(self.service, owned=True)

    async def stop(self) -> None:
        bus, self._bus = self._bus, None
        if bus:
            bus.disconnect()
            await self._reporter.wait_for_name(self.service, owned=False)

    async def come_back(self) -> None:
        """Connects to the new bus if the program ran on the old one."""
        if self._bus:
            self._bus = None
            await self.start()

    def refuse(self, method: str, error: str, message: str, times: int | None) -> None:
        def make() -> Answer:
            raise Refusal(error, message)
        self._behaviours[method] = Behaviour("refused", times, make)

    def delay(self, method: str, seconds: float, times: int | None) -> None:
        self._behaviours[method] = Behaviour("delayed", times, delay=seconds)

    def never_answer(self, method: str, times: int | None) -> None:
        self._behaviours[method] = Behaviour("unanswered", times)

    def answer_with(self, method: str, signature: str, *values: Any,
                    times: int | None = None) -> None:
        self._behaviours[method] = Behaviour("answered wrongly", times,
                                             lambda: (signature, list(values)))

    def behave(self, method: str | None) -> None:
        if method is None:
            self._behaviours.clear()
        else:
            self._behaviours.pop(method, None)

    def emit(self, path: str, interface: str, member: str, signature: str, *values: Any) -> None:
        """Sends a signal if the program runs."""
        if self._bus:
            self._bus.send(signal(path, interface, member, signature, list(values)))

    def _on_message(self, bus: MessageBus, message: Message) -> bool:
        if message.message_type != MessageType.METHOD_CALL or message.interface == _PEER:
            return False
        behaviour = self._next_behaviour(message.member)
        self._report(f"{self.label}.call", method=message.member, interface=message.interface,
                     path=message.path, arguments=from_dbus(message.body),
                     outcome=behaviour.outcome)
        if behaviour.outcome == "delayed":
            asyncio.get_running_loop().call_later(behaviour.delay, self._reply, bus, message,
                                                  behaviour)
        elif behaviour.outcome != "unanswered":
            self._reply(bus, message, behaviour)
        return True

    def _next_behaviour(self, method: str) -> Behaviour:
        behaviour = self._behaviours.get(method)
        if not behaviour:
            return Behaviour("answered", None)
        if behaviour.times is not None:
            behaviour.times -= 1
            if behaviour.times <= 0:
                del self._behaviours[method]
        return behaviour

    def _reply(self, bus: MessageBus, message: Message, behaviour: Behaviour) -> None:
        try:
            signature, values = behaviour.make() if behaviour.make else self.answer(message)
            reply = Message.new_method_return(message, signature, to_dbus(values))
        except Refusal as refusal:
            reply = Message.new_error(message, refusal.name, refusal.message)
        if bus is self._bus:  # Otherwise the program has stopped meanwhile.
            bus.send(reply)

    def unknown(self, message: Message) -> Refusal:
        return Refusal(_UNKNOWN_METHOD, f"no {message.interface}.{message.member} here")
