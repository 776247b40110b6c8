"""One side of a link of JSON lines: it sends numbered commands, and receives replies with the same
numbers, and events."""

import itertools
import json
import threading
from collections.abc import Callable
from concurrent.futures import Future
from concurrent.futures import TimeoutError as FutureTimeout
from typing import Any

from lab.common import deadlines
from lab.common.errors import LabError
from lab.device.events import EventLog
from lab.device.values import from_json, to_json


class Exchange:
    """Adds received events to an event log and returns to each command its reply; safe to use from
    any thread."""

    def __init__(self, event_log: EventLog) -> None:
        self._event_log = event_log
        self._numbers = itertools.count(1)
        self._lock = threading.Lock()
        self._replies: dict[int, Future] = {}
        # Why the link has ended; empty until then.
        self._ended = ""

    def call(self, send: Callable[[bytes], Any], verb: str, arguments: dict[str, Any],
             deadline: float) -> Any:
        """`send` gets one whole line; calls of it never overlap."""
        deadline = deadlines.scaled(deadline)
        number = next(self._numbers)
        line = json.dumps({"number": number, "verb": verb, "arguments": to_json(arguments)})
        reply: Future = Future()
        with self._lock:
            if self._ended:
                raise LabError(f"{verb}: {self._ended}")
            self._replies[number] = reply
            send(line.encode() + b"\n")
        try:
            return reply.result(deadline)
        except FutureTimeout:
            late = f"{verb}: no reply within {deadline:g} s\n{self._event_log.text()}"
            raise LabError(late) from None

    def receive(self, line: bytes) -> None:
        message = json.loads(line)
        if "kind" in message:
            self._event_log.add(message["time"], message["kind"], from_json(message["details"]))
            return
        with self._lock:
            reply = self._replies.pop(message["number"])
        if "error" in message:
            reply.set_exception(LabError(message["error"]))
        else:
            reply.set_result(from_json(message["result"]))

    def end(self, why: str) -> None:
        """Fails all pending commands, and every later one."""
        with self._lock:
            self._ended = why
            unanswered = list(self._replies.values())
            self._replies.clear()
        for reply in unanswered:
            reply.set_exception(LabError(why))
        self._event_log.end(why)
