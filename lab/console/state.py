"""The state of a device, derived from its events, in plain JSON."""

import json
from collections.abc import Callable
from typing import Any

from lab.common import names
from lab.common.names import Endpoint, Host
from lab.device.events import Event
from lab.device.status import PREFIX, Status, parse
from lab.device.values import plain

_TOKENS = (Endpoint.REFRESH, Endpoint.EXCHANGE)
_PROGRAMS = {names.LARDER_SERVICE: "larder", names.TLSDATE_SERVICE: "tlsdate"}
HOSTS = {"identity": Host.IDENTITY, "monitoring": Host.MONITORING}


class State:
    """`picture()` consists of JSON types and is all that the page needs."""

    def __init__(self, interval: int) -> None:
        self._up = {"bus": False, "daemon": False, "larder": False, "tlsdate": False,
                    "identity": True, "monitoring": True}
        self._exit_code: int | None = None
        self._interval = interval
        self._registered = True
        self._device_id = "device-0001"
        self._source = "network"
        self._time_known = False
        self._token = "none"
        # The latest state that the daemon set in Larder, if any.
        self._provisioned: bool | None = None
        # The latest status that the daemon published.
        self._status: Status = {}
        self._cycle: dict[str, Any] = {}
        self._last_check = 0.0
        self._points: dict[int, int] = {}
        self._counts = dict.fromkeys(
            ("cycles", "recorded", "uploaded", "logs", "requests", "flagged"), 0)
        self._load: dict[str, Any] | None = None
        self._answers: dict[str, str] = {}
        self._certificates = dict.fromkeys(HOSTS, "trusted")
        self._samples: dict[str, dict[str, int]] = {}

    def take(self, event: Event, faults: list[str], points: int = 0) -> None:
        """`faults` and `points` belong to the request if the event is one."""
        if event.kind == "cloud.request":
            self._on_request(event, faults, points)
        elif taker := _TAKERS.get(event.kind):
            taker(self, event)

    def is_up(self, program: str) -> bool:
        return self._up[program]

    def picture(self) -> dict[str, Any]:
        return {"up": dict(self._up), "exitCode": self._exit_code, "interval": self._interval,
                "registered": self._registered, "deviceId": self._device_id,
                "clock": {"source": self._source, "known": self._time_known},
                "token": self._token, "provisioned": bool(self._provisioned),
                "cycle": dict(self._cycle), "counts": dict(self._counts),
                "records": {kind: self._records(kind) for kind in ("points", "logs")},
                "load": self._load, "answers": dict(self._answers),
                "certificates": dict(self._certificates),
                "samples": {name: dict(sample) for name, sample in self._samples.items()},
                "next": self._next()}

    def _records(self, kind: str) -> dict[str, Any] | None:
        """The counters of the points or the logs; None before the daemon has published them."""
        if kind not in self._status:
            return None
        counts = dict(self._status[kind])
        shown = {key: counts.pop(key, 0) for key in ("recorded", "accepted", "pending",
                                                     "in_flight")}
        counts.pop("dropped_at", None)
        return shown | {"dropped": {why.replace("_", " "): count
                                    for why, count in counts.items() if count}}

    def _next(self) -> dict[str, Any] | None:
        """What prevents uploads, and the control that fixes it."""
        if not self._up["bus"]:
            return _step("The system bus is down.", "Start the bus", "program",
                         program="bus", action="start")
        if not self._up["daemon"]:
            return _step("The daemon is not running.", "Start the daemon", "program",
                         program="daemon", action="start")
        if self._provisioned is False and self._token == "none":
            return _step("The device has no credentials yet.", "Deliver a code", "deliver_code",
                         code="one-time-code")
        if self._token == "held" and not self._counts["recorded"]:
            return _step("Everything works, but nothing is recorded yet.", "Start a load", "load",
                         rate=4, metrics="ap/clients, ap/radio/utilization", labels="band=2g,5g",
                         seconds=120)
        return None

    # Each kind of event.

    def _on_bus(self, event: Event) -> None:
        self._up["bus"] = event.kind == "bus.started"
        if not self._up["bus"]:
            self._up |= dict.fromkeys(("larder", "tlsdate"), False)

    def _on_name(self, event: Event) -> None:
        if event["name"] in _PROGRAMS:
            self._up[_PROGRAMS[event["name"]]] = event["owned"]

    def _on_daemon(self, event: Event) -> None:
        self._up["daemon"] = event.kind == "daemon.started"
        self._token = "none"
        self._provisioned = None
        self._time_known = False
        self._status = {}
        self._exit_code = event.details.get("code")

    def _on_log(self, event: Event) -> None:
        if "Network time acquired" in event["text"]:
            self._time_known = True

    def _on_notice(self, event: Event) -> None:
        if event["text"].startswith(PREFIX):
            self._status = parse(event["text"].removeprefix(PREFIX))

    def _on_larder_call(self, event: Event) -> None:
        if event["method"] == "UpdateState":
            state = plain(event["arguments"][0]).get(names.CREDENTIALS_STATE, {})
            self._provisioned = state.get("_provisioned", self._provisioned)
        if event["method"] != "CheckDeviceRegistered":
            return
        if event.time - self._last_check > 0.5:
            self._counts["cycles"] += 1
            self._cycle = {"number": self._counts["cycles"], "at": event.time, "points": 0,
                           "outcome": "nothing to upload"}
        if event["outcome"] == "refused":
            self._cycle["outcome"] = "not registered"
        self._last_check = event.time

    def _on_call(self, event: Event) -> None:
        self._counts["recorded" if event["method"] == "RecordMetric" else "logs"] += 1

    def _on_request(self, event: Event, faults: list[str], points: int) -> None:
        self._counts["requests"] += 1
        self._counts["flagged"] += bool(faults)
        if event["endpoint"] in _TOKENS:
            self._token = "requested"
        elif event["endpoint"] == Endpoint.METRICS:
            self._points[event["number"]] = points
            self._cycle |= {"points": points, "outcome": "waiting for the answer"}

    def _on_answer(self, event: Event) -> None:
        broken = event.kind == "cloud.misbehaved"
        if event["endpoint"] in _TOKENS:
            self._token = "held" if not broken and _brings_token(event) else "none"
            return
        if not broken and event["status"] == 401:
            self._token = "expired"
        if event["endpoint"] == Endpoint.METRICS:
            points = self._points.pop(event["number"], 0)
            accepted = not broken and 200 <= event["status"] < 300
            self._counts["uploaded"] += points if accepted else 0
            self._cycle["outcome"] = event["act"] if broken else f"answered {event['status']}"

    def _on_sample(self, event: Event) -> None:
        if event["value"] is None:
            return
        value = event["value"]
        sample = self._samples.setdefault(
            event["name"], {"count": 0, "least": value, "most": value})
        sample |= {"count": sample["count"] + 1, "last": value,
                   "least": min(sample["least"], value), "most": max(sample["most"], value)}

    def _on_load(self, event: Event) -> None:
        started = event.kind == "load.started"
        self._load = {"rate": event["rate"], "seconds": event["seconds"]} if started else None

    def _on_done(self, event: Event) -> None:
        arguments = plain(event["arguments"])
        if taker := _CONTROLS.get(event["control"]):
            taker(self, **arguments)

    # Controls whose effect is not visible in events.

    def _register(self, device_id: str) -> None:
        self._registered, self._device_id = True, device_id

    def _unregister(self) -> None:
        self._registered, self._device_id = False, ""

    def _set_clock(self, source: str) -> None:
        self._source = source

    def _set_program(self, program: str, action: str) -> None:
        if program in HOSTS:
            self._up[program] = action == "start"

    def _set_answer(self, endpoint: str, act: str, status: int, delay: float,
                    times: int) -> None:
        behaviour = {"answer": f"{status}" + (f" after {delay:g} s" if delay else "")}.get(act, act)
        # Only an answer for all requests is a state.
        if not times:
            self._answers[endpoint] = behaviour

    def _behave(self, endpoint: str) -> None:
        if endpoint == "all":
            self._answers.clear()
        self._answers.pop(endpoint, None)

    def _set_certificate(self, host: str, kind: str) -> None:
        self._certificates[host] = kind

    def _set_interval(self, seconds: int) -> None:
        self._interval = seconds


