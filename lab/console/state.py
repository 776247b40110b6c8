"""The state of a device, derived from its events, in plain JSON."""

from collections.abc import Callable
from typing import Any

from lab.common import names
from lab.common.names import Endpoint, Host
from lab.console.cycles import Cycles
from lab.console.gates import next_step
from lab.device.events import Event
from lab.device.status import PREFIX, Status, parse
from lab.device.values import plain

# The daemon's timeout of a request, in seconds.
_LATEST_ANSWER = 10
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
        # The requests for tokens that have no answer yet.
        self._asked: set[int] = set()
        # The latest status that the daemon published.
        self._status: Status = {}
        self._cycles = Cycles()
        self._cycle: dict[str, Any] = {}
        # What ended the latest cycle before its requests.
        self._closed = ""
        self._points: dict[int, int] = {}
        self._counts = dict.fromkeys(
            ("cycles", "recorded", "uploaded", "logs", "requests", "flagged"), 0)
        self._load: dict[str, Any] | None = None
        self._answers: dict[str, str] = {}
        # The endpoints whose answers the daemon cannot use.
        self._faults: set[str] = set()
        self._certificates = dict.fromkeys(HOSTS, "trusted")
        self._samples: dict[str, dict[str, int]] = {}

    def take(self, event: Event, faults: list[str], points: int = 0) -> None:
        """`faults` and `points` belong to the request if the event is one."""
        if self._cycles.begins(event):
            self._begin_cycle(event)
        if event.kind == "cloud.request":
            self._on_request(event, faults, points)
        elif taker := _TAKERS.get(event.kind):
            taker(self, event)

    def is_up(self, program: str) -> bool:
        return self._up[program]

    def picture(self) -> dict[str, Any]:
        picture = {
            "up": dict(self._up), "exitCode": self._exit_code, "interval": self._interval,
            "registered": self._registered, "deviceId": self._device_id,
            "clock": {"source": self._source, "known": self._gate("network_time") is True},
            "token": self._token(), "provisioned": self._gate("refresh_token"),
            "cycle": dict(self._cycle), "counts": dict(self._counts),
            "records": {kind: self._records(kind, result)
                        for kind, result in (("points", "metrics"), ("logs", "log"))},
            "results": {kind: self._result(kind) for kind in ("metrics", "log")},
            "load": self._load, "answers": dict(self._answers), "faults": sorted(self._faults),
            "certificates": dict(self._certificates),
            "samples": {name: dict(sample) for name, sample in self._samples.items()}}
        return picture | {"next": next_step(picture)}

    def _gate(self, name: str) -> Any:
        """True or False; None before the daemon has published it."""
        return self._status.get("gates", {}).get(name)

    def _token(self) -> str:
        if self._gate("access_token"):
            return "held"
        if self._asked:
            return "requested"
        is_expired = self._status.get("metrics", {}).get("status") == 401
        return "expired" if is_expired and self._gate("refresh_token") else "none"

    def _result(self, kind: str) -> dict[str, Any]:
        """The result of the last request with points or with a log."""
        result = self._status.get(kind, {})
        if "status" in result:
            return {"failed": result["status"] // 100 != 2, "text": f"answered {result['status']}"}
        return {"failed": bool(result), "text": f"no answer, {result['error']}" if result else ""}

    def _records(self, kind: str, request: str) -> dict[str, Any] | None:
        """The counters of the points or the logs; None before the daemon has published them."""
        if kind not in self._status:
            return None
        counts = dict(self._status[kind])
        shown = {key: counts.pop(key, 0) for key in ("recorded", "accepted", "pending",
                                                     "in_flight")}
        counts.pop("dropped_at", None)
        result = self._result(request)
        return shown | {"dropped": {why.replace("_", " "): count
                                    for why, count in counts.items() if count},
                        # Why pending records were not accepted.
                        "held": self._closed or (result["text"] if result["failed"] else "")}

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
        self._asked.clear()
        self._status = {}
        self._closed = ""
        self._exit_code = event.details.get("code")

    def _on_notice(self, event: Event) -> None:
        if not event["text"].startswith(PREFIX):
            return
        previous, self._status = self._status, parse(event["text"].removeprefix(PREFIX))
        if self._cycles.has_ticked(event, self._status):
            self._end_tick(event)
        if self._status.get("metrics") != previous.get("metrics"):
            result = self._result("metrics")
            self._cycle |= {"outcome": result["text"].partition(",")[0],
                            "level": "bad" if result["failed"] else "good"}

    def _begin_cycle(self, event: Event) -> None:
        self._counts["cycles"] = self._cycles.number
        self._cycle |= {"number": self._cycles.number, "at": event.time}

    def _end_tick(self, event: Event) -> None:
        if self._cycle.get("number") != self._cycles.number:
            self._begin_cycle(event)
        outcome, level = self._cycles.closed_gate(self._status), "bad"
        self._closed = outcome
        if not outcome:
            is_sent = self._status["points"].get("in_flight")
            outcome = "waiting for the answer" if is_sent else "nothing to upload"
            # A failure is shown until a later request succeeds.
            level = "bad" if is_sent and self._result("metrics")["failed"] else "idle"
        self._cycle |= {"outcome": outcome, "level": level}

    def _on_call(self, event: Event) -> None:
        self._counts["recorded" if event["method"] == "RecordMetric" else "logs"] += 1

    def _on_request(self, event: Event, faults: list[str], points: int) -> None:
        self._counts["requests"] += 1
        self._counts["flagged"] += bool(faults)
        if event["endpoint"] in _TOKENS:
            self._asked.add(event["number"])
        elif event["endpoint"] == Endpoint.METRICS:
            self._points[event["number"]] = points

    def _on_answer(self, event: Event) -> None:
        self._asked.discard(event["number"])
        points = self._points.pop(event["number"], 0)
        if event.kind == "cloud.answer" and 200 <= event["status"] < 300:
            self._counts["uploaded"] += points

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
        if times:
            return
        self._behave(endpoint)
        self._answers[endpoint] = behaviour
        if act != "answer" or status >= 300 or delay >= _LATEST_ANSWER:
            self._faults.add(endpoint)

    def _behave(self, endpoint: str) -> None:
        for one in list(self._answers) if endpoint == "all" else [endpoint]:
            self._answers.pop(one, None)
            self._faults.discard(one)

    def _set_certificate(self, host: str, kind: str) -> None:
        self._certificates[host] = kind

    def _set_interval(self, seconds: int) -> None:
        self._interval = seconds


_TAKERS: dict[str, Callable[[State, Event], None]] = {
    "bus.started": State._on_bus, "bus.stopped": State._on_bus, "bus.name": State._on_name,
    "bus.call": State._on_call, "daemon.started": State._on_daemon,
    "daemon.exited": State._on_daemon, "daemon.notify": State._on_notice,
    "cloud.answer": State._on_answer,
    "cloud.misbehaved": State._on_answer, "statsd.sample": State._on_sample,
    "load.started": State._on_load, "load.ended": State._on_load, "console.done": State._on_done}
_CONTROLS: dict[str, Callable[..., None]] = {
    "register": State._register, "unregister": State._unregister, "clock": State._set_clock,
    "program": State._set_program, "answer": State._set_answer, "behave": State._behave,
    "certificate": State._set_certificate, "interval": State._set_interval}
