"""Between the lab's values and the D-Bus library's, and calls made of them."""

from typing import Any

from dbus_next import Message
from dbus_next import Variant as DBusVariant

from lab.device.values import Variant


def to_dbus(value: Any) -> Any:
    if isinstance(value, Variant):
        return DBusVariant(value.signature, to_dbus(value.value))
    if isinstance(value, dict):
        return {to_dbus(key): to_dbus(member) for key, member in value.items()}
    if isinstance(value, (list, tuple)):
        return [to_dbus(member) for member in value]
    return value


def from_dbus(value: Any) -> Any:
    if isinstance(value, DBusVariant):
        return Variant(value.signature, from_dbus(value.value))
    if isinstance(value, dict):
        return {from_dbus(key): from_dbus(member) for key, member in value.items()}
    if isinstance(value, (list, tuple)):
        return [from_dbus(member) for member in value]
    return value


def signal(path: str, interface: str, member: str, signature: str, values: list) -> Message:
    return Message.new_signal(path, interface, member, signature, to_dbus(values))
