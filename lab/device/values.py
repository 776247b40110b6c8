"""D-Bus values on both sides of the sandbox, and their form on the JSON link between them.

Plain Python values pass unchanged; a `Variant` states its D-Bus type; bytes are an array of bytes.
"""

import base64
from dataclasses import dataclass
from typing import Any

_VARIANT = "$variant"
_BYTES = "$bytes"
_PAIRS = "$pairs"


@dataclass(frozen=True)
class Variant:
    """A value that carries its D-Bus signature."""

    signature: str
    value: Any


def boolean(value: bool) -> Variant:
    return Variant("b", value)


def byte(value: int) -> Variant:
    return Variant("y", value)


def int16(value: int) -> Variant:
    return Variant("n", value)


def uint16(value: int) -> Variant:
    return Variant("q", value)


def int32(value: int) -> Variant:
    return Variant("i", value)


def uint32(value: int) -> Variant:
    return Variant("u", value)


def int64(value: int) -> Variant:
    return Variant("x", value)


def uint64(value: int) -> Variant:
    return Variant("t", value)


def double(value: float) -> Variant:
    return Variant("d", value)


def string(value: str) -> Variant:
    return Variant("s", value)


def object_path(value: str) -> Variant:
    return Variant("o", value)


def variant_of(value: Any) -> Variant:
    """A variant of the D-Bus type nearest to a plain value; an int is the narrowest of i, x, t."""
    if isinstance(value, Variant):
        return value
    if isinstance(value, bool):
        return boolean(value)
    if isinstance(value, int):
        if -2**31 <= value < 2**31:
            return int32(value)
        return int64(value) if value < 2**63 else uint64(value)
    if isinstance(value, float):
        return double(value)
    if isinstance(value, str):
        return string(value)
    if isinstance(value, (bytes, bytearray)):
        return Variant("ay", bytes(value))
    if isinstance(value, dict):
        return Variant("a{sv}", variants_of(value))
    raise TypeError(f"no D-Bus type for {value!r}: use a Variant")


def variants_of(values: dict[str, Any]) -> dict[str, Variant]:
    return {key: variant_of(value) for key, value in values.items()}


def plain(value: Any) -> Any:
    """The value without its D-Bus types."""
    if isinstance(value, Variant):
        return plain(value.value)
    if isinstance(value, dict):
        return {plain(key): plain(member) for key, member in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(member) for member in value]
    return value


def to_json(value: Any) -> Any:
    if isinstance(value, Variant):
        return {_VARIANT: value.signature, "value": to_json(value.value)}
    if isinstance(value, (bytes, bytearray)):
        return {_BYTES: base64.b64encode(value).decode()}
    if isinstance(value, dict):
        if all(isinstance(key, str) and not key.startswith("$") for key in value):
            return {key: to_json(member) for key, member in value.items()}
        return {_PAIRS: [[to_json(key), to_json(member)] for key, member in value.items()]}
    if isinstance(value, (list, tuple)):
        return [to_json(member) for member in value]
    return value


def from_json(value: Any) -> Any:
    if isinstance(value, list):
        return [from_json(member) for member in value]
    if not isinstance(value, dict):
        return value
    if _VARIANT in value:
        return Variant(value[_VARIANT], from_json(value["value"]))
    if _BYTES in value:
        return base64.b64decode(value[_BYTES])
    if _PAIRS in value:
        return {from_json(key): from_json(member) for key, member in value[_PAIRS]}
    return {key: from_json(member) for key, member in value.items()}
