"""Points are kept or dropped by the cloud's answer, by their number and by their age."""

import pytest

from lab.common.names import Endpoint, Host
from lab.device.device import Device
from lab.device.programs import Request
from tests.device.helpers import (METRICS_STATUS, catch_up, message_of, messages, numbers_of,
                                  record_numbers, settled_mark, start_ticking, tick, upload,
                                  wait_for_message, wait_for_status)

pytestmark = pytest.mark.movable_clocks

AGE = 30 * 60
# In seconds: longer than any step of a test.
MARGIN = 30


def sent(device: Device) -> list[list[int]]:
    """The numbers of the points in each request so far."""
    return [numbers_of(request) for request in device.cloud.requests(Endpoint.METRICS)]


def lines_on_uploads(device: Device) -> list[str]:
    return [line for line in messages(device) if "pload" in line]


@pytest.mark.parametrize("status", [200, 202, 204, 299])
def test_accepted_points_are_removed_silently(device: Device, status: int) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.METRICS, status, body="", times=1)
    record_numbers(device, 1)
    upload(device)
    record_numbers(device, 2)
    upload(device)
    assert sent(device) == [[1], [2]]
    assert lines_on_uploads(device) == []


@pytest.mark.parametrize("status", [302, 307, 400, 403, 404, 429, 500, 503])
def test_rejected_points_are_dropped_with_a_warning(device: Device, status: int) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.METRICS, status, body="no, thanks", times=1, headers={
        "Location": "https://pelmor.quintara.example/v1/elsewhere"})
    record_numbers(device, 1)
    upload(device)
    wait_for_message(device, "WARNING Error uploading metrics: no, thanks")
    record_numbers(device, 2)
    upload(device)
    assert sent(device) == [[1], [2]]
    assert lines_on_uploads(device) == ["WARNING Error uploading metrics: no, thanks"]
    # Redirects are not followed.
    assert not device.cloud.requests(Endpoint.UNKNOWN)
    assert len(device.cloud.requests(Endpoint.REFRESH)) == 1


def test_an_expired_token_keeps_the_points_for_the_next_cycle(device: Device) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.METRICS, 401, body="expired", times=1)
    device.cloud.answer(Endpoint.REFRESH, body={"access_token": "access-2"})
    record_numbers(device, 1)
    before = settled_mark(device)
    upload(device)
    device.wait_for_access_token(after=before)
    assert messages(device, before) == [
        line for line in messages(device, before) if "start time" in line] + [
        "INFO Access token invalidated", "INFO Refreshing access token.",
        "INFO Upload failed due to expired access token",
        "INFO Successfully fetched access token: 200"]

    record_numbers(device, 2)
    again = upload(device)
    assert sent(device) == [[1], [1, 2]]
    assert again.headers["authorization"] == "Bearer access-2"


def fail_by(device: Device, failure: str) -> None:
    if failure == "cut":
        device.cloud.cut_connection(Endpoint.METRICS, times=1)
    elif failure == "half":
        device.cloud.cut_connection(Endpoint.METRICS, times=1, after="HTTP/1.1 500 Sorry\r\nX")
    elif failure == "garbage":
        device.cloud.send_garbage(Endpoint.METRICS, times=1)
    elif failure == "stranger":
        device.cloud.refuse_tls(Host.MONITORING)
    else:
        device.cloud.go_away(Host.MONITORING)


def repair(device: Device, failure: str) -> None:
    if failure == "away":
        device.cloud.come_back(Host.MONITORING)
    device.cloud.trust_tls(Host.MONITORING)


@pytest.mark.parametrize("failure", ["cut", "half", "garbage", "stranger", "away"])
def test_a_transport_error_keeps_the_points(device: Device, failure: str) -> None:
    start_ticking(device)
    fail_by(device, failure)
    record_numbers(device, 1)
    tick(device)
    device.wait_for_log("Error uploading metrics: ")
    repair(device, failure)

    record_numbers(device, 2)
    upload(device)

    assert sent(device)[-1] == [1, 2]
    [line] = lines_on_uploads(device)
    assert line.startswith("ERROR Error uploading metrics: ") and len(line) > 35, line
    assert [sample.value for sample in device.samples(METRICS_STATUS)] == [200]


def test_a_metrics_request_times_out_after_ten_seconds(device: Device) -> None:
    start_ticking(device, period=600)
    device.cloud.never_answer(Endpoint.METRICS, times=1)
    record_numbers(device, 1)
    tick(device, 600)
    device.cloud.wait_for_request(Endpoint.METRICS)
    device.move_clocks(monotonic=5)
    catch_up(device)
    catch_up(device)
    assert not lines_on_uploads(device)
    device.move_clocks(monotonic=5)
    line = device.wait_for_log("Error uploading metrics: ")
    assert message_of(line["text"]).startswith("ERROR "), line
    upload(device, 600)
    assert sent(device) == [[1], [1]]


def test_a_body_cannot_forge_a_line_of_the_log(device: Device) -> None:
    start_ticking(device)
    forged = "2026-01-01T00:00:00.000000Z INFO ap-pelmor[6] daemon.cc:54] Starting pelmor daemon"
    device.cloud.answer(Endpoint.METRICS, 500, times=1,
                        body=f"a\n{forged}\r\n\x00\x1b[31m\x7f\té")
    record_numbers(device, 1)
    upload(device)
    expected = f"Error uploading metrics: a\\n{forged}\\r\\n\\x00\\x1b[31m\\x7f\\té"
    wait_for_message(device, f"WARNING {expected}")
    assert device.stop_daemon() == 0
    assert messages(device).count("INFO Starting pelmor daemon") == 1
    in_syslog = [event["text"] for event in device.event_log.events("syslog.line")
                 if "Error uploading" in event["text"]]
    assert len(in_syslog) == 1 and in_syslog[0].endswith(f"] {expected}"), in_syslog


