"""The console without a device and a browser: from events to the state and the timeline."""

import json
import re
import time
from typing import Any

import pytest

from lab.common import names
from lab.common.tree import ROOT
from lab.console.__main__ import plain_line
from lab.console.controls import CONTROLS
from lab.console.feed import Feed, Latest
from lab.console.fields import Choice, FieldError, Labels, Names, Number, Text, read_all
from lab.console.gates import CONDITIONS
from lab.console.masks import MASK, Masks
from lab.console.records import decoded, log_of, points_of
from lab.console.state import State
from lab.console.timeline import Timeline, severity_of
from lab.device.events import Event, EventLog


def event(kind: str, at: float = 0, **details: Any) -> Event:
    return Event(0, at, kind, details)


def larder(method: str, at: float = 0, arguments: list | None = None,
           outcome: str = "answered") -> Event:
    return event("larder.call", at, method=method, arguments=arguments or [], outcome=outcome)


def request(endpoint: str, number: int = 1, at: float = 0, body: str = "") -> Event:
    return event("cloud.request", at, number=number, endpoint=endpoint, body=body, headers=[])


def answer(endpoint: str, status: int = 200, number: int = 1, at: float = 0,
           body: str = "{}") -> Event:
    return event("cloud.answer", at, number=number, endpoint=endpoint, status=status, body=body)


def done(control: str, **arguments: Any) -> Event:
    return event("console.done", control=control, arguments=arguments)


TOKENS = '{"access_token": "access-9", "refresh_token": "refresh-9"}'


def status(at: float = 0, *, refresh_token: str = "yes", access_token: str = "yes",
           network_time: str = "yes", registered: str = "yes", ticks: int = 1, in_flight: int = 0,
           pending: int = 0, more: str = "") -> Event:
    """A status of the daemon; `more` are the sections with the last results."""
    points = f"recorded=9 accepted=9 pending={pending} in_flight={in_flight}"
    return event("daemon.notify", at, text=(
        f"STATUS=points {points}; logs recorded=0 accepted=0 pending=0 in_flight=0; "
        f"gates refresh_token={refresh_token} access_token={access_token} "
        f"network_time={network_time} registered={registered}; ticks count={ticks}{more}"))


UNPROVISIONED = status(refresh_token="no", access_token="no")
NO_TOKEN = status(access_token="no")
RUNNING = [event("bus.started"), event("daemon.started", pid=6),
           *(event("bus.name", name=name, owned=True)
             for name in (names.LARDER_SERVICE, names.TLSDATE_SERVICE))]


def picture(*events: Event) -> dict[str, Any]:
    state = State(5)
    for one in events:
        state.take(one, [], points=3 if one.kind == "cloud.request" else 0)
    return state.picture()


@pytest.mark.parametrize("events, token", [
    ([], "none"),
    ([request("refresh")], "requested"),
    ([request("refresh"), NO_TOKEN], "requested"),
    ([request("refresh"), answer("refresh"), status()], "held"),
    ([request("exchange"), answer("exchange", 400), UNPROVISIONED], "none"),
    ([request("refresh"), event("cloud.misbehaved", endpoint="refresh", number=1, act="cut")],
     "none"),
    ([status(access_token="no", more="; metrics time=1 status=401")], "expired"),
    ([status(more="; metrics time=1 status=500")], "held"),
    ([status(), event("daemon.exited", code=0)], "none"),
])
def test_the_access_token_is_that_of_the_status(events: list[Event], token: str) -> None:
    assert picture(*events)["token"] == token


def fault(endpoint: str, **fields: Any) -> Event:
    return done("answer", **({"endpoint": endpoint, "act": "answer", "status": 503, "delay": 0,
                              "times": 0} | fields))


def left(service: str) -> Event:
    return event("bus.name", name=service, owned=False)


NO_LARDER, NO_TLSDATE = left(names.LARDER_SERVICE), left(names.TLSDATE_SERVICE)
UNKNOWN_CERTIFICATE = done("certificate", host="identity", kind="stranger")


