"""A daemon and its model, with the same events for both.

Each verb causes one event, waits until the daemon has done all that the model requires, and fails
when the daemon does anything else. Clocks move and the cloud answers only in verbs, so that a
sequence of verbs is reproducible.
"""

import base64
import signal
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import replace
from typing import Any

from lab.common import names
from lab.common.names import Endpoint
from lab.device import programs
from lab.device.device import Device
from lab.device.values import Variant
from tests.device.helpers import catch_up
from tests.model.credentials import (CREDENTIALS_COMMAND, REFRESH_INTERVAL, SECOND, Command, Sent,
                                     World)
from tests.model.model import WAITING, Model
from tests.model.wire import Answer, Log, Point
from tests.model.observer import Observer

WALL = 1_790_000_000_250_000
MONOTONIC = 5_000 * SECOND
# So near to a due time the order is open: the daemon reads the clock more than once, and libcurl
# counts in milliseconds. The clock is never left there.
_DOUBT = 50_000
_NEVER = 1 << 62
WELL = Answer(200, "{}")
NO_ANSWER = Answer(None, act="cut")
_GOOD_ANSWERS = {
    "metrics": WELL, "log": WELL, "refresh": Answer(200, '{"access_token": "access-@"}'),
    "exchange": Answer(200, '{"access_token": "access-@", "refresh_token": "refresh-@"}')}


