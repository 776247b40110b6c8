"""Draws the events of a sequence, and applies them to the daemon and to the model."""

import sys

from hypothesis import strategies as st
from hypothesis.errors import StopTest
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, rule

from lab.device.values import Variant, boolean, byte, double, int32, int64, string, uint64
from tests.model.credentials import CREDENTIALS_COMMAND, REFRESH_INTERVAL, SECOND, Sent
from tests.model.model import POINT_AGE
from tests.model.comparison import NO_ANSWER, WELL, Bench
from tests.model.wire import Answer

GARBAGE = Answer(None, act="garbage")
PERIODS = st.sampled_from([7, 7, 7, 25, 600])
NAMES = st.sampled_from(["ap", "ap/clients", "ap/clients/x", "B", "é"])
LABELS = st.sampled_from([{}, {"band": "5g"}, {"band": "2g", "a.b": ""}, {"ß": "\n\"\\"}])
VALUES = st.sampled_from([
    int32(-7), int64(-2**63), uint64(2**64 - 1), byte(255), double(0.25), double(-1.5),
    boolean(True), boolean(False), string(""), string("text/é\u2028")])
POINTS = st.tuples(NAMES, LABELS, VALUES)
TYPES = st.sampled_from(["type.example/ap.Event", "", "é"])
DATA = st.sampled_from([b"", b"\xfb\xff\x01", bytes(range(256))])
UPLOAD_ANSWERS = [WELL, Answer(204), Answer(401, "expired"), Answer(401), Answer(403, "no"),
                  Answer(500, "out of order"), Answer(302), NO_ANSWER, GARBAGE]
# "@" becomes a new number for each token.
TOKEN_ANSWERS = [
    Answer(200, '{"access_token": "access-@"}'), Answer(302, '{"access_token": "access-@"}'),
    Answer(200, '{"access_token": "access-@", "refresh_token": "refresh-@", "error": "none"}'),
    Answer(200, '{"access_token": "", "refresh_token": "refresh-@"}'),
    Answer(200, '{"access_token": 5, "refresh_token": "refresh-@"}'),
    Answer(200, '{"refresh_token": "refresh-@"}'), Answer(200, "{}"), Answer(200, "[]"),
    Answer(200, "no JSON"), Answer(400, '{"error": "invalid_grant"}'),
    Answer(400, '{"access_token": "access-@", "refresh_token": "refresh-@"}'),
    Answer(500, "out of order"), NO_ANSWER, GARBAGE]
PATHS = st.sampled_from(["/c/1", "/c/2", "/c/3"])
COMMANDS = st.sampled_from([
    *[(CREDENTIALS_COMMAND, "code-1", "queued")] * 3, (CREDENTIALS_COMMAND, "c+/=&é", "inProgress"),
    (CREDENTIALS_COMMAND, "", "queued"), (CREDENTIALS_COMMAND, "code-2", "done"),
    ("base.reboot", "code-3", "queued")])
WALL_STEPS = st.sampled_from([1, SECOND, 90 * SECOND, -90 * SECOND, POINT_AGE, -POINT_AGE])
PICKS = st.integers(0, 50)
MOSTLY = st.sampled_from([True, True, True, False])


