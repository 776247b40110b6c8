"""What the reference cloud answers, and what it then has stored."""

import json
import os
import signal
import time

import pytest

from cloud.process import Cloud
from tests.cloud.client import Client, point, wait_until

pytestmark = pytest.mark.xdist_group("cloud")
LONGEST_TEXT = "x" * 100_000


def now() -> int:
    return int(time.time())


def test_each_number_is_a_sample_at_its_end_time_with_its_labels(client: Client) -> None:
    end = now()
    labels = {"band": "5g", "a.b": "ü \"\\ \u0001", "pelmor_device": "mine", "__name__": "own"}
    assert client.send_points(point(end, labels, start=end - 9, doubleValue=0.25),
                              point(end - 1, {}, start=end - 9, int64Value="-12"),
                              point(end - 2, {}, start=end - 9, boolValue=True),
                              name="ap/ü x") == 200
    client.wait_for_samples(3)
    own = {"__name__": "ap/ü x", "pelmor_device": client.device, "pelmor_start": str(end - 9)}
    given = {"band": "5g", "a.b": labels["a.b"], "pelmor_label_pelmor_device": "mine",
             "pelmor_label___name__": "own"}
    assert sorted(client.samples(), key=str) == sorted([
        (own | given | {"pelmor_type": "double"}, [(end * 1000, 0.25)]),
        (own | {"pelmor_type": "int64"}, [((end - 1) * 1000, -12)]),
        (own | {"pelmor_type": "bool"}, [((end - 2) * 1000, 1)])], key=str)


@pytest.mark.parametrize(("kind", "value"), [
    ("stringValue", "text \0"), ("stringValue", ""), ("stringValue", LONGEST_TEXT),
    ("doubleValue", None), ("doubleValue", 1.7976931348623157e308),
    ("int64Value", "-9223372036854775808"), ("int64Value", "9007199254740993")])
def test_a_value_that_is_no_exact_number_is_a_row(client: Client, kind: str, value: object) -> None:
    end = now()
    assert client.send_points(point(end, {"a": "b"}, start=1, **{kind: value}), name="n") == 200
    row, = client.rows("points", "encode(name, 'escape')", "encode(labels, 'escape')",
                       "start_time", "end_time", "type", "convert_from(value, 'UTF8')")
    assert row[:5] == ["n", '{"a": "b"}', "1", str(end), kind]
    assert json.loads(row[5]) == value
    assert client.samples() == []


@pytest.mark.parametrize(("labels", "end"), [
    ({"empty": ""}, 0), ({"": "x"}, 0), ({"long": LONGEST_TEXT}, 0),
    ({str(number): "x" for number in range(101)}, 0), ({}, -400 * 86400), ({}, 2 * 86400)])
def test_a_point_that_no_series_can_hold_is_a_row(client: Client, labels: dict[str, str],
                                                  end: int) -> None:
    assert client.send_points(point(now() + end, labels, int64Value="1")) == 200
    row, = client.rows("points", "convert_from(labels, 'UTF8')")
    assert json.loads(row[0]) == labels


def test_points_of_one_second_are_all_stored(client: Client) -> None:
    end = now()
    assert client.send_points(*(point(end, int64Value="7") for _ in range(3)),
                              point(end, int64Value="8")) == 200
    assert client.wait_for_samples(4) == [(end * 1000 + place, value)
                                          for place, value in enumerate((7, 7, 7, 8))]


def test_repeated_points_are_stored_once(client: Client) -> None:
    end = now()
    first = [point(end, int64Value="7"), point(end, int64Value="7"),
             point(end - 5, stringValue="text")]
    assert client.send_points(*first) == 200
    assert client.send_points(*first, point(end, int64Value="9")) == 200
    assert client.wait_for_samples(3) == [(end * 1000, 7), (end * 1000 + 1, 7), (end * 1000 + 2, 9)]
    assert len(client.rows("points", "id")) == 1
    assert client.rows("journal", "octet_length(identities) / 16") == [["3"], ["1"]]


@pytest.mark.parametrize("connects", [False, True])
def test_equal_logs_are_as_many_records_as_were_answered(client: Client, connects: bool) -> None:
    for _ in range(4):
        assert client.send_log() == 200
        if connects:
            client.reconnect()
    wait_until(lambda: client.rows("logs", "delivered")[-1] == ["t"], "the delivery")
    assert client.send_log() == 200
    assert len(client.rows("logs", "id")) == 5


def test_a_log_whose_answer_did_not_arrive_is_stored_once(client: Client, cloud: Cloud) -> None:
    service = cloud.pid("service")
    assert client.send_log("AAAA") == 200
    # Stopped, the service cannot answer before the device has left.
    os.kill(service, signal.SIGSTOP)
    client.leave_a_log()
    os.kill(service, signal.SIGCONT)
    wait_until(lambda: len(client.rows("logs", "id")) == 2, "the log")
    assert client.send_log() == 200
    assert len(client.rows("logs", "id")) == 2


