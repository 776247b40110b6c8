"""What the parts of a device share: how they report events, and which of their methods the outside
may call."""

import asyncio
import inspect
import json
import time
import traceback
from collections.abc import Callable
from typing import Any, Protocol

from lab.device.values import from_json, to_json


class Report(Protocol):
    """Sends an event to the outside, by its kind and details."""

    def __call__(self, kind: str, **details: Any) -> None: ...


def verb(method: Callable) -> Callable:
    """Allows calls of the method from outside, as the part's name, a dot and the method's name."""
    method.is_verb = True
    return method


def event_line(kind: str, details: dict[str, Any]) -> bytes:
    event = {"time": time.monotonic(), "kind": kind, "details": to_json(details)}
    return json.dumps(event).encode() + b"\n"


async def reply_to(command: dict[str, Any], part: Any) -> bytes:
    """Calls the verb of the part that a command names; the line to reply with."""
    reply = {"number": command["number"]}
    try:
        method = _verb_of(part, command["verb"].partition(".")[2])
        result = _call(method, from_json(command["arguments"]))
        if asyncio.iscoroutine(result):
            result = await result
        reply["result"] = to_json(result)
    except Exception as error:  # Any error is raised outside.
        where = "".join(traceback.format_tb(error.__traceback__)[-2:])
        reply["error"] = f"{command['verb']}: {type(error).__name__}: {error}\n{where}"
    return json.dumps(reply).encode() + b"\n"


def _verb_of(part: Any, name: str) -> Callable:
    # A verb may be declared in a base class and implemented in the part's own.
    if not any(getattr(vars(each).get(name), "is_verb", False) for each in type(part).__mro__):
        raise LookupError("not a verb")
    return getattr(part, name)


def _call(method: Callable, arguments: dict[str, Any]) -> Any:
    """All arguments are named on the link; variable positional ones are a list."""
    signature = inspect.signature(method)
    if unknown := arguments.keys() - signature.parameters.keys():
        raise TypeError(f"no such arguments: {', '.join(unknown)}")
    bound = inspect.BoundArguments(signature, arguments)
    return method(*bound.args, **bound.kwargs)