@pytest.mark.parametrize("events, text, press", [
    ([event("bus.stopped")], "The system bus is down.", "Start the bus"),
    ([event("daemon.exited", code=0)], "The daemon is not running.", "Start the daemon"),
    ([UNPROVISIONED], "The device has no credentials yet.", "Deliver a code"),
    ([UNPROVISIONED, NO_LARDER], "no credentials, and Larder", "Start Larder"),
    ([UNPROVISIONED, done("program", program="identity", action="stop")],
     "The identity provider is down.", "Start the identity provider"),
    ([UNPROVISIONED, fault("exchange")], "does not accept requests for a token: its answer is set "
     "to “503”", "Reset the answer"),
    ([status(), NO_LARDER], "Larder is not on the bus: each cycle ends", "Start Larder"),
    ([status(), done("unregister")], "The device is not registered", "Register the device"),
    ([NO_TOKEN, done("program", program="identity", action="stop")],
     "The identity provider is down.", "Start the identity provider"),
    ([NO_TOKEN, UNKNOWN_CERTIFICATE], "rejects the certificate of the identity provider",
     "Show a trusted certificate"),
    ([NO_TOKEN, fault("refresh", act="cut")], "is set to “cut”", "Reset the answer"),
    ([NO_TOKEN], "The daemon has no access token.", ""),
    ([status(network_time="no"), NO_TLSDATE], "tlsdate is not on the bus", "Start tlsdate"),
    ([status(network_time="no"), done("clock", source="none")],
     "The clock is not set from the network", "Set the clock"),
    ([status(), done("program", program="monitoring", action="stop")],
     "The monitoring service is down.", "Start the monitoring service"),
    ([status(), done("certificate", host="monitoring", kind="name")],
     "rejects the certificate of the monitoring service", "Show a trusted certificate"),
    ([status(), fault("metrics")], "The monitoring service does not accept points",
     "Reset the answer"),
    ([status(), fault("offline_logs", act="silence")], "does not accept offline logs",
     "Reset the answer"),
    ([status(), fault("metrics", status=200, delay=10)], "is set to “200 after 10 s”",
     "Reset the answer"),
    ([status(more="; metrics time=1 status=503")],
     "The last request with points was not accepted: answered 503.", "Reset all answers"),
    ([status(), fault("refresh"), done("behave", endpoint="all")],
     "Everything works, but nothing is recorded yet.", "Start a load"),
])
def test_the_next_step_opens_the_first_closed_gate(events: list[Event], text: str,
                                                   press: str) -> None:
    step = picture(*RUNNING, *events)["next"]
    assert text in step["text"]
    assert step["press"] == press
    if press:
        read_all(CONTROLS[step["control"]].fields, step["arguments"])


@pytest.mark.parametrize("events", [
    [], [request("refresh"), NO_TOKEN], [request("exchange"), UNPROVISIONED],
    [status(), event("bus.call", method="RecordMetric")],
    [status(), event("bus.call", method="RecordMetric"), NO_TLSDATE],
    [status(), event("bus.call", method="RecordMetric"), UNKNOWN_CERTIFICATE],
    [status(), event("bus.call", method="RecordMetric"), fault("metrics", status=204, delay=2)]])
def test_no_step_is_shown_while_no_gate_is_closed(events: list[Event]) -> None:
    assert picture(*RUNNING, *events)["next"] is None


def test_the_steps_cover_the_conditions_of_the_doctor() -> None:
    sources = [ROOT / "pelmorctl/doctor.cc", *(ROOT / "pelmorctl").glob("*_checks.cc")]
    doctor = {name for path in sources for name in re.findall(
        r'kName\[\] = "([a-z-]+)"|CheckReachable\("([a-z-]+)"', path.read_text())}
    # The console writes these files itself.
    files = {"configuration", "release-file", "start-time-folder"}
    assert {one or other for one, other in doctor} == files | set(CONDITIONS)


CHECK = larder("CheckDeviceRegistered", 1)
REFUSED = larder("CheckDeviceRegistered", 1, outcome="refused")
LATER = larder("CheckDeviceRegistered", 2)
UNTRUSTED = '; metrics time=1 error="SSL certificate problem"'


