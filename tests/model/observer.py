"""Observes what the daemon does, and compares it with what the model requires."""

import time
from typing import Any

from lab.common import names
from lab.common.errors import LabError
from lab.common.names import Endpoint
from lab.device import programs
from lab.device.device import Device
from lab.device.events import Event
from lab.device.status import PREFIX, Status, parse
from lab.device.values import plain
from tests.device.helpers import message_of
from tests.model.credentials import WHATEVER
from tests.model.wire import Request

# In seconds, for an act that the model requires.
_PATIENCE = 10.0
_CHANNELS = {Endpoint.METRICS: "metrics", Endpoint.STRUCTURED_LOGS: "log",
             Endpoint.OFFLINE_LOGS: "log", Endpoint.REFRESH: "refresh",
             Endpoint.EXCHANGE: "exchange"}
_FILES = {names.REFRESH_TOKEN: "refresh token", names.START_TIME: "start time"}
_MOST_PRINTED = 4000
_SAMPLES = "AccessPoint.Pelmor"
_BEARER = "Bearer "

# By channel, in their order.
Acts = dict[str, list[Any]]


class Observer:
    # Whether this process has printed a failure.
    has_printed = False

    def __init__(self, device: Device) -> None:
        self._device = device
        self._seen_to = device.mark()
        # The acts of the current step.
        self._seen: Acts = {}
        # The last status that the daemon has published.
        self._status: Status = {}
        # The requests without an answer, oldest first, by channel.
        self.unanswered: dict[str, list[programs.Request]] = {
            channel: [] for channel in _CHANNELS.values()}

    def expect(self, acts: list[tuple[str, Any]]) -> None:
        """Waits until the daemon has done exactly these acts since the last call, in the order of
        each channel; any other act is a failure, now or at the next call."""
        wanted: Acts = {}
        for channel, act in acts:
            wanted.setdefault(channel, []).append(act)
        due = time.monotonic() + _PATIENCE
        self._take()
        while not self._is_enough(wanted) and self._awaits_more(due):
            self._take()
        seen, self._seen = self._seen, {}
        seen, wanted = _comparable(seen, wanted), _comparable(wanted, wanted)
        if seen != wanted:
            self._print_first_failure(_difference(seen, wanted))
        assert seen == wanted, _difference(seen, wanted)

    def expect_status(self, wanted: Status) -> None:
        """Waits until the last status that the daemon has published is this one."""
        due = time.monotonic() + _PATIENCE
        self._take()
        while self._status != wanted and self._awaits_more(due):
            self._take()
        assert self._status == wanted

    def _print_first_failure(self, difference: str) -> None:
        """With its events. hypothesis repeats a failure with shorter sequences, and if it does not
        happen again, prints nothing of it."""
        if not Observer.has_printed:
            Observer.has_printed = True
            print(f"{difference}\n{self._device.event_log.text()}")

    def _is_enough(self, wanted: Acts) -> bool:
        surplus = any(len(acts) > len(wanted.get(channel, []))
                      for channel, acts in self._seen.items())
        return surplus or all(len(self._seen.get(channel, [])) == len(acts)
                              for channel, acts in wanted.items())

    def _awaits_more(self, due: float) -> bool:
        event_log = self._device.event_log
        try:
            return event_log.wait_until(lambda: event_log.last() is not self._seen_to,
                                        "another act", due - time.monotonic())
        except LabError:
            return False

    def _take(self) -> None:
        for event in self._device.event_log.events(after=self._seen_to):
            self._seen_to = event
            if event.kind == "daemon.notify" and event["text"].startswith(PREFIX):
                self._status = _without_open_ends(parse(event["text"].removeprefix(PREFIX)))
            if channel := self._channel_of(event):
                self._seen.setdefault(channel, []).append(self._act_of(channel, event))

    def _channel_of(self, event: Event) -> str | None:
        if event.kind == "cloud.request":
            return _CHANNELS.get(event["endpoint"], "elsewhere")
        if event.kind in ("file.written", "file.deleted"):
            return "file" if event["path"] in _FILES else None
        if event.kind == "larder.call":
            known = event["interface"] in (names.LARDER_MANAGER, names.LARDER_COMMAND)
            return "bus" if known else None
        return {"tlsdate.call": "bus", "daemon.log": "log line",
                "statsd.sample": "sample"}.get(event.kind)

    def _act_of(self, channel: str, event: Event) -> Any:
        if channel == "bus":
            return _call(event)
        if channel == "log line":
            return message_of(event["text"])
        if channel == "sample":
            return event["name"].removeprefix(_SAMPLES), event["value"]
        if channel == "file":
            return _FILES[event["path"]], self._device.read_file(event["path"])
        return self._request(channel, programs.Request.of(event))

    def _request(self, channel: str, request: programs.Request) -> Any:
        self.unanswered.setdefault(channel, []).append(request)
        if channel in ("refresh", "exchange"):
            return request.form
        token = request.headers.get("authorization", "").removeprefix(_BEARER)
        return Request(request.path, token, request.json)


def _call(event: Event) -> tuple:
    method, arguments = event["method"], plain(event["arguments"])
    if method == "UpdateState":
        [state] = arguments
        entries = state.pop(names.CREDENTIALS_STATE)
        return method, entries.pop("_provisioned"), entries.pop("_nonce"), *state, *entries
    if event["interface"] == names.LARDER_COMMAND:
        return method, event["path"], *arguments
    return method, *arguments


def _without_open_ends(status: Status) -> Status:
    """The rules do not determine the text of a transport error."""
    return {name: section | {"error": WHATEVER}
            if "error" in section and "status" not in section else section
            for name, section in status.items()}


def _comparable(acts: Acts, wanted: Acts) -> Acts:
    """The acts with equal text where the rules leave it open: at the end of some log lines."""
    open_ends = tuple(line.removesuffix(WHATEVER) for line in wanted.get("log line", [])
                      if line.endswith(WHATEVER))
    cut = {line: next((end + WHATEVER for end in open_ends if line.startswith(end)), line)
           for line in acts.get("log line", [])}
    found = {channel: list(some) for channel, some in acts.items() if some}
    if cut:
        found["log line"] = [cut[line] for line in acts["log line"]]
    return found


def _difference(seen: Acts, wanted: Acts) -> str:
    different = [channel for channel in seen | wanted if seen.get(channel) != wanted.get(channel)]
    return "\n".join(f"{channel}:\n  the daemon: {str(seen.get(channel, []))[:_MOST_PRINTED]}"
                     f"\n  the model:  {str(wanted.get(channel, []))[:_MOST_PRINTED]}"
                     for channel in different)
