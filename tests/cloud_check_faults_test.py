"""Each rule of cloud/check detects a planted fault, and no other rule complains about it."""

import re
from collections.abc import Callable
from functools import partial

import pytest

from cloud.check import tls_rules
from cloud.check.all_rules import ALL
from cloud.check.run import Outcome
from lab.common import deadlines
from tests import faulty_clouds as faulty
from tests.faulty_clouds import (AnswersLogs, AnswersOtherDevices, Exchanges, Refreshes,
                                 RejectsLogs, RejectsPoints, RejectsTimes, RejectsTokens, Tls)
from tests.simulated_cloud import EXPIRED, SimulatedCloud, checked, failed

Make = Callable[[], SimulatedCloud]

_FORBIDDEN = 403
_BODY = b" " * (1024 * 1024 + 1)
_LARGE_HEADERS = b"X: %s\r\n" % (b"x" * 60_000) * 5
_MONTH = 30 * 24 * 3600


def _answers(status: str, headers: bytes, body: bytes = b"") -> Make:
    return partial(AnswersLogs, status.encode() + b"\r\n" + headers + b"\r\n" + body)


# By the rules that detect it, in the order of the rules; a run checks all rules.
FAULTS: list[tuple[str, Make]] = [
    ("tls-certificate", partial(Tls, faulty.omit_the_intermediate)),
    ("tls-certificate", partial(Tls, faulty.have_another_name)),
    ("tls-1.2", partial(Tls, faulty.speak_new_tls)),
    ("tls-1.3", partial(Tls, faulty.speak_old_tls)),
    ("tls-resumption", partial(Tls, faulty.resume_nothing)),
    ("exchange-accepted", faulty.WrapsTokens),
    ("exchange-access-token", partial(Exchanges, access_token=12345678)),
    ("exchange-refresh-token", partial(Exchanges, refresh_token="")),
    ("token-type", partial(Exchanges, token_type="mac")),
    ("token-lifetime", partial(Exchanges, expires_in=600)),
    ("unknown-code", faulty.AcceptsUnknownCodes),
    ("token-error", faulty.ExplainsNoError),
    ("points-accepted", partial(RejectsPoints, lambda name, point: True)),
    ("value-int64", partial(RejectsPoints, lambda name, point: int(
        float(point.get("int64Value", 0))) != int(point.get("int64Value", 0)))),
    ("value-double", partial(RejectsPoints, lambda name, point: abs(
        point.get("doubleValue") or 0) > 1e300)),
    ("value-double-null", partial(RejectsPoints, lambda name, point: point.get(
        "doubleValue", 0) is None)),
    ("value-bool value-types-mixed", partial(
        RejectsPoints, lambda name, point: "boolValue" in point)),
    ("value-string", partial(RejectsPoints, lambda name, point: "\u0001" in point.get(
        "stringValue", ""))),
    ("value-types-mixed", faulty.FixesTypes),
    ("labels-dots", partial(RejectsPoints, lambda name, point: any(
        "." in label for label in point["labels"]))),
    ("labels-utf8", partial(RejectsPoints, lambda name, point: not "".join(
        point["labels"]).isascii())),
    ("metric-names", partial(RejectsPoints, lambda name, point: not name)),
    ("batch-1000-points batch-1000-metrics batch-largest", faulty.LimitsPoints),
    ("batch-largest structured-log-1-mib offline-log-1-mib", faulty.LimitsBodies),
    ("points-future times-extreme", partial(RejectsTimes, lambda ahead: ahead > 60)),
    ("points-same-second", faulty.RejectsDuplicates),
    ("times-extreme points-late", partial(RejectsTimes, lambda ahead: ahead < -300)),
    ("points-before-start", partial(RejectsTimes, lambda ahead: ahead > 60, "startTime")),
    ("start-long-ago", partial(RejectsTimes, lambda ahead: ahead < -_MONTH, "startTime")),
    ("batch-repeated log-repeated", faulty.RejectsRepeatedBodies),
    ("structured-log-accepted", partial(
        RejectsLogs, lambda target, log: target.endswith("structuredLogs"))),
    ("offline-log-accepted", partial(
        RejectsLogs, lambda target, log: target.endswith("writeLogs"))),
    ("structured-log-1-mib offline-log-1-mib log-base64", partial(
        RejectsLogs, lambda target, log: bool(set(log["value"]) & set("-_")))),
    ("log-type-url", partial(RejectsLogs, lambda target, log: not log["typeUrl"])),
    ("log-times", partial(RejectsLogs, lambda target, log: log.get(
        "deviceTimestamp", {"seconds": 1})["seconds"] < 0)),
    ("log-release", partial(RejectsLogs, lambda target, log: log.get(
        "properties", {}).get("updateChannel") == "unknown")),
    ("unknown-token unknown-token-log expired-token", partial(
        RejectsTokens, lambda token: _FORBIDDEN)),
    ("expired-token", partial(RejectsTokens, lambda token: 403 if token == EXPIRED else 401)),
    ("malformed-token", partial(
        RejectsTokens, lambda token: 401 if re.fullmatch(r"[\w-]*", token) else 400)),
    ("empty-token", partial(RejectsTokens, lambda token: 401 if token else 400)),
    ("rejected-large-body", faulty.ClosesOnRejectedBodies),
    ("unknown-device missing-device foreign-device", partial(AnswersOtherDevices, 404)),
    ("unknown-device missing-device foreign-device", partial(AnswersOtherDevices, 200)),
    ("connection-kept", faulty.ClosesConnections),
    ("body-without-expect", faulty.AnswersBeforeTheBody),
    ("concurrent-requests", partial(faulty.Overloads, b"concurrent-requests")),
    ("refresh-accepted", partial(Refreshes, lambda cloud, token, reply: (400, {"error": "no"}))),
    ("refresh-token-kept", partial(Refreshes, faulty.rotate)),
    ("refresh-token-kept", partial(Refreshes, partial(faulty.rotate, grace=True))),
    ("refreshed-token-accepted", partial(Refreshes, faulty.forget)),
    ("superseded-token", faulty.ForbidsEarlierTokens),
    ("refresh-under-load", partial(faulty.Overloads, b"grant_type=refresh_token")),
    ("unknown-refresh-token", partial(Refreshes, lambda cloud, token, reply: (
        reply if reply[0] == 200 or not token else (200, cloud.tokens())))),
    ("wrong-secret", faulty.IgnoresTheSecret),
    ("provisioned-again", faulty.ProvisionsOnce),
    ("spent-code", faulty.AcceptsSpentCodes),
    ("response-complete", _answers("HTTP/1.1 200 ", b"Content-Length: 20\r\n", b"{}")),
    ("response-framed", _answers("HTTP/1.1 200 ", b"", b"{}")),
    ("http-1.1", _answers("HTTP/1.0 200 ", b"Content-Length: 2\r\n", b"{}")),
    ("http-1.1", _answers("\0\1 this is not HTTP", b"")),
    ("response-header-size", _answers("HTTP/1.1 200 ", b"Content-Length: 0\r\n" + _LARGE_HEADERS)),
    ("response-body-size", _answers(
        "HTTP/1.1 200 ", b"Content-Length: %d\r\n" % len(_BODY), _BODY)),
    ("no-redirect", _answers("HTTP/1.1 308 ", b"Location: /\r\nContent-Length: 0\r\n"))]

