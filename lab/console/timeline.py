"""Describes each event of a device in a line of text, for the page and for `--log`."""

import json
import re
from dataclasses import dataclass
from typing import Any

from lab.common import names
from lab.common.names import Endpoint
from lab.console.cycles import Cycles
from lab.console.records import points_of
from lab.device.events import Event
from lab.device.status import PREFIX, parse
from lab.device.values import plain

_LONGEST = 400
_LOG_LINE = re.compile(r"\S+ (?P<severity>[A-Z]+) \S+ (?P<where>\S+)\] (?P<text>.*)", re.DOTALL)
_SEVERITIES = {"INFO": "info", "WARNING": "warning", "ERROR": "error", "FATAL": "error"}
_PROGRAMS = {names.DAEMON_SERVICE: "The daemon", names.LARDER_SERVICE: "Larder",
             names.TLSDATE_SERVICE: "tlsdate"}
WHAT = {Endpoint.REFRESH: "token refresh", Endpoint.EXCHANGE: "code exchange",
        Endpoint.METRICS: "metrics", Endpoint.STRUCTURED_LOGS: "structured log",
        Endpoint.OFFLINE_LOGS: "offline log", Endpoint.UNKNOWN: "unknown request"}
_FAULTS = {"cut": "The connection was cut instead of an answer to",
           "garbage": "Bytes that are not HTTP were sent in answer to",
           "silence": "No answer was sent to"}


@dataclass(frozen=True)
class Line:
    """`category` is one of control, bus, cycle, https, log, device, self; `severity` of info,
    warning, error."""

    category: str
    text: str
    severity: str = "info"
    # The number of the request, if the line is about one.
    request: int | None = None
    # The page shows the lines with the same text here as one, until a line without such a text.
    fold: str = ""


class Timeline:
    """Describes the events of one device, in their order."""

    def __init__(self) -> None:
        self._cycles = Cycles()
        # The time of each unanswered request, by its number.
        self._asked: dict[int, float] = {}

    def lines(self, event: Event, faults: list[str]) -> list[Line]:
        """`faults` belong to the request if the event is one."""
        beginning = self._beginning(event)
        if event.kind == "larder.call":
            return [*beginning, _program_call("Larder", event)]
        if event.kind == "daemon.notify":
            return self._end(event)
        if event.kind == "tlsdate.call":
            return [_program_call("tlsdate", event)]
        if event.kind == "cloud.request":
            return [self._request(event, faults)]
        if event.kind in ("cloud.answer", "cloud.misbehaved"):
            return [self._answer(event)]
        timeline = _LINES.get(event.kind)
        return [timeline(event)] if timeline else []

    def _beginning(self, event: Event) -> list[Line]:
        if not self._cycles.begins(event):
            return []
        return [Line("cycle", f"Cycle {self._cycles.number} begins")]

    def _end(self, event: Event) -> list[Line]:
        """Of a cycle without requests."""
        if not event["text"].startswith(PREFIX):
            return []
        status = parse(event["text"].removeprefix(PREFIX))
        if not self._cycles.has_ticked(event, status):
            return []
        gate = self._cycles.closed_gate(status)
        return [Line("cycle", f"Cycle {self._cycles.number}: {gate}, nothing is uploaded",
                     "error")] if gate else []

    def _request(self, event: Event, faults: list[str]) -> Line:
        self._asked[event["number"]] = event.time
        text = f"→ {WHAT[Endpoint(event['endpoint'])]}{_load_of(event)}, {size(event['body'])}"
        if faults:
            return Line("https", f"{text}, INVALID: {faults[0]}", "error",
                        event["number"])
        return Line("https", text, request=event["number"])

    def _answer(self, event: Event) -> Line:
        what, number = WHAT[Endpoint(event["endpoint"])], event["number"]
        after = 1000 * (event.time - self._asked.pop(number, event.time))
        if event.kind == "cloud.misbehaved":
            return Line("https", f"← {_FAULTS[event['act']]} {what}", "error", number)
        severity = "info" if event["status"] < 300 else "warning"
        return Line("https", f"← {event['status']} for {what} after {after:.0f} ms", severity,
                    number)


def size(body: str) -> str:
    count = len(body.encode())
    return f"{count} B" if count < 1000 else f"{count / 1000:.1f} kB"


