"""What the parts of a device share: how they tell what happens, and which of their methods the
outside may call."""

import json
import time
from collections.abc import Callable
from typing import Any, Protocol

from lab.device.values import to_json


class Tell(Protocol):
    """Tells the outside of an event, by its kind and details."""

    def __call__(self, kind: str, **details: Any) -> None: ...


def verb(method: Callable) -> Callable:
    """Lets the outside call the method, by the part's name, a dot and the method's name."""
    method.is_verb = True
    return method


def event_line(kind: str, details: dict[str, Any]) -> bytes:
    event = {"time": time.monotonic(), "kind": kind, "details": to_json(details)}
    return json.dumps(event).encode() + b"\n"