@pytest.mark.parametrize("events, outcome, level", [
    ([CHECK, status(1)], "nothing to upload", "idle"),
    ([REFUSED, status(1, registered="unknown")], "not registered", "bad"),
    ([status(1, registered="unknown")], "Larder is down", "bad"),
    ([status(1, refresh_token="no", registered="unknown")], "no refresh token", "bad"),
    ([CHECK, status(1, access_token="no")], "no access token", "bad"),
    ([CHECK, status(1, network_time="no")], "no network time", "bad"),
    ([CHECK, status(1, in_flight=3)], "waiting for the answer", "idle"),
    ([CHECK, status(1, in_flight=3), status(1, more="; metrics time=1 status=200")],
     "answered 200", "good"),
    ([CHECK, status(1, in_flight=3), status(1, more="; metrics time=1 status=503")],
     "answered 503", "bad"),
    ([CHECK, status(1, in_flight=3), status(1, pending=3, more=UNTRUSTED)], "no answer", "bad"),
    ([CHECK, status(1, in_flight=3), status(1, pending=3, more=UNTRUSTED), LATER,
      status(2, ticks=2, in_flight=3, more=UNTRUSTED)], "waiting for the answer", "bad"),
])
def test_a_cycle_has_an_outcome(events: list[Event], outcome: str, level: str) -> None:
    cycle = picture(*RUNNING, *events)["cycle"]
    assert (cycle["outcome"], cycle["level"]) == (outcome, level)


@pytest.mark.parametrize("events, held", [
    ([status(ticks=0, pending=3, registered="unknown")], ""),
    ([CHECK, status(1, in_flight=3), status(1, pending=3, more=UNTRUSTED)],
     "no answer, SSL certificate problem"),
    ([status(1, pending=3, registered="unknown")], "Larder is down"),
    ([CHECK, status(1, pending=3, more="; metrics time=1 status=200")], "")])
def test_pending_points_have_the_reason_of_the_last_failure(
        events: list[Event], held: str) -> None:
    assert picture(*RUNNING, *events)["records"]["points"]["held"] == held


def test_a_tick_without_a_check_is_a_cycle_with_its_reason() -> None:
    timeline = Timeline()
    ticks = [CHECK, status(1), status(2, ticks=2, registered="unknown"),
             status(2, ticks=2, registered="unknown", pending=1)]
    lines = [line for one in ticks for line in timeline.lines(one, [])
             if line.category == "cycle"]
    assert [(line.text, line.severity) for line in lines] == [
        ("Cycle 1 begins", "info"), ("Cycle 2: Larder is down, nothing is uploaded", "error")]


def test_the_calls_of_one_cycle_are_one_cycle() -> None:
    calls = [larder("CheckDeviceRegistered", at) for at in (1, 1.001, 1.02, 2, 2.001)]
    assert picture(*calls)["counts"]["cycles"] == 2
    timeline = Timeline()
    lines = [line.text for call in calls for line in timeline.lines(call, [])
             if line.category == "cycle"]
    assert lines == ["Cycle 1 begins", "Cycle 2 begins"]


def test_points_count_as_uploaded_when_they_are_accepted() -> None:
    counts = picture(request("metrics"), answer("metrics", 503),
                     request("metrics", 2), answer("metrics", 200, 2))["counts"]
    assert counts == {"cycles": 0, "recorded": 0, "uploaded": 3, "logs": 0, "requests": 2,
                      "flagged": 0}


STATUS = ("STATUS=points recorded=12 accepted=3 pending=2 in_flight=1 no_token=1 over_limit=5 "
          "rejected=0 dropped_at=1700000000; logs recorded=1 accepted=1 pending=0 in_flight=0; "
          'metrics time=1700000000 error="no route"')