def test_a_huge_body_is_cut_in_the_log(device: Device) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.METRICS, 500, body="x" * (2 * 1024 * 1024), times=1)
    record_numbers(device, 1)
    upload(device)
    line = message_of(device.wait_for_log("Error uploading metrics: ")["text"])
    text, _, note = line.removeprefix("WARNING ").partition(" [")
    assert len(text) == 8192 and set(text.removeprefix("Error uploading metrics: ")) == {"x"}
    # Only the first MiB of a body is kept.
    left_out = len("Error uploading metrics: ") + 1024 * 1024 - 8192
    assert note == f"{left_out} bytes left out]"
    record_numbers(device, 2)
    upload(device)
    assert sent(device) == [[1], [2]]


def test_only_the_newest_thousand_points_are_sent(device: Device) -> None:
    start_ticking(device)
    device.record_metrics([("ap/number", {}, number) for number in range(1500)])
    assert numbers_of(upload(device)) == list(range(500, 1500))
    record_numbers(device, 1500)
    assert numbers_of(upload(device)) == [1500]


def test_kept_points_count_among_the_thousand(device: Device) -> None:
    start_ticking(device)
    device.cloud.cut_connection(Endpoint.METRICS, times=1)
    device.record_metrics([("ap/number", {}, number) for number in range(10)])
    tick(device)
    device.wait_for_log("Error uploading metrics: ")
    device.record_metrics([("ap/number", {}, number) for number in range(10, 1005)])
    assert numbers_of(upload(device)) == list(range(5, 1005))


def test_points_of_half_an_hour_are_too_old(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    device.move_clocks(wall=MARGIN)
    record_numbers(device, 2)
    device.move_clocks(wall=AGE - MARGIN)
    assert numbers_of(upload(device)) == [2]


def test_points_that_are_all_too_old_make_no_request(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    device.move_clocks(wall=AGE)
    tick(device)
    record_numbers(device, 2)
    assert numbers_of(upload(device)) == [2]
    assert sent(device) == [[2]]


def test_kept_points_age_too(device: Device) -> None:
    start_ticking(device)
    device.cloud.cut_connection(Endpoint.METRICS, times=1)
    record_numbers(device, 1)
    tick(device)
    device.wait_for_log("Error uploading metrics: ")
    device.move_clocks(wall=AGE - MARGIN)
    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    before = settled_mark(device)
    record_numbers(device, 2)
    upload(device)
    device.wait_for_access_token(after=before)
    device.move_clocks(wall=MARGIN)
    record_numbers(device, 3)
    upload(device)
    assert sent(device) == [[1], [1, 2], [2, 3]]


def test_an_old_point_behind_a_younger_one_is_kept(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    device.move_clocks(wall=-3600)
    record_numbers(device, 2)
    # The first point is half an hour old, less a margin, the second an hour older.
    device.move_clocks(wall=3600 + AGE - MARGIN)
    assert numbers_of(upload(device)) == [1, 2]


def hold_metrics(device: Device, *statuses: int) -> None:
    for status in statuses:
        device.cloud.answer(Endpoint.METRICS, status, body="late", held=True, times=1)


def next_request(device: Device, period: int) -> Request:
    before = tick(device, period)
    return device.cloud.wait_for_request(Endpoint.METRICS, after=before)


def test_points_recorded_during_a_request_survive_its_answer(device: Device) -> None:
    start_ticking(device)
    hold_metrics(device, 200)
    record_numbers(device, 1)
    tick(device)
    device.cloud.wait_for_request(Endpoint.METRICS)
    record_numbers(device, 2)
    device.cloud.release(Endpoint.METRICS)
    wait_for_status(device, METRICS_STATUS)
    upload(device)
    assert sent(device) == [[1], [2]]


def test_with_two_requests_in_flight_the_first_answer_decides(device: Device) -> None:
    start_ticking(device, period=4)
    hold_metrics(device, 200, 401)
    record_numbers(device, 1)
    assert numbers_of(next_request(device, 4)) == [1]
    record_numbers(device, 2)
    assert numbers_of(next_request(device, 4)) == [1, 2]
    record_numbers(device, 3)

    # The first answer empties the queue, with the points of the second request.
    device.cloud.release(Endpoint.METRICS)
    wait_for_status(device, METRICS_STATUS)
    device.cloud.release(Endpoint.METRICS)
    wait_for_status(device, METRICS_STATUS, count=2)
    wait_for_message(device, "INFO Upload failed due to expired access token")
    # The next refresh is at the earliest half a minute after the last.
    device.move_clocks(monotonic=4 * 8)
    device.wait_for_access_token(after=device.event_log.events("cloud.request")[-1])
    upload(device, 4)
    assert sent(device) == [[1], [1, 2], [3]]


def test_a_rejection_drops_the_points_of_a_second_request_in_flight(device: Device) -> None:
    start_ticking(device, period=4)
    hold_metrics(device, 500, 200)
    record_numbers(device, 1)
    next_request(device, 4)
    record_numbers(device, 2)
    next_request(device, 4)
    device.cloud.release(Endpoint.METRICS)
    wait_for_message(device, "WARNING Error uploading metrics: late")
    record_numbers(device, 3)
    device.cloud.release(Endpoint.METRICS)
    wait_for_status(device, METRICS_STATUS, count=2)
    upload(device, 4)
    assert sent(device) == [[1], [1, 2], [3]]