# These disturb later rules, or take long.
NARROW: list[tuple[str, Make]] = [
    ("token-characters", partial(Exchanges, access_token="access\ntoken")),
    ("log-backlog", faulty.LimitsTheRateOfLogs),
    ("slow-upload", faulty.GivesUpOnSlowBodies),
    ("refresh-repeated", partial(Refreshes, faulty.limit)),
    ("empty-refresh-token", partial(Refreshes, faulty.revoke_all))]


@pytest.mark.parametrize(("rules", "cloud"), FAULTS, ids=[rules for rules, _ in FAULTS])
def test_a_fault_is_detected_by_its_rules_and_no_others(rules: str, cloud: Make) -> None:
    results = checked(cloud())
    assert failed(results) == set(rules.split()), {
        name: results[name].text for name in failed(results)}


@pytest.mark.parametrize(("rule", "cloud"), NARROW, ids=[rule for rule, _ in NARROW])
def test_a_fault_is_detected_by_its_rule(rule: str, cloud: Make) -> None:
    assert failed(checked(cloud(), rule)) == {rule}


def test_a_late_answer_is_detected() -> None:
    results = checked(AnswersLogs(None), "response-time", answer_seconds=deadlines.scaled(2))
    assert failed(results) == {"response-time"}
    assert results["structured-log-accepted"].outcome == Outcome.SKIPPED


def test_an_answer_on_an_idle_connection_is_detected() -> None:
    results = checked(faulty.AnswersIdleConnections(), "connection-idle",
                      idle_seconds=deadlines.scaled(10))
    assert failed(results) == {"connection-idle"}


def test_a_certificate_that_ends_soon_is_detected(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(tls_rules, "_LEAST_DAYS", 100_000)
    assert failed(checked(SimulatedCloud(), "tls-expiry")) == {"tls-expiry"}


def test_every_rule_detects_a_fault_of_these() -> None:
    planted = {name for rules, _ in FAULTS + NARROW for name in rules.split()}
    assert planted | {"response-time", "connection-idle", "tls-expiry"} == set(ALL)


def test_closing_connections_under_load_is_no_fault() -> None:
    cloud = faulty.Overloads(b"grant_type=refresh_token", closes=True)
    assert failed(checked(cloud, "refresh-under-load")) == set()


def test_revoking_the_earlier_token_is_no_fault() -> None:
    assert failed(checked(Refreshes(faulty.revoke_earlier), "superseded-token")) == set()
