"""The upload of structured and offline logs, one after the other."""

import base64
import time

import pytest

from lab.common import names
from lab.common.names import Endpoint, Host
from lab.device.device import DEFAULT_RELEASE, Device
from lab.device.events import Event
from lab.device.programs import Request
from tests.device.helpers import (LOG_STATUS, PERIOD, catch_up, messages, start_ticking, tick,
                                  upload, wait_for_message, wait_for_status)

pytestmark = pytest.mark.movable_clocks

TYPE = "type.example/ap.Event"
RELEASE_PROPERTIES = {"softwareVersion": "9000.1.0", "updateChannel": "stable-channel",
                      "hardwareId": "board-a"}


def record(device: Device, *numbers: int) -> None:
    """Records structured logs whose data is their number."""
    for number in numbers:
        device.record_structured(TYPE, str(number).encode())


def send_held(device: Device, *numbers: int, period: int = PERIOD) -> None:
    """Records, and lets a cycle send the first of them; the cloud withholds its answer."""
    device.cloud.answer(Endpoint.STRUCTURED_LOGS, held=True, times=1)
    record(device, *numbers)
    tick(device, period)
    device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)


def log_requests(device: Device, after: Event | None = None) -> list[Request]:
    return [request for request in device.cloud.requests(after=after)
            if request.endpoint in (Endpoint.STRUCTURED_LOGS, Endpoint.OFFLINE_LOGS)]


def number_of(request: Request) -> int:
    body = request.json["writeLog"][0] if "writeLog" in request.json else request.json
    return int(base64.urlsafe_b64decode(body["value"]))


def sent(device: Device, after: Event | None = None) -> list[int]:
    return [number_of(request) for request in log_requests(device, after)]


def drain(device: Device, period: int = PERIOD) -> list[int]:
    """The numbers of the records that one cycle sends. Returns when it has sent them all: a record
    that is added here is the last."""
    record(device, 999)
    before = tick(device, period)
    device.wait_for(lambda event: event.matches("cloud.request", {
        "endpoint": Endpoint.STRUCTURED_LOGS}) and number_of(Request.of(event)) == 999,
        after=before, what="the last record")
    wait_for_status(device, LOG_STATUS, after=before, count=len(sent(device, before)))
    return sent(device, before)[:-1]


def fail_once(device: Device, failure: str) -> str:
    """Prepares a failure of the next log request; returns the start of the line in the log."""
    if failure == "refused":
        device.cloud.answer(Endpoint.STRUCTURED_LOGS, 500, body="not\nnow", times=1)
        return "WARNING Error uploading log: not\\nnow"
    if failure == "redirected":
        device.cloud.answer(Endpoint.STRUCTURED_LOGS, 302, body="there", times=1, headers={
            "Location": "https://pelmor.quintara.example/elsewhere"})
        return "WARNING Error uploading log: there"
    if failure == "expired":
        device.cloud.answer(Endpoint.STRUCTURED_LOGS, 401, body="expired", times=1)
        return "WARNING Error uploading log: expired"
    device.cloud.send_garbage(Endpoint.STRUCTURED_LOGS, times=1)
    return "ERROR Error uploading log: "


@pytest.mark.parametrize("data, value", [
    (b"\xfb\xff\x01", "-_8B"), (b"", ""), (b"\x00", "AA=="), (b"\x00\xff", "AP8="),
    (bytes(range(256)), base64.urlsafe_b64encode(bytes(range(256))).decode())])
def test_a_structured_record_is_its_type_and_its_data(
        device: Device, data: bytes, value: str) -> None:
    start_ticking(device)
    device.record_structured("Ä type/é\n", data)
    tick(device)
    request = device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)
    assert request.json == {"typeUrl": "Ä type/é\n", "value": value}
    assert (request.method, request.host, request.path) == (
        "POST", "pelmor.quintara.example", "/v1/devices/device-0001/structuredLogs")
    headers = [(name.lower(), text) for name, text in request.event["headers"]]
    assert [text for name, text in headers if name == "authorization"] == ["Bearer access-1"]
    [content_type] = [text for name, text in headers if name == "content-type"]
    assert content_type.split(";")[0] == "application/json"