# By event: its weight, and the strategies of its arguments.
EVENTS: dict[str, tuple[int, list[st.SearchStrategy]]] = {
    "record_points": (16, [st.lists(POINTS, min_size=1, max_size=5)]),
    "record_a_crowd": (1, [POINTS, st.sampled_from([300, 999, 1001])]),
    "record_log": (10, [st.sampled_from(["structured", "offline"]), TYPES, DATA]),
    "record_logs": (3, [st.integers(3, 21)]),
    "push_out_a_sent_log": (3, [st.integers(19, 21)]),
    "record_unsupported": (1, []),
    "tick": (24, []),
    "pass_time": (4, [st.sampled_from([1, SECOND, 6 * SECOND, 10 * SECOND])]),
    "pass_to_next_refresh": (5, [st.sampled_from([0, SECOND // 10])]),
    "step_wall": (3, [WALL_STEPS]),
    "let_a_point_age": (4, [st.sampled_from([0, 0, 1]), PICKS]),
    "answer": (18, [PICKS, PICKS]),
    "answer_well": (14, [PICKS]),
    "answer_all_well": (8, []),
    "set_larder": (4, [st.booleans()]),
    "register": (2, [st.sampled_from(["device-0001", "device-7", ""])]),
    "refuse": (2, [st.sampled_from(["CheckDeviceRegistered", "UpdateState"])]),
    "add_command": (4, [PATHS, COMMANDS]),
    "remove_command": (2, [PICKS]),
    "set_time_source": (2, [st.sampled_from(["network", "network", "rtc", None])]),
    "make_well": (6, []),
    "restart": (1, [PERIODS, st.booleans()]),
    "kill_and_start": (1, [PERIODS, st.booleans()]),
    "reboot": (1, [PERIODS, st.booleans()]),
}
DRAWN = st.sampled_from([name for name, (times, _) in EVENTS.items() for _ in range(times)])


class DeviceMachine(RuleBasedStateMachine):
    """Each sequence starts with the device in the same state, its daemon not running, and ends
    without pending records."""

    def __init__(self, bench: Bench) -> None:
        super().__init__()
        self._bench = bench
        self.both = bench.compare()

    @invariant()
    def count(self) -> None:
        self._bench.steps += 1

    def teardown(self) -> None:
        failure = sys.exc_info()[1]
        # StopTest is no failure: Hypothesis has no more data for this sequence.
        if failure and not isinstance(failure, StopTest):
            self._bench.discard_device()
            return
        with self._bench.discarding_on_failure():
            if not failure:
                self.both.empty()
            self.both.end()

    @initialize(period=PERIODS, provisioned=MOSTLY, well=MOSTLY)
    def first_start(self, period: int, provisioned: bool, well: bool) -> None:
        if provisioned:
            self.both.keep_token("refresh-0")
        self.start(period, well)

    # A single rule: of many rules, Hypothesis leaves some out.
    @rule(event=DRAWN.flatmap(lambda name: st.tuples(st.just(name), *EVENTS[name][1])))
    def happen(self, event: tuple) -> None:
        name, *arguments = event
        if not self.both.model.runs:
            self.start(7, well=True)
        getattr(self, name)(*arguments)

    def start(self, period: int, well: bool) -> None:
        self.both.start(period)
        if well:
            self.both.answer_all_well()

    # Records.

    def record_points(self, points: list[tuple[str, dict[str, str], Variant]]) -> None:
        self.both.record_points(points)

    def record_a_crowd(self, point: tuple[str, dict[str, str], Variant], count: int) -> None:
        self.both.record_points([point])
        # Many rejected points have no other effect than one.
        if self.both.model.pending:
            self.both.record_points([point] * count)

    def record_log(self, kind: str, type_url: str, data: bytes) -> None:
        self.both.record_log(kind, type_url, data)

    def record_logs(self, count: int) -> None:
        for number in range(count):
            self.both.record_log(["structured", "offline"][number % 2], "many", b"")

    def push_out_a_sent_log(self, count: int) -> None:
        self.record_logs(1)
        self.both.tick()
        self.record_logs(count)

    def record_unsupported(self) -> None:
        self.both.record_unsupported()

    # Time.

    def tick(self) -> None:
        self.both.tick()

    def pass_time(self, microseconds: int) -> None:
        self.both.pass_time(microseconds)

    def pass_to_next_refresh(self, missing: int) -> None:
        if self.both.model.refreshed is not None:
            due = self.both.model.refreshed + REFRESH_INTERVAL - missing
            self.both.pass_time(max(0, due - self.both.world.monotonic))

    def step_wall(self, microseconds: int) -> None:
        self.both.step_wall(microseconds)

    def let_a_point_age(self, missing: int, pick: int) -> None:
        if points := self.both.model.unsent + self.both.model.pending:
            old = points[pick % len(points)].time + POINT_AGE - missing
            self.both.step_wall(old - self.both.world.wall)

    # The cloud.

    def answer(self, pick: int, which: int) -> None:
        if sent := self._sent(pick):
            answers = UPLOAD_ANSWERS if sent.channel in ("metrics", "log") else TOKEN_ANSWERS
            self.both.answer(sent, self.both.with_new_token(answers[which % len(answers)]))

    def answer_well(self, pick: int) -> None:
        if sent := self._sent(pick):
            self.both.answer(sent, self.both.good_answer(sent.channel))

    def _sent(self, pick: int) -> Sent | None:
        """A request without an answer, after a tick if there is none."""
        if not self.both.model.sent:
            self.both.tick()
        sent = self.both.model.sent
        return sent[pick % len(sent)] if sent else None

    def answer_all_well(self) -> None:
        self.both.answer_all_well()

    # Larder and tlsdate.

    def set_larder(self, runs: bool) -> None:
        self.both.set_larder(runs=runs)

    def register(self, device_id: str) -> None:
        self.both.register(device_id)

    def refuse(self, method: str) -> None:
        self.both.refuse(method)

    def add_command(self, path: str, command: tuple[str, str, str]) -> None:
        self.both.add_command(path, *command)

    def remove_command(self, pick: int) -> None:
        if paths := sorted(self.both.world.commands):
            self.both.remove_command(paths[pick % len(paths)])

    def set_time_source(self, source: str | None) -> None:
        self.both.set_time_source(source)

    def make_well(self) -> None:
        self.both.make_well()

    # The process.

    def restart(self, period: int, well: bool) -> None:
        self.both.stop()
        self.start(period, well)

    def kill_and_start(self, period: int, well: bool) -> None:
        self.both.kill()
        self.start(period, well)

    def reboot(self, period: int, well: bool) -> None:
        self.both.kill()
        self.both.reboot()
        self.start(period, well)
