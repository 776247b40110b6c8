"""Turns a device's events into the data of the console: lines, points, logs, requests, the state.

A dedicated thread processes the events, so that the device never waits; everything else is safe to
use from any thread. Only the latest data are kept.
"""

import queue
import threading
from collections import OrderedDict, deque
from collections.abc import Callable
from dataclasses import asdict
from typing import Any, Generic, TypeVar

from lab.common.names import Endpoint
from lab.console.masks import Masks
from lab.console.records import log_of, points_of
from lab.console.state import State
from lab.console.timeline import Line, Timeline
from lab.device import api
from lab.device.events import Event, EventLog
from lab.device.programs import Request

KEPT_LINES = 10_000
_KEPT_POINTS = 10_000
_KEPT_LOGS = 200
_KEPT_REQUESTS = 500

T = TypeVar("T")
Listener = Callable[[list[dict[str, Any]]], None]


class Latest(Generic[T]):
    """The latest items of a stream, each with its position in the whole stream."""

    def __init__(self, most: int) -> None:
        self._items: deque[T] = deque(maxlen=most)
        self.count = 0

    def add(self, item: T) -> None:
        self._items.append(item)
        self.count += 1

    def since(self, place: int) -> list[T]:
        """The items from the position on, as far as they are still kept."""
        new = min(self.count - place, len(self._items))
        return [self._items[i] for i in range(len(self._items) - new, len(self._items))]


class Feed:
    """The console's data of one device."""

    def __init__(self, event_log: EventLog, interval: int) -> None:
        self.masks = Masks()
        self.lines: Latest[dict[str, Any]] = Latest(KEPT_LINES)
        self.points: Latest[dict[str, Any]] = Latest(_KEPT_POINTS)
        self.logs: Latest[dict[str, Any]] = Latest(_KEPT_LOGS)
        self._began = event_log.began
        self._state = State(interval)
        self._timeline = Timeline()
        self._requests: OrderedDict[int, dict[str, Any]] = OrderedDict()
        self._listeners: list[Listener] = []
        self._lock = threading.Lock()
        # Besides events: a `threading.Event` to set when it is reached, and None for the end.
        self._queue: queue.SimpleQueue[Event | threading.Event | None] = queue.SimpleQueue()
        event_log.listen(self._queue.put)
        self._thread = threading.Thread(target=self._run, name="feed", daemon=True)
        self._thread.start()

    def listen(self, listener: Listener) -> None:
        """`listener` gets the new lines after each event, on the feed's thread."""
        with self._lock:
            self._listeners.append(listener)

    def settle(self) -> None:
        """Returns when all events until now are processed."""
        reached = threading.Event()
        self._queue.put(reached)
        reached.wait()

    def close(self) -> None:
        """Returns when all events are processed; no method may be called after it."""
        self._queue.put(None)
        self._thread.join()

    def is_up(self, program: str) -> bool:
        with self._lock:
            return self._state.is_up(program)

    def request(self, number: int) -> dict[str, Any] | None:
        """A request and its answer, masked; None if it is unknown or no longer kept."""
        with self._lock:
            return self._requests.get(number)

    def news(self, places: dict[str, int]) -> dict[str, Any]:
        """The state, and the items since these positions in the streams, which it advances."""
        with self._lock:
            answer = {"state": self._state.picture() | {"began": self._began}}
            for name in ("lines", "points", "logs"):
                stream = getattr(self, name)
                answer[name] = stream.since(places.get(name, 0))
                places[name] = stream.count
        return answer

    def _run(self) -> None:
        while event := self._queue.get():
            if isinstance(event, threading.Event):
                event.set()
                continue
            faults = self._faults(event)
            with self._lock:
                lines = self._take(event, faults)
                listeners = list(self._listeners)
            for listener in listeners:
                listener(lines)

    def _faults(self, event: Event) -> list[str]:
        if event.kind != "cloud.request":
            return []
        return api.of_the_cloud().faults(Request.of(event))

    def _take(self, event: Event, faults: list[str]) -> list[dict[str, Any]]:
        self.masks.learn_from(event)
        points = self._note_request(event, faults) if event.kind == "cloud.request" else 0
        if event.kind in ("cloud.answer", "cloud.misbehaved"):
            self._note_answer(event)
        self._state.take(event, faults, points)
        return [self._add(event, line) for line in self._timeline.lines(event, faults)]

    def _add(self, event: Event, line: Line) -> dict[str, Any]:
        entry = asdict(line) | {"number": self.lines.count, "at": self._at(event),
                                "text": self.masks.text(line.text),
                                "fold": self.masks.text(line.fold)}
        self.lines.add(entry)
        return entry

    def _at(self, event: Event) -> float:
        return round(self._began + event.time, 3)

    def _note_request(self, event: Event, faults: list[str]) -> int:
        request = Request.of(event)
        content_type = request.headers.get("content-type", "")
        is_metrics = request.endpoint == Endpoint.METRICS
        log = log_of(request.endpoint, request.body)
        self._requests[request.number] = {
            "number": request.number, "at": self._at(event), "endpoint": request.endpoint,
            "method": request.method,
            "url": self.masks.text(f"https://{request.host}{request.path}"),
            "headers": self.masks.headers(event["headers"]),
            "body": self.masks.body(request.body, content_type),
            "faults": [self.masks.text(fault) for fault in faults],
            "points": points_of(self.masks.text(request.body)) if is_metrics else [],
            "log": log and {name: self.masks.text(text) for name, text in log.items()},
            "answer": None}
        if len(self._requests) > _KEPT_REQUESTS:
            self._requests.popitem(last=False)
        return len(self._requests[request.number]["points"])

    def _note_answer(self, event: Event) -> None:
        request = self._requests.get(event["number"])
        if not request:
            return
        after = round(1000 * (self._at(event) - request["at"]))
        if event.kind == "cloud.misbehaved":
            request["answer"] = {"act": event["act"], "after": after}
            return
        request["answer"] = {"status": event["status"], "after": after,
                             "body": self.masks.body(event["body"])}
        if 200 <= event["status"] < 300:
            self._note_accepted(request)

    def _note_accepted(self, request: dict[str, Any]) -> None:
        for point in request["points"]:
            self.points.add(point)
        if request["log"]:
            self.logs.add(request["log"] | {"at": request["at"], "request": request["number"]})