def test_the_counters_of_records_are_those_of_the_daemon_s_status() -> None:
    assert picture(*RUNNING)["records"] == {"points": None, "logs": None}
    notices = [event("daemon.notify", text=text) for text in (STATUS, "WATCHDOG=1")]
    assert picture(*RUNNING, *notices)["records"] == {
        "points": {"recorded": 12, "accepted": 3, "pending": 2, "in_flight": 1,
                   "dropped": {"no token": 1, "over limit": 5}, "held": "no answer, no route"},
        "logs": {"recorded": 1, "accepted": 1, "pending": 0, "in_flight": 0, "dropped": {},
                 "held": ""}}
    ended = [*notices, event("daemon.exited", code=0)]
    assert picture(*RUNNING, *ended)["records"]["points"] is None


def test_controls_change_the_state_that_no_event_shows() -> None:
    shown = picture(done("unregister"), done("clock", source="none"), done("interval", seconds=9),
                    done("program", program="identity", action="stop"),
                    done("certificate", host="monitoring", kind="stranger"),
                    done("answer", endpoint="metrics", act="answer", status=503, delay=2, times=0),
                    done("answer", endpoint="refresh", act="cut", status=200, delay=0, times=1))
    assert (shown["registered"], shown["clock"]["source"], shown["interval"]) == (False, "none", 9)
    assert shown["up"]["identity"] is False
    assert shown["certificates"]["monitoring"] == "stranger"
    assert shown["answers"] == {"metrics": "503 after 2 s"}
    usual = picture(done("answer", endpoint="metrics", act="cut", status=200, delay=0, times=0),
                    done("behave", endpoint="all"))
    assert usual["answers"] == {}


def test_samples_are_counted_with_their_range() -> None:
    samples = [event("statsd.sample", name="A", value=value) for value in (3, 1, None, 2)]
    assert picture(*samples)["samples"] == {"A": {"count": 3, "last": 2, "least": 1, "most": 3}}


def point(second: int, **value: Any) -> dict[str, Any]:
    return {"labels": {"band": "5g"}, "startTime": {"seconds": 0},
            "endTime": {"seconds": second}} | value


def test_the_points_of_one_second_are_spread_over_it() -> None:
    body = json.dumps({"metricPoints": [{"metricName": "m", "points": [
        point(10, doubleValue=1.5), point(10, int64Value="-2"), point(11, boolValue=True),
        point(12, stringValue="x"), point(13, doubleValue=None)]}]})
    assert [(one["at"], one["value"]) for one in points_of(body)] == [
        (10, 1.5), (10.5, -2), (11, True), (12, "x"), (13, None)]


@pytest.mark.parametrize("value, wanted", [
    ("eyJhIjogMX0=", ("JSON", '{\n  "a": 1\n}')), ("aGVsbG8=", ("text", "hello")),
    ("-_8B", ("3 bytes", "0000  fb ff 01")), ("AAE=", ("2 bytes", "0000  00 01")),
    ("", ("text", "")), ("=", ("text", "")), ("abc", ("not Base64", "abc"))])
def test_the_data_of_a_log_is_decoded(value: str, wanted: tuple[str, str]) -> None:
    assert decoded(value) == wanted


def test_a_body_without_a_log_yields_none() -> None:
    assert log_of("structured_logs", "[]") is None
    assert log_of("offline_logs", '{"writeLog": []}') is None
    assert points_of("garbage") == []


def test_secrets_are_masked_everywhere() -> None:
    masks = Masks()
    masks.learn_from(event("cloud.request", headers=[["Authorization", "Bearer tok en/1"]],
                           body="code=code-123&client_secret=s%26cret&scope=all"))
    masks.learn_from(answer("exchange", body=TOKENS))
    text = "code-123 tok en/1 tok%20en/1 tok+en%2F1 s&cret access-9 refresh-9 all"
    assert masks.text(text) == " ".join([MASK] * 7 + ["all"])


def test_short_secrets_are_masked_in_their_fields() -> None:
    masks = Masks()
    assert masks.headers([["authorization", "Bearer x"], ["Accept", "*/*"]]) == [
        ["authorization", f"Bearer {MASK}"], ["Accept", "*/*"]]
    form = "application/x-www-form-urlencoded"
    assert masks.body("code=x&client_secret=y&refresh_token=&a=b", form) == (
        f"code={MASK}&client_secret={MASK}&refresh_token={MASK}&a=b")
    assert json.loads(masks.body('{"access_token": "x", "a": 1}')) == {
        "access_token": MASK, "a": 1}
    assert masks.body("no JSON") == "no JSON"