@pytest.mark.parametrize(("method", "body", "reason"), [
    ("metrics:batchCreatePoints", b'{"metricPoints": [', "the body is not JSON: Expecting value "
     "at line 1, column 19"),
    ("metrics:batchCreatePoints", b'{"\xff', "the body is not JSON: it is not UTF-8 at byte 2"),
    ("metrics:batchCreatePoints", b"[" * 100_000, "the body is not JSON: it is nested too deeply"),
    ("metrics:batchCreatePoints", b'"\\ud800"', "the body is not JSON: a text has half of a "
     "surrogate pair"),
    ("metrics:batchCreatePoints", b'{"metricPoints": NaN}', "the body is not JSON: JSON has no "
     "NaN"),
    ("metrics:batchCreatePoints", json.dumps({"metricPoints": [{"metricName": "a", "points": [
        point(1, int64Value="1"), point(1, int64Value="01")]}]}).encode(),
     "body.metricPoints[0].points[1].int64Value must match pattern ^(0|-?[1-9][0-9]{0,18})$"),
    ("structuredLogs", b'{"typeUrl": "", "value": "+/8="}', "body.value must match pattern"),
    ("writeLogs", b'{"typeUrl": "", "value": ""}', "body must contain ['properties', "
     "'deviceTimestamp', 'writeLog'] properties")])
def test_a_malformed_body_is_answered_with_the_place_of_the_fault(client: Client, method: str,
                                                                  body: bytes, reason: str) -> None:
    status, answer = client.send(method, body)
    assert status == 400
    assert answer["error"].startswith(reason)


def test_a_token_is_for_one_device_until_it_expires(client: Client, cloud: Cloud) -> None:
    log = {"typeUrl": "", "value": ""}
    # Before its first use: the cloud remembers valid tokens.
    cloud.sql(f"UPDATE access_tokens SET expires_at = 1 WHERE device = '{client.device}'")
    assert client.send("structuredLogs", log)[0] == 401
    other = Client(cloud, f"{client.device}-other")
    assert client.send("structuredLogs", log, token=other.access_token)[0] == 401
    assert other.send("structuredLogs", log, device="unknown")[0] == 401
    status, answer = client.refresh()
    assert (status, "refresh_token" in answer) == (200, False)
    assert client.send("structuredLogs", log, token=answer["access_token"])[0] == 200


def test_a_code_is_used_once_and_a_refresh_token_again(client: Client, cloud: Cloud) -> None:
    code = cloud.provision(client.device)
    assert client.exchange(code)[0] == 200
    assert client.exchange(code) == (400, {"error": "invalid_grant", "error_description":
                                           'Invalid "code" in request.'})
    assert [client.refresh()[0] for _ in range(3)] == [200] * 3
    assert client.ask_for_token(grant_type="refresh_token", refresh_token=client.refresh_token,
                                client_secret="wrong")[0] == 400


def test_a_malformed_token_request_is_answered_with_the_place_of_the_fault(client: Client) -> None:
    assert client.post_form(b"code=\xff") == (400, {
        "error": "invalid_request", "error_description": "the body is not UTF-8 at byte 5"})
    assert client.post_form(b"grant_type=other") == (400, {"error": "unsupported_grant_type"})


def test_a_long_token_of_another_provider_is_unknown(client: Client) -> None:
    log = {"typeUrl": "", "value": ""}
    assert client.send("structuredLogs", log, token=client.access_token * 1000)[0] == 401


def test_no_secret_is_in_a_log_or_in_the_database(client: Client, cloud: Cloud) -> None:
    secret = cloud.client_secret_file.read_text()
    code = cloud.provision(client.device)
    client.exchange(code)
    client.exchange(code)
    client.send("structuredLogs", b"{", token="foreign-" + client.access_token)
    # Malformed HTTP, which aiohttp answers with a plain text.
    for token in (client.access_token * 2000, client.access_token + "\x01"):
        with pytest.raises(json.JSONDecodeError):
            client.send("structuredLogs", b"{", token=token)
    logs = "".join(map(cloud.log, ("service", "postgresql", "victoria-metrics")))
    tables = str([cloud.sql(f"SELECT * FROM {table}") for table in
                  ("clients", "codes", "refresh_tokens", "access_tokens")])
    assert "token request rejected: invalid_grant" in logs
    assert logs.count("Error handling request") == 2
    for hidden in (secret, code, client.access_token, client.refresh_token):
        assert hidden not in logs + tables
