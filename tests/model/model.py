"""What the daemon must do, told in the fewest words that still say all of it.

A `Model` is told of everything that happens to a daemon, one thing at a time. It notes in `acts`
what the daemon must do then: what it asks on the bus, what it sends to the cloud, what it counts,
logs and writes. `fates` has what must become of each record. Times are in microseconds.
"""

import itertools
from typing import Any

from credentials import SECOND, WHATEVER, Credentials, Sent, World
from wire import Answer, Log, Point, log_request, metrics_request, wire_size

MOST_POINTS = 1000
MOST_LOGS = 20
POINT_AGE = 30 * 60 * SECOND
WAITING = "waiting"


class Model(Credentials):
    def __init__(self, world: World) -> None:
        super().__init__(world)
        # By record: that it is waiting, or why it is gone.
        self.fates: dict[int, str] = {}
        self.runs = False

    def _forget(self) -> None:
        super()._forget()
        self.pending: list[Point] = []
        self.unsent: list[Point] = []
        self.logs: list[Log] = []
        self.tick_due = 0
        self._start_time: int | None = None
        self._has_network_time = False

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
        if self.world.larder_runs:
            self.larder_comes()

    def stop(self) -> None:
        self._say("INFO Shutting down pelmor daemon")
        self.die()

    def die(self) -> None:
        """Of what only the memory holds, nothing is left."""
        self.runs = False
        for record in self.pending + self.unsent + self.logs:
            self.fates[record.number] = "lost at the daemon's end"
        self._forget()

    # Records.

    def record_point(self, point: Point) -> None:
        if self._accepts(point.number):
            self.pending.append(point)

    def record_log(self, log: Log) -> None:
        if not self._accepts(log.number):
            return
        self.logs.append(log)
        if len(self.logs) > MOST_LOGS:
            self._drop(self.logs, 1, "one log too many")

    def record_unsupported(self, type_name: str) -> None:
        """A value that no request can carry."""
        if self._can_upload():
            self._say(f"FATAL Unknown type: {type_name}")
            self.die()

    def _accepts(self, number: int) -> bool:
        accepted = self._can_upload()
        self.fates[number] = WAITING if accepted else "came too early"
        return accepted

    def _drop(self, queue: list[Any], count: int, why: str) -> None:
        for record in queue[:count]:
            self.fates[record.number] = why
        del queue[:count]

    def _can_upload(self) -> bool:
        return bool(self._access()) and self._network_time()

    def _network_time(self) -> bool:
        if not self._has_network_time and self.world.time_source:
            self.act("bus", ("LastSyncInfo",))
            if self.world.time_source == "network":
                self._say("INFO Network time acquired")
                self._has_network_time = True
        return self._has_network_time

    # The upload cycle.

    def tick(self, period: int) -> None:
        self.tick_due += period
        if self._refresh_token:
            self._upload()
        else:
            self._tell_state(False)

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
        self._send("metrics", request)

    def _registered(self) -> str | None:
        if not self._has_manager:
            return None
        self.act("bus", ("CheckDeviceRegistered",))
        return None if "CheckDeviceRegistered" in self.world.refused else self.world.device_id

    def _take_points(self) -> None:
        self.unsent += self.pending
        self.pending = []
        # Up to the first that is young enough: older ones behind it stay.
        old = itertools.takewhile(lambda point: point.time <= self.world.wall - POINT_AGE,
                                  self.unsent)
        self._drop(self.unsent, len(list(old)), "too old")
        self._drop(self.unsent, max(0, len(self.unsent) - MOST_POINTS), "one point too many")

    def _send_next_log(self) -> None:
        device_id = self._registered()
        if device_id is None or self.is_out("log") or not self.logs or not self._access():
            return
        log = self.logs[0]
        if log.kind == "structured":
            self.act("sample", ("StructuredLog.RequestWireSize", len(log.value)))
        self._send("log", log_request(log, device_id, self._access()), log)

    def is_out(self, channel: str) -> bool:
        return any(sent.channel == channel for sent in self.sent)

    # What the cloud answers.

    def answer(self, sent: Sent, answer: Answer) -> None:
        """The end of a request, be it that no answer comes."""
        self.sent.remove(sent)
        if sent.channel == "metrics":
            self._metrics_answered(answer)
        elif sent.channel == "log":
            self._log_answered(sent, answer)
        elif sent.channel == "refresh":
            self._refresh_answered(answer)
        else:
            self._exchange_answered(answer)

    def _metrics_answered(self, answer: Answer) -> None:
        if answer.status is None:
            return self._say("ERROR Error uploading metrics: " + WHATEVER)
        self.act("sample", ("Metrics.ResponseStatusCode", answer.status))
        if not self._token_was_good(answer.status):
            return self._say("INFO Upload failed due to expired access token")
        if not answer.is_success:
            self._say(f"WARNING Error uploading metrics: {answer.body}")
        self._drop(self.unsent, len(self.unsent), f"answered with {answer.status}")

    def _log_answered(self, sent: Sent, answer: Answer) -> None:
        if answer.status is None:
            return self._say("ERROR Error uploading log: " + WHATEVER)
        self.act("sample", ("StructuredLog.ResponseStatusCode", answer.status))
        self._token_was_good(answer.status)
        if not answer.is_success:
            return self._say(f"WARNING Error uploading log: {answer.body}")
        # The front goes, though it may be another by now.
        front_was_sent = self.logs[0] is sent.record
        self._drop(self.logs, 1, "accepted" if front_was_sent else "taken for another")
        self._send_next_log()
