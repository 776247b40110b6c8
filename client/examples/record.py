#!/usr/bin/python3
"""Records a metric, a structured and an offline log from Python, by dbus-next (the Debian package
python3-dbus-next).

Each call waits for its reply. With many records, send most calls with the flag
MessageFlag.NO_REPLY_EXPECTED, by bus.send, but await the reply to every 64th: it confirms all
before it. More than 128 calls that wait for a reply at once are rejected by the bus.

A metric's value must be a boolean "b", an integer such as "i" or "x", a double "d" or a string "s":
any other type aborts the daemon.
"""

import asyncio
import sys

try:
    from dbus_next import BusType, ErrorType, Message, MessageType, Variant
    from dbus_next.aio import MessageBus
except ModuleNotFoundError as missing:
    sys.exit(f"record.py: {sys.executable} has no module {missing.name}: install the Debian "
             "package python3-dbus-next and run this with /usr/bin/python3, or install dbus-next "
             "for this Python (pip install dbus-next)")

TYPE = "type.example/ap.Example"
TIMEOUT_SECONDS = 5


class RecordError(Exception):
    """A message for the user."""


async def record(bus: MessageBus, method: str, signature: str, *arguments: object) -> None:
    call = Message(destination="org.quintara.ap.Pelmor", path="/org/quintara/ap/Pelmor/Manager",
                   interface="org.quintara.ap.Pelmor.Manager", member=method,
                   signature=signature, body=list(arguments))
    reply = await asyncio.wait_for(bus.call(call), TIMEOUT_SECONDS)
    if reply.message_type == MessageType.ERROR:
        if reply.error_name == ErrorType.SERVICE_UNKNOWN.value:
            raise RecordError("the telemetry daemon is not running")
        raise RecordError(f"{method}: {reply.error_name}: {reply.body[0]}")


async def main() -> None:
    bus = await MessageBus(bus_type=BusType.SYSTEM).connect()
    await record(bus, "RecordMetric", "sa{ss}v", "example/utilization",
                 {"band": "5g", "language": "python"}, Variant("d", 0.25))
    await record(bus, "RecordStructuredData", "say", TYPE, b"structured from python")
    await record(bus, "RecordOfflineData", "say", TYPE, b"offline from python")
    print("Recorded")


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except (RecordError, OSError, asyncio.TimeoutError) as error:
        sys.exit(f"record.py: {error or 'no reply in time'}")