@pytest.mark.parametrize("release, properties", [
    (DEFAULT_RELEASE, RELEASE_PROPERTIES),
    ({"VARELNOS_RELEASE_VERSION": "9000.1.0", "VARELNOS_RELEASE_BOARD": "board-a"},
     RELEASE_PROPERTIES | {"updateChannel": "unknown"}),
    ({"OTHER": "1"}, {"softwareVersion": "unknown", "updateChannel": "unknown",
                      "hardwareId": "unknown"})])
def test_an_offline_record_has_the_release_and_its_own_time(
        device: Device, release: dict[str, str], properties: dict[str, str]) -> None:
    device.write_file(names.RELEASE, "".join(f"{key}={value}\n" for key, value in release.items()))
    start_ticking(device)
    # The release file is read at the start only.
    device.write_file(names.RELEASE, "VARELNOS_RELEASE_VERSION=2\nVARELNOS_RELEASE_TRACK=2\n")
    before = int(time.time())
    device.record_offline(TYPE, b"\xfb\xff\x01")
    after = int(time.time())
    device.move_clocks(wall=5000)
    tick(device)
    request = device.cloud.wait_for_request(Endpoint.OFFLINE_LOGS)
    seconds = request.json["deviceTimestamp"]["seconds"]
    assert before <= seconds <= after
    assert request.json == {
        "properties": properties, "deviceTimestamp": {"seconds": seconds},
        "writeLog": [{"typeUrl": TYPE, "value": "-_8B"}]}
    assert request.path == "/v1/devices/device-0001/writeLogs"
    assert request.headers["authorization"] == "Bearer access-1"
    assert request.headers["content-type"].split(";")[0] == "application/json"


def test_an_empty_device_id_is_left_out_of_the_urls(device: Device) -> None:
    start_ticking(device)
    device.larder.unregister()
    device.record_offline(TYPE, b"0")
    device.record_structured(TYPE, b"0")
    tick(device)
    device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)
    assert [request.path for request in log_requests(device)] == [
        "/v1/devices/writeLogs", "/v1/devices/structuredLogs"]


def test_a_backlog_is_sent_in_one_cycle(device: Device) -> None:
    start_ticking(device)
    for number in range(8):
        kind = device.record_offline if number in (1, 2, 5) else device.record_structured
        kind(TYPE, str(number).encode())
    before = device.mark()
    assert drain(device) == list(range(8))
    assert [request.endpoint for request in log_requests(device)] == [
        Endpoint.OFFLINE_LOGS if number in (1, 2, 5) else Endpoint.STRUCTURED_LOGS
        for number in range(9)]
    # The registration is checked before each.
    catch_up(device)
    steps = [event["method"] if event.kind == "larder.call" else event.kind
             for event in device.event_log.events(after=before)
             if event.kind in ("larder.call", "cloud.request")]
    check = "CheckDeviceRegistered"
    assert steps == [check] + [check, "cloud.request"] * 9 + [check]


def test_a_record_accepted_with_any_2xx_status_is_removed_silently(device: Device) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.STRUCTURED_LOGS, 204, body="", times=1)
    record(device, 1, 2)
    assert drain(device) == [1, 2]
    record(device, 3)
    assert drain(device) == [3]
    assert [line for line in messages(device) if "uploading" in line] == []