def severity_of(log_line: str) -> tuple[str, str]:
    """The severity and the text of a line of the daemon's log."""
    found = _LOG_LINE.fullmatch(log_line)
    if not found:
        return "info", log_line
    return _SEVERITIES.get(found["severity"], "info"), f"{found['text']}  ({found['where']})"


def _load_of(event: Event) -> str:
    if event["endpoint"] != Endpoint.METRICS:
        return ""
    points = points_of(event["body"])
    metrics = len({point["metric"] for point in points})
    return f": {_count(len(points), 'point')} of {_count(metrics, 'metric')}"


def _count(number: int, what: str) -> str:
    return f"{number} {what}{'' if number == 1 else 's'}"


def _short(value: Any) -> str:
    if isinstance(value, bytes):
        return f"{len(value)} bytes"
    if isinstance(value, str):
        return value
    return json.dumps(value, ensure_ascii=False, default=repr)


def _program_call(program: str, event: Event) -> Line:
    arguments = " ".join(_short(value) for value in plain(event["arguments"]) if value)
    text = f"{program}.{event['method']} {arguments}".rstrip()
    right = event["outcome"] == "answered"
    return Line("bus", text[:_LONGEST] + ("" if right else f" — {event['outcome']}"),
                "info" if right else "warning",
                fold=f"{program}.{event['method']} {event['outcome']}")


def _call(event: Event) -> Line:
    arguments = plain(event["arguments"])
    fold = f"{event['method']} ← {event['sender']}"
    if event["method"] == "RecordMetric" and event["signature"] == "sa{ss}v":
        name, labels, value = arguments
        shown = ",".join(f"{key}={label}" for key, label in labels.items())
        arguments = [f"{name}{{{shown}}}" if shown else name, value]
        fold = f"{event['method']} {name} ← {event['sender']}"
    text = f"{event['method']} {' '.join(_short(value) for value in arguments)}"
    return Line("bus", f"{text[:_LONGEST]} ← {event['sender']}", fold=fold)


def _bus_error(event: Event) -> Line:
    text = f"Error {event['error']}: {event['message']}"[:_LONGEST]
    return Line("bus", text, "warning", fold=text)


def _name(event: Event) -> Line:
    program = _PROGRAMS.get(event["name"], event["name"])
    verb = "is on the bus" if event["owned"] else "has left the bus"
    return Line("device", f"{program} {verb}", "info" if event["owned"] else "warning")


def _exit(event: Event) -> Line:
    return Line("device", f"The daemon has exited, code {event['code']}",
                "info" if event["code"] == 0 else "error")


def _log(event: Event) -> Line:
    severity, text = severity_of(event["text"])
    return Line("log", text[:_LONGEST], severity)


def _failed(event: Event) -> Line:
    return Line("control", f"{event['text']}: failed: {event['error']}", "error")


def _load_ended(event: Event) -> Line:
    return Line("device", f"The load has ended: {event['recorded']} points, "
                f"{event['failed']} not accepted", "warning" if event["failed"] else "info")


def _relay_closed(event: Event) -> Line:
    return Line("https", f"The connection to {event['host']} has ended: {event['sent']} bytes sent,"
                f" {event['received']} received")


_LINES = {
    "device.up": lambda event: Line("device", "The device is up: bus, Larder, tlsdate, cloud"),
    "bus.started": lambda event: Line("device", "The system bus has started"),
    "bus.stopped": lambda event: Line("device", "The system bus has stopped", "error"),
    "bus.name": _name,
    "bus.call": _call,
    "bus.error": _bus_error,
    "daemon.started": lambda event: Line("device", f"The daemon has started, pid {event['pid']}"),
    "daemon.exited": _exit,
    "daemon.log": _log,
    "file.written": lambda event: Line("device", f"{event['path']} written"),
    "file.deleted": lambda event: Line("device", f"{event['path']} deleted"),
    "statsd.sample": lambda event: Line("self", f"{event['name']} {event['value']}"),
    "load.started": lambda event: Line(
        "device", f"A load of {event['rate']:g} points/s for {event['seconds']:g} s has started"),
    "load.ended": _load_ended,
    "relay.opened": lambda event: Line("https", f"A connection to {event['host']}"),
    "relay.closed": _relay_closed,
    "relay.failed": lambda event: Line(
        "https", f"No connection to {event['host']}: {event['error']}", "error"),
    "console.control": lambda event: Line("control", event["text"]),
    "console.failed": _failed,
}