class Comparison:
    def __init__(self, device: Device) -> None:
        """The daemon of the device must not run."""
        self._device = device
        self._observer = Observer(device)
        self._period = 0
        self.world = World(WALL, MONOTONIC)
        self.model = Model(self.world)
        self.recorded = 0
        self._tokens = 0
        # The records that the cloud has accepted.
        self.uploaded: set[int] = set()
        self._lay_out()

    def _lay_out(self) -> None:
        self._device.stop_clocks(wall=WALL, monotonic=MONOTONIC)
        for endpoint in Endpoint:
            self._device.cloud.answer(endpoint, held=True)
        for path in (names.REFRESH_TOKEN, names.START_TIME):
            if self._device.read_file(path) is not None:
                self._device.delete_file(path)
                self.model.act("file", (_label(path), None))
        self._compare()

    def _compare(self) -> None:
        acts, self.model.acts = self.model.acts, []
        self._observer.expect(acts)
        self._check_balance()
        self._check_status()

    def _compare_when_caught_up(self) -> None:
        if self.model.runs:
            catch_up(self._device)
        self._compare()

    def _check_status(self) -> None:
        """The last published status has the counts of the model."""
        for counts in self.model.counts().values():
            fates = sum(count for key, count in counts.items()
                        if key not in ("recorded", "dropped_at"))
            assert counts["recorded"] == fates, counts
        if self.model.runs:
            self._observer.expect_status(self.model.status)

    def _check_balance(self) -> None:
        """Each recorded record is uploaded, dropped by a rule, or pending."""
        model = self.model
        waiting = {record.number for record in model.pending + model.unsent + model.logs}
        dropped = {number for number, fate in model.fates.items() if fate != WAITING}
        assert not waiting & self.uploaded
        assert self.recorded == len(self.uploaded | dropped) + len(waiting)

    # The process.

    def start(self, period: int) -> None:
        """Starts the daemon with this upload interval, in seconds."""
        self._period = period * SECOND
        self._device.configure(upload_interval_in_seconds=str(period))
        self.model.start(self._period)
        self._device.start_daemon()
        self._compare_when_caught_up()

    def stop(self) -> None:
        self.model.stop()
        self._signal(signal.SIGTERM, 0)

    def kill(self) -> None:
        self.model.die()
        self._signal(signal.SIGKILL, -signal.SIGKILL)

    def _signal(self, number: signal.Signals, expected_code: int) -> None:
        code = self._device.stop_daemon(number)
        assert code == expected_code, f"exit code {code}\n{self._device.event_log.text()}"
        self._hang_up()

    def _hang_up(self) -> None:
        """Releases the answers that the daemon no longer waits for."""
        for requests in self._observer.unanswered.values():
            while requests:
                self._release(requests.pop(), NO_ANSWER)
        self._compare()

    def keep_token(self, token: str) -> None:
        """Puts a refresh token on the disk of a stopped device."""
        self._device.provision(token)
        self.world.refresh_token = token
        self.model.act("file", ("refresh token", token.encode()))
        self._compare()

    def reboot(self) -> None:
        """Removes the files that do not survive a reboot, on a stopped device."""
        if self.world.start_time is not None:
            self._device.delete_file(names.START_TIME)
            self.world.start_time = None
            self.model.act("file", ("start time", None))
            self._compare()

    # Records.

    def record_points(self, points: list[tuple[str, dict[str, str], Variant]]) -> None:
        numbered = []
        for name, labels, value in points:
            self.recorded += 1
            numbered.append(Point(self.recorded, name, labels | {"#": str(self.recorded)}, value,
                                  self.world.wall))
        for point in numbered:
            self.model.record_point(point)
        self._device.record_metrics([(one.name, one.labels, one.value) for one in numbered])
        self._compare()

    def record_log(self, kind: str, type_url: str, data: bytes) -> None:
        self.recorded += 1
        log = Log(self.recorded, kind, type_url, f"{self.recorded} ".encode() + data,
                  self.world.wall)
        self.model.record_log(log)
        record = {"structured": self._device.record_structured,
                  "offline": self._device.record_offline}[kind]
        record(type_url, log.data)
        self._compare()

    def record_unsupported(self) -> None:
        before = self._device.mark()
        self.model.record_unsupported("dbus::ObjectPath")
        reply = self._device.call_raw("RecordMetric", "sa{ss}v", ("odd", {}, Variant("o", "/a")))
        assert bool(reply.error) != self.model.runs
        if not self.model.runs:
            assert self._device.wait_for_exit(after=before) == -signal.SIGABRT
            self._hang_up()
        self._compare()

    # Time.

    def pass_time(self, microseconds: int) -> None:
        """Moves the monotonic clock; what is due on the way happens at its time."""
        end = self._past_doubt(self.world.monotonic + microseconds)
        while (due := self._next_due()) < end:
            self._move_to(self._past_doubt(due))
            self._fall_due()
        self._move_to(max(end, self.world.monotonic))
        self._compare_when_caught_up()

    def tick(self) -> None:
        self.pass_time(self.model.tick_due - self.world.monotonic)

    def _next_due(self) -> int:
        if not self.model.runs:
            return _NEVER
        while hasty := [sent for sent in self.model.sent
                        if abs(sent.due - self.model.tick_due) <= 4 * _DOUBT]:
            # The order of two events that are due at once is open, so one is answered before.
            self.answer(hasty[0], self.good_answer(hasty[0].channel))
        return min([self.model.tick_due, *(sent.due for sent in self.model.sent)])

    def _past_doubt(self, time: int) -> int:
        """The first time from `time` on that is not near a due time."""
        due = [sent.due for sent in self.model.sent] + [self.model.tick_due]
        if self.model.refreshed is not None:
            due.append(self.model.refreshed + REFRESH_INTERVAL)
        while near := [one for one in due if abs(one - time) < _DOUBT]:
            time = max(near) + _DOUBT
        return time

    def _move_to(self, monotonic: int) -> None:
        self._device.move_clocks(monotonic=(monotonic - self.world.monotonic) / SECOND)
        self.world.monotonic = monotonic

    def _fall_due(self) -> None:
        now = self.world.monotonic
        # A daemon that still waited would notice the cut, and libcurl would resend the request.
        catch_up(self._device)
        for sent in [sent for sent in self.model.sent if sent.due < now]:
            self._release(self._request_of(sent), NO_ANSWER)
            self.model.answer(sent, NO_ANSWER)
        if self.model.tick_due < now:
            self.model.tick(self._period)
        self._compare_when_caught_up()

    def step_wall(self, microseconds: int) -> None:
        self._device.move_clocks(wall=microseconds / SECOND)
        self.world.wall += microseconds
        self._compare_when_caught_up()

    # The cloud.

    def answer(self, sent: Sent, answer: Answer) -> None:
        request = self._request_of(sent)
        if answer.act == "cut" and request.reused:
            self.model.send_again(sent)
        else:
            self.model.answer(sent, answer)
        self._release(request, answer)
        if answer.is_success:
            self.uploaded.update(_numbers(request))
        self._compare()

    def _request_of(self, sent: Sent) -> programs.Request:
        """The corresponding request that the cloud received; it counts as answered from now on."""
        alike = [one for one in self.model.sent if one.channel == sent.channel]
        return self._observer.unanswered[sent.channel].pop(alike.index(sent))

    def _release(self, request: programs.Request, answer: Answer) -> None:
        changes: dict[str, Any] = {"act": answer.act}
        if answer.status is not None:
            changes |= {"status": answer.status, "body": answer.body}
        self._device.cloud.release(request.endpoint, request.number, **changes)

    def answer_all_well(self) -> None:
        while self.model.sent:
            sent = self.model.sent[0]
            self.answer(sent, self.good_answer(sent.channel))

    def good_answer(self, channel: str) -> Answer:
        return self.with_new_token(_GOOD_ANSWERS[channel])

    def with_new_token(self, answer: Answer) -> Answer:
        """With a new number for "@"."""
        self._tokens += 1
        return replace(answer, body=answer.body.replace("@", str(self._tokens)))

    # Larder and tlsdate.

    def set_larder(self, *, runs: bool) -> None:
        if runs == self.world.larder_runs:
            return
        self.world.larder_runs = runs
        (self._device.larder.start if runs else self._device.larder.stop)()
        if self.model.runs:
            (self.model.larder_starts if runs else self.model.larder_stops)()
        self._compare_when_caught_up()

    def register(self, device_id: str) -> None:
        self._device.larder.register(device_id)
        self.world.device_id = device_id
        self._compare_when_caught_up()

    def refuse(self, method: str) -> None:
        self._device.larder.refuse(method)
        self.world.refused.add(method)

    def allow(self, method: str) -> None:
        self._device.larder.behave(method)
        self.world.refused.discard(method)

    def add_command(self, path: str, name: str, code: str, state: str) -> None:
        parameters = {"_authorizationCode": code} if code else {}
        self.remove_command(path)
        self._device.larder.add_command(path, name, state, parameters)
        self.world.commands[path] = Command(name, code, state)
        if self.model.runs and self.world.larder_runs:
            self.model.command_is_added(path)
        self._compare_when_caught_up()

    def remove_command(self, path: str) -> None:
        if path not in self.world.commands:
            return
        self._device.larder.remove_command(path)
        del self.world.commands[path]
        self.model.command_is_removed(path)
        self._compare_when_caught_up()

    def set_time_source(self, source: str | None) -> None:
        if source is None:
            self._device.clock.stop()
        else:
            if self.world.time_source is None:
                self._device.clock.start()
            self._device.clock.set_source(source)
        self.world.time_source = source

    # The end of a sequence.

    def empty(self) -> None:
        """Lets every upload succeed until no record is pending, so that each is observed."""
        self.make_well()
        for _ in range(10):
            self.answer_all_well()
            if WAITING not in self.model.fates.values():
                return
            self.tick()
        assert False, "records wait for ever"

    def make_well(self) -> None:
        if not self.model.runs:
            self.start(7)
        for method in list(self.world.refused):
            self.allow(method)
        self.set_larder(runs=True)
        self.set_time_source("network")
        self.answer_all_well()
        if not self.model.is_provisioned:
            self.add_command("/c/last", CREDENTIALS_COMMAND, "code-last", "queued")

    def end(self) -> None:
        """Restores the initial state of the device."""
        if self.model.runs:
            self.kill()
        for path in list(self.world.commands):
            self.remove_command(path)
        for method in list(self.world.refused):
            self.allow(method)
        self.set_larder(runs=True)
        self.register("device-0001")
        self.set_time_source("network")


