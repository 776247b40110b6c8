"""The rules of the daemon, as short as possible and complete.

A `Model` is informed of every event, one at a time. It adds to `acts` what the daemon must do then:
its calls on the bus, its requests, samples, log lines and files. `fates` has the fate of each
record. Times are in microseconds.
"""

import itertools
from typing import Any

from tests.model.account import Account
from tests.model.credentials import SECOND, WHATEVER, Credentials, Sent, World
from tests.model.wire import Answer, Log, Point, log_request, metrics_request, wire_size

MOST_POINTS = 1000
# One more is kept for the age limit: if it is young, the points behind it are kept.
MOST_PENDING = MOST_POINTS + 1
MOST_LOGS = 20
POINT_AGE = 30 * 60 * SECOND
WAITING = "waiting"


class Model(Credentials):
    def __init__(self, world: World) -> None:
        super().__init__(world)
        # By record: WAITING, or why it was removed.
        self.fates: dict[int, str] = {}
        self.runs = False
        # The last status that the daemon must have published, as `lab.device.status` parses it.
        self.status: dict[str, dict[str, Any]] = {}

    def _forget(self) -> None:
        super()._forget()
        self.pending: list[Point] = []
        self.unsent: list[Point] = []
        self.logs: list[Log] = []
        self.tick_due = 0
        self._start_time: int | None = None
        self._has_network_time = False
        self._points = Account()
        self._logs = Account()
        self._registration: bool | str = "unknown"
        self._ticks: dict[str, int] = {"count": 0}

    def counts(self) -> dict[str, dict[str, int]]:
        in_requests = {record.number for sent in self.sent for record in sent.records}
        surplus = max(0, len(self.pending) - MOST_PENDING)
        now = self.world.wall // SECOND
        return {"points": self._points.counts(in_requests, surplus, now),
                "logs": self._logs.counts(in_requests, 0, now)}

    def publish(self) -> None:
        gates = {"refresh_token": bool(self._refresh_token),
                 "access_token": bool(self._access_token),
                 "network_time": self._has_network_time, "registered": self._registration}
        self.status = self.counts() | {"gates": gates, "ticks": dict(self._ticks)} | {
            section: dict(end) for section, end in self._last.items()}

    # The process.

    def start(self, period: int) -> None:
        self.runs = True
        self._say("INFO Starting pelmor daemon")
        self._refresh_token = self.world.refresh_token
        self._access()
        self._tell_state(bool(self._refresh_token))
        self._start_time = self.world.start_time
        if self._start_time is not None:
            self._say("INFO Loaded start time: " + WHATEVER)
        self.tick_due = self.world.monotonic + period
        self.publish()
        if self.world.larder_runs:
            self.larder_starts()

    def stop(self) -> None:
        self._say("INFO Shutting down pelmor daemon")
        self.die()

    def die(self) -> None:
        """Whatever was only in memory is lost."""
        self.runs = False
        for record in self.pending + self.unsent + self.logs:
            self.fates[record.number] = "lost at the daemon's end"
        self._forget()

    # Records.

    def record_point(self, point: Point) -> None:
        if self._accepts(point.number, self._points):
            self.pending.append(point)

    def record_log(self, log: Log) -> None:
        if not self._accepts(log.number, self._logs):
            return
        self.logs.append(log)
        if len(self.logs) > MOST_LOGS:
            self._drop(self.logs, 1, "one log too many", "pushed_out")

    def record_unsupported(self, type_name: str) -> None:
        """A value that a request cannot contain."""
        if self._can_upload():
            self._say(f"FATAL Unknown type: {type_name}")
            self.die()
        else:
            self._points.refuse(self._closed_gate())

    def _accepts(self, number: int, account: Account) -> bool:
        accepted = self._can_upload()
        self.fates[number] = WAITING if accepted else "came too early"
        if accepted:
            account.keep(number)
        else:
            account.refuse(self._closed_gate())
        return accepted

    def _closed_gate(self) -> str:
        return "no_network_time" if self._access_token else "no_token"

    def _drop(self, queue: list[Any], count: int, why: str, reason: str) -> None:
        """`reason` is counted, unless the record's fate is known already."""
        account = self._logs if queue is self.logs else self._points
        for record in queue[:count]:
            self.fates[record.number] = why
            account.leave(record.number, reason)
        del queue[:count]

    def _can_upload(self) -> bool:
        return bool(self._access()) and self._network_time()

    def _network_time(self) -> bool:
        if not self._has_network_time and self.world.time_source:
            self.act("bus", ("LastSyncInfo",))
            if self.world.time_source == "network":
                self._say("INFO Network time acquired")
                self._has_network_time = True
                self.publish()
        return self._has_network_time

    # The upload cycle.

    def tick(self, period: int) -> None:
        self.tick_due += period
        if self._refresh_token:
            self._upload()
        else:
            self._tell_state(False)
        self._ticks = {"count": self._ticks["count"] + 1, "time": self.world.wall // SECOND}
        self.publish()

    def _upload(self) -> None:
        device_id = self._registered()
        if device_id is None or not self._can_upload():
            return
        self._send_next_log()
        self._take_points()
        if not self.unsent:
            return
        if self._start_time is None:
            self._say("INFO Set start time from first point timestamp: " + WHATEVER)
            self._say("INFO Saved start time: " + WHATEVER)
            self._start_time = self.world.start_time = self.unsent[0].time
            self.act("file", ("start time", str(self._start_time).encode()))
        request = metrics_request(self.unsent, self._start_time, device_id, self._access())
        names = len({point.name for point in self.unsent})
        size = wire_size(request)
        self.act("sample", ("Metrics.RequestPointCount", names))
        self.act("sample", ("Metrics.RequestWireSize", size))
        self.act("sample", ("Metrics.RequestWireSizePerPoint", size // names))
        self._send("metrics", request, tuple(self.unsent))

    def _registered(self) -> str | None:
        self._registration = "unknown"
        if not self._has_manager:
            return None
        self.act("bus", ("CheckDeviceRegistered",))
        if "CheckDeviceRegistered" in self.world.refused:
            return None
        self._registration = bool(self.world.device_id)
        return self.world.device_id

    def _take_points(self) -> None:
        self._give_reasons()
        self.unsent += self.pending
        self.pending = []
        old = self._old_at_front_of(self.unsent)
        self._drop(self.unsent, len(old), "too old", "too_old")
        self._drop(self.unsent, max(0, len(self.unsent) - MOST_POINTS), "one point too many",
                   "over_limit")

    def _old_at_front_of(self, points: list[Point]) -> list[Point]:
        # Up to the first that is young enough: older ones behind it are kept.
        return list(itertools.takewhile(
            lambda point: point.time <= self.world.wall - POINT_AGE, points))

    def _give_reasons(self) -> None:
        """The daemon drops some points before the cycle, and these count as over the limit, old or
        not; the cycle drops the same points either way."""
        early, late = self.pending[:-MOST_POINTS], self.pending[-MOST_POINTS:]
        youngest = max(early, key=lambda point: point.time, default=None)
        for point in early:
            if point is not youngest:
                self._points.leave(point.number, "over_limit")
        kept = [point for point in early if point is youngest] + late
        old = self._old_at_front_of(self.unsent + kept)
        for point in old:
            self._points.leave(point.number, "too_old")
        for point in (self.unsent + kept)[len(old):-MOST_POINTS]:
            self._points.leave(point.number, "over_limit")

    def _send_next_log(self) -> None:
        device_id = self._registered()
        if device_id is None or self.is_out("log") or not self.logs or not self._access():
            return
        log = self.logs[0]
        if log.kind == "structured":
            self.act("sample", ("StructuredLog.RequestWireSize", len(log.value)))
        self._send("log", log_request(log, device_id, self._access()), (log,))

    def is_out(self, channel: str) -> bool:
        return any(sent.channel == channel for sent in self.sent)

    # The answers of the cloud.

    def answer(self, sent: Sent, answer: Answer) -> None:
        """The end of a request, with or without a response."""
        self.sent.remove(sent)
        if sent.channel == "metrics":
            self._metrics_answered(sent, answer)
        elif sent.channel == "log":
            self._log_answered(sent, answer)
        elif sent.channel == "refresh":
            self._refresh_answered(answer)
        else:
            self._exchange_answered(answer)
        self.publish()

    def _metrics_answered(self, sent: Sent, answer: Answer) -> None:
        self._note_end("metrics", answer.status)
        if answer.status is None:
            return self._say("ERROR Error uploading metrics: " + WHATEVER)
        self.act("sample", ("Metrics.ResponseStatusCode", answer.status))
        if not self._token_was_good(answer.status):
            return self._say("INFO Upload failed due to expired access token")
        numbers = {point.number for point in sent.records}
        if answer.is_success:
            self._points.accept(numbers)
        else:
            self._say(f"WARNING Error uploading metrics: {answer.body}")
            for number in numbers:
                self._points.leave(number, "rejected")
        self._drop(self.unsent, len(self.unsent), f"answered with {answer.status}", "pushed_out")

    def _log_answered(self, sent: Sent, answer: Answer) -> None:
        self._note_end("log", answer.status)
        if answer.status is None:
            return self._say("ERROR Error uploading log: " + WHATEVER)
        self.act("sample", ("StructuredLog.ResponseStatusCode", answer.status))
        self._token_was_good(answer.status)
        if not answer.is_success:
            return self._say(f"WARNING Error uploading log: {answer.body}")
        # The front is removed, even if it is another record by now.
        [sent_log] = sent.records
        self._logs.accept({sent_log.number})
        front_was_sent = self.logs[0] is sent_log
        self._drop(self.logs, 1, "accepted" if front_was_sent else "taken for another",
                   "pushed_out")
        self._send_next_log()