@pytest.mark.parametrize("failure", ["refused", "redirected", "expired", "garbage"])
def test_a_failure_ends_the_chain_until_the_next_cycle(device: Device, failure: str) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.STRUCTURED_LOGS, times=1)
    expected = fail_once(device, failure)
    record(device, 1, 2, 3)
    before = tick(device)
    device.wait_for_log("Error uploading log: ")
    [line] = [line for line in messages(device, before) if "uploading" in line]
    assert line.startswith(expected), line
    if failure == "expired":
        device.wait_for_access_token(after=before)
    assert sent(device) == [1, 2]
    checks = len(device.larder.calls("CheckDeviceRegistered", before))
    assert checks == 3, "the cycle's own, the first record's and the second's"

    # The record is still at the front.
    assert drain(device) == [2, 3]
    assert not device.cloud.requests(Endpoint.UNKNOWN)
    statuses = {"refused": 500, "redirected": 302, "expired": 401}
    assert [sample.value for sample in device.samples(LOG_STATUS)] == [
        200, *([statuses[failure]] if failure in statuses else []), 200, 200, 200]


def test_a_rejected_record_blocks_the_records_behind_it(device: Device) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.STRUCTURED_LOGS, 403, body="never", times=3)
    record(device, 1, 2)
    for count in range(1, 4):
        tick(device)
        wait_for_message(device, "WARNING Error uploading log: never", count=count)
    assert sent(device) == [1, 1, 1]
    assert len(device.cloud.requests(Endpoint.REFRESH)) == 1
    assert drain(device) == [1, 2]


def test_a_record_is_sent_again_when_the_cloud_returns(device: Device) -> None:
    start_ticking(device)
    device.cloud.go_away(Host.MONITORING)
    record(device, 1)
    tick(device)
    line = device.wait_for_log("Error uploading log: ")["text"]
    assert "] Error uploading log: " in line and " ERROR " in line
    assert len(line.partition("Error uploading log: ")[2]) > 5, line
    device.cloud.come_back(Host.MONITORING)
    assert drain(device) == [1]


def test_a_failed_registration_check_ends_the_chain(device: Device) -> None:
    start_ticking(device)
    send_held(device, 1, 2)
    device.larder.refuse("CheckDeviceRegistered", times=1)
    device.cloud.release(Endpoint.STRUCTURED_LOGS)
    device.larder.wait_for_call("CheckDeviceRegistered", outcome="refused")
    assert drain(device) == [2]
    assert sent(device)[:2] == [1, 2]


def test_each_record_of_a_chain_is_sent_to_the_current_device_id(device: Device) -> None:
    start_ticking(device)
    send_held(device, 1, 2)
    device.larder.register("device-2")
    device.cloud.release(Endpoint.STRUCTURED_LOGS)
    assert device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS, count=2).path == (
        "/v1/devices/device-2/structuredLogs")


def test_one_log_request_is_in_flight_at_a_time(device: Device) -> None:
    start_ticking(device, period=4)
    send_held(device, 1, 2, period=4)
    before = tick(device, 4)
    assert len(device.larder.calls("CheckDeviceRegistered", before)) == 2
    # If that cycle had sent the record again, its request would precede these points.
    device.record_metric("ap/number", {}, 1)
    upload(device, 4)
    assert sent(device) == [1]
    device.cloud.release(Endpoint.STRUCTURED_LOGS)
    wait_for_status(device, LOG_STATUS, count=2)
    assert sent(device) == [1, 2]
    assert drain(device, 4) == []


def test_of_more_than_twenty_records_the_oldest_are_dropped(device: Device) -> None:
    start_ticking(device)
    record(device, *range(1, 23))
    # The record that `drain` adds drops one more.
    assert drain(device) == list(range(4, 23))


def test_a_success_removes_the_front_record_even_if_another_was_sent(device: Device) -> None:
    start_ticking(device)
    send_held(device, 0)
    record(device, *range(1, 21))
    device.cloud.release(Endpoint.STRUCTURED_LOGS)
    # The twenty dropped record 0 from the front: its success removes record 1, never sent.
    wait_for_status(device, LOG_STATUS, count=20)
    assert sent(device) == [0, *range(2, 21)]
    assert drain(device) == []


def test_a_record_waits_for_the_next_cycle(device: Device) -> None:
    start_ticking(device)
    record(device, 1)
    assert drain(device) == [1]
    record(device, 2)
    catch_up(device)
    assert len(log_requests(device)) == 2
    before = tick(device)
    device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS, after=before)
    assert sent(device, before) == [2]