def _label(path: str) -> str:
    return {names.REFRESH_TOKEN: "refresh token", names.START_TIME: "start time"}[path]


def _numbers(request: programs.Request) -> list[int]:
    """The numbers of the records in a request."""
    if request.endpoint == Endpoint.METRICS:
        return [int(point["labels"]["#"]) for group in request.json["metricPoints"]
                for point in group["points"]]
    if request.endpoint in (Endpoint.STRUCTURED_LOGS, Endpoint.OFFLINE_LOGS):
        body: dict[str, Any] = request.json
        record = body["writeLog"][0] if "writeLog" in body else body
        return [int(base64.urlsafe_b64decode(record["value"]).split(b" ")[0])]
    return []


class Bench:
    """The device, shared by many sequences; a context manager."""

    def __init__(self) -> None:
        self._device: Device | None = None
        self.steps = 0

    def __enter__(self) -> "Bench":
        return self

    def __exit__(self, failure: type[BaseException] | None, *_: object) -> None:
        if self._device:
            self._device.__exit__(failure)

    def compare(self) -> Comparison:
        if not self._device:
            self._device = Device(movable_clocks=True).__enter__()
        with self.discarding_on_failure():
            return Comparison(self._device)

    @contextmanager
    def discarding_on_failure(self) -> Iterator[None]:
        try:
            yield
        except BaseException:
            self.discard_device()
            raise

    def discard_device(self) -> None:
        """After a failure the device is in an unknown state: a sequence that found it like that
        would fail for another reason, and Hypothesis would report only that the two differ."""
        device, self._device = self._device, None
        if device:
            # Without the checks of a device that is closed: their failure would mask the first one.
            device.__exit__(AssertionError)
