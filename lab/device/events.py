"""The events of a device, in their order.

Kinds: "device.up"; "bus.started"; "bus.stopped"; "bus.name" (name, owned); "larder.call" and
"tlsdate.call" (method, interface, path, arguments, outcome); "cloud.request", "cloud.answer" and,
in place of an answer, "cloud.misbehaved" (number, endpoint, …); "daemon.started", "daemon.log"
(text), "daemon.notify" (text), "daemon.exited" (code); "statsd.sample" (text, name, value);
"syslog.line" (text); "file.written" and "file.deleted" (path); after `Device.watch_bus`, "bus.call"
(sender, method, signature, arguments) and "bus.error" (sender, destination, error, message);
"load.started" (rate, seconds) and "load.ended" (recorded, failed); with a real cloud,
"relay.opened" (host), "relay.closed" (host, sent, received) and "relay.failed" (host, error).
"""

import json
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any, TypeVar

from lab.common import deadlines
from lab.common.errors import LabError
from lab.device.values import plain

DEFAULT_DEADLINE = 10.0
_SHOWN_EVENTS = 40
_SHOWN_LOG_LINES = 40
_SHOWN_WIDTH = 400

T = TypeVar("T")


@dataclass(frozen=True)
class Event:
    number: int
    # Seconds since the start of the device.
    time: float
    kind: str
    details: dict[str, Any]

    def __getitem__(self, name: str) -> Any:
        return self.details[name]

    def matches(self, kind: str, details: dict[str, Any]) -> bool:
        return self.kind == kind and all(
            name in self.details and self.details[name] == value for name, value in details.items())

    def __str__(self) -> str:
        details = " ".join(f"{name}={_shown(value)}" for name, value in self.details.items())
        return f"{self.time:8.3f} s  {self.kind}  {details}"[:_SHOWN_WIDTH]


def _shown(value: Any) -> str:
    return json.dumps(plain(value), ensure_ascii=False, default=repr)


class EventLog:
    """The events of one device; safe to use from any thread."""

    def __init__(self) -> None:
        self._events: list[Event] = []
        self._changed = threading.Condition()
        self._listeners: list[Callable[[Event], None]] = []
        self._began = time.monotonic()
        # When this log began, in seconds since the Unix epoch.
        self.began = time.time()
        self._ended: str | None = None
        self._most: int | None = None
        self._forgotten = 0

    def remember(self, most: int) -> None:
        """From now on keeps at least the latest `most` events, and at most twice as many."""
        self._most = most

    def add(self, at: float, kind: str, details: dict[str, Any]) -> None:
        """`at` is a time of the monotonic clock."""
        with self._changed:
            number = self._forgotten + len(self._events)
            event = Event(number, at - self._began, kind, details)
            self._events.append(event)
            self._forget()
            listeners = list(self._listeners)
            self._changed.notify_all()
        for listener in listeners:
            listener(event)

    def _forget(self) -> None:
        if self._most and len(self._events) > 2 * self._most:
            self._forgotten += len(self._events) - self._most
            del self._events[:-self._most]

    def end(self, reason: str) -> None:
        """No event will follow: every wait fails at once."""
        with self._changed:
            self._ended = self._ended or reason
            self._changed.notify_all()

    def listen(self, listener: Callable[[Event], None]) -> None:
        """`listener` gets every later event, on the device's own thread."""
        with self._changed:
            self._listeners.append(listener)

    def events(self, kind: str | None = None, after: Event | None = None,
               **details: Any) -> list[Event]:
        with self._changed:
            first = max(0, after.number + 1 - self._forgotten) if after else 0
            return [event for event in self._events[first:]
                    if kind is None or event.matches(kind, details)]

    def last(self) -> Event | None:
        with self._changed:
            return self._events[-1] if self._events else None

    def wait_until(self, condition: Callable[[], T], what: str,
                   deadline: float = DEFAULT_DEADLINE) -> T:
        """Waits until `condition` is true, evaluating it at each event; returns its value."""
        deadline = deadlines.scaled(deadline)
        due = time.monotonic() + deadline
        with self._changed:
            while not (found := condition()):
                left = due - time.monotonic()
                if self._ended or left <= 0:
                    reason = self._ended or f"not within {deadline:g} s"
                    raise LabError(f"Waited for {what}: {reason}\n{self.text()}")
                self._changed.wait(left)
            return found

    def wait_for(self, kind: str | Callable[[Event], bool], *, after: Event | None = None,
                 count: int = 1, deadline: float = DEFAULT_DEADLINE, what: str = "",
                 **details: Any) -> Event:
        """The `count`th event of a kind with these details (or that satisfies a predicate) since
        `after`, or since the start of the device. Returns at once if it has happened already."""
        def find() -> Event | None:
            if isinstance(kind, str):
                found = self.events(kind, after, **details)
            else:
                found = [event for event in self.events(after=after) if kind(event)]
            return found[count - 1] if len(found) >= count else None

        wanted = what or f"{kind} {details or ''}"
        if count > 1:
            wanted += f" ({count} times)"
        return self.wait_until(find, wanted, deadline)

    def log_lines(self) -> list[str]:
        return [event["text"] for event in self.events("daemon.log")]

    def text(self) -> str:
        """The latest events and the daemon's log, for failure messages."""
        events = [event for event in self.events() if event.kind != "daemon.log"]
        return "\n".join(["Latest events:"] + [f"  {event}" for event in events[-_SHOWN_EVENTS:]] +
                         ["The daemon's log:"] +
                         [f"  {line}" for line in self.log_lines()[-_SHOWN_LOG_LINES:]])