FIELDS = {"text": Text(1, 3), "number": Number(0, 10), "whole": Number(1, 5, True),
          "choice": Choice(("a", "b")), "names": Names(2), "labels": Labels(4)}
RIGHT = {"text": "abc", "number": 0.5, "whole": 5, "choice": "b", "names": "x, y",
         "labels": "band=2g,5g site=a,b"}


def test_valid_fields_are_read() -> None:
    read = read_all(FIELDS, RIGHT)
    assert read["names"] == ["x", "y"]
    assert read["labels"] == [{"band": band, "site": site} for band in ("2g", "5g")
                              for site in ("a", "b")]
    assert Labels().read("labels", "band=2g,5g") == {"band": "2g,5g"}


@pytest.mark.parametrize("wrong", [
    {"text": ""}, {"text": "abcd"}, {"text": 1}, {"text": "a\0"}, {"text": "\ud800"},
    {"number": -1}, {"number": "1"}, {"number": True}, {"number": float("nan")},
    {"whole": 1.5}, {"whole": 6}, {"choice": "c"},
    {"choice": []}, {"names": " , "}, {"names": "x,y,z"}, {"names": 1}, {"labels": "band"},
    {"labels": "=2g"}, {"labels": "a=1,2,3,4,5"}, {"more": 1}], ids=str)
def test_an_invalid_field_is_named(wrong: dict[str, Any]) -> None:
    with pytest.raises(FieldError, match=f"^{next(iter(wrong))}: "):
        read_all(FIELDS, RIGHT | wrong)


def test_a_missing_field_is_named() -> None:
    with pytest.raises(FieldError, match="^choice: missing"):
        read_all(FIELDS, {name: value for name, value in RIGHT.items() if name != "choice"})
    with pytest.raises(FieldError, match="an object of fields is required"):
        read_all(FIELDS, [])


@pytest.mark.parametrize("line, wanted", [
    ("2026-11-21T13:48:27.9Z WARNING ap-pelmor[6] a.cc:80] Oh: no",
     ("warning", "Oh: no  (a.cc:80)")),
    ("2026-11-21T13:48:27.9Z FATAL ap-pelmor[6] a.cc:8] x", ("error", "x  (a.cc:8)")),
    ("of a library", ("info", "of a library"))])
def test_a_line_of_the_daemon_s_log_is_parsed(line: str, wanted: tuple[str, str]) -> None:
    assert severity_of(line) == wanted


def test_a_stream_keeps_the_latest() -> None:
    latest: Latest[int] = Latest(3)
    for number in range(5):
        latest.add(number)
    assert (latest.count, latest.since(0), latest.since(4), latest.since(5)) == (
        5, [2, 3, 4], [4], [])


def test_changes_begin_where_the_previous_ones_ended() -> None:
    event_log = EventLog()
    feed = Feed(event_log, 5)
    places: dict[str, int] = {}
    for text in ("one", "two"):
        event_log.add(time.monotonic(), "console.control", {"text": text})
        feed.settle()
        assert [line["text"] for line in feed.news(places)["lines"]] == [text]
    assert feed.news(places)["lines"] == []
    feed.close()


def test_a_plain_line_has_its_time_its_severity_and_its_kind() -> None:
    line = {"at": 1.25, "severity": "warning", "category": "https", "text": "← 503"}
    assert plain_line(line).endswith(":01.250 ! https   ← 503")


def test_a_limited_event_log_keeps_the_latest_events_in_order() -> None:
    event_log = EventLog()
    event_log.remember(10)
    for number in range(100):
        event_log.add(0, "k", {"n": number})
        if number == 95:
            mark = event_log.last()
    assert 10 <= len(event_log.events()) <= 20
    assert [one["n"] for one in event_log.events(after=mark)] == [96, 97, 98, 99]
    assert event_log.last().number == 99