def _step(text: str, press: str, control: str, **arguments: Any) -> dict[str, Any]:
    return {"text": text, "press": press, "control": control, "arguments": arguments}


def _brings_token(event: Event) -> bool:
    wanted = {"access_token"} | ({"refresh_token"} if event["endpoint"] == Endpoint.EXCHANGE
                                 else set())
    try:
        fields = json.loads(event["body"])
    except ValueError:
        return False
    return event["status"] < 400 and isinstance(fields, dict) and all(
        isinstance(fields.get(name), str) and fields[name] for name in wanted)


_TAKERS: dict[str, Callable[[State, Event], None]] = {
    "bus.started": State._on_bus, "bus.stopped": State._on_bus, "bus.name": State._on_name,
    "bus.call": State._on_call, "daemon.started": State._on_daemon,
    "daemon.exited": State._on_daemon, "daemon.log": State._on_log,
    "daemon.notify": State._on_notice,
    "larder.call": State._on_larder_call, "cloud.answer": State._on_answer,
    "cloud.misbehaved": State._on_answer, "statsd.sample": State._on_sample,
    "load.started": State._on_load, "load.ended": State._on_load, "console.done": State._on_done}
_CONTROLS: dict[str, Callable[..., None]] = {
    "register": State._register, "unregister": State._unregister, "clock": State._set_clock,
    "program": State._set_program, "answer": State._set_answer, "behave": State._behave,
    "certificate": State._set_certificate, "interval": State._set_interval}
