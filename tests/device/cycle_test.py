"""The start of an upload cycle, its calls, its end and its request."""

import json
import time

import pytest

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import Device
from lab.device.events import Event
from lab.device.values import byte, double, int64, uint64
from tests.device.helpers import (PERIOD, catch_up, numbers_of, record_numbers, start,
                                  start_ticking, tick, upload, wait_for_message)

pytestmark = pytest.mark.movable_clocks


def asked(device: Device, after: Event | None) -> list[str]:
    """The methods of Larder and tlsdate that the daemon has called."""
    return [event["method"] for event in device.event_log.events(after=after)
            if event.kind in ("larder.call", "tlsdate.call")]


def test_the_first_cycle_starts_one_interval_after_the_daemon(device: Device) -> None:
    start_ticking(device, period=600)
    record_numbers(device, 1)
    device.move_clocks(monotonic=570)
    catch_up(device)
    assert not device.larder.calls("CheckDeviceRegistered")
    assert not device.cloud.requests(Endpoint.METRICS)

    device.move_clocks(monotonic=30)

    device.larder.wait_for_call("CheckDeviceRegistered")
    assert numbers_of(device.cloud.wait_for_request(Endpoint.METRICS)) == [1]


def test_a_failed_registration_check_ends_the_cycle_first(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    device.record_structured("type", b"data")
    device.larder.refuse("CheckDeviceRegistered", times=1)

    before = tick(device)
    assert asked(device, before) == ["CheckDeviceRegistered"]

    # The next cycle sends both.
    assert numbers_of(upload(device)) == [1]
    device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)
    assert len(device.cloud.requests(Endpoint.METRICS)) == 1
    assert len(device.cloud.requests(Endpoint.STRUCTURED_LOGS)) == 1


def test_without_larder_the_cycle_makes_no_call_and_no_request(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    device.larder.stop()

    before = tick(device)
    assert asked(device, before) == []

    device.larder.start()
    device.larder.wait_for_call("UpdateState", after=before)
    assert numbers_of(upload(device)) == [1]
    assert len(device.cloud.requests(Endpoint.METRICS)) == 1


def test_without_an_access_token_the_cycle_does_not_ask_for_the_time(device: Device) -> None:
    device.cloud.answer(Endpoint.REFRESH, body={"access_token": "access-1"}, held=True)
    device.provision()
    start(device, period=4)

    before = tick(device, 4)
    assert asked(device, before) == ["CheckDeviceRegistered"]
    assert not device.clock.calls()

    device.cloud.wait_for_request(Endpoint.REFRESH)
    device.cloud.release(Endpoint.REFRESH)
    device.wait_for_access_token()
    before = tick(device, 4)
    assert asked(device, before) == [
        "CheckDeviceRegistered", "LastSyncInfo", "CheckDeviceRegistered"]


def test_without_network_time_the_cycle_asks_for_it_and_ends(device: Device) -> None:
    device.clock.set_source("rtc")
    start_ticking(device)
    for _ in range(2):
        before = tick(device)
        assert asked(device, before) == ["CheckDeviceRegistered", "LastSyncInfo"]

    # A cycle that continues checks the registration again, before the first log record.
    device.clock.set_source("network", synced=False)
    before = tick(device)
    assert asked(device, before) == [
        "CheckDeviceRegistered", "LastSyncInfo", "CheckDeviceRegistered"]
    wait_for_message(device, "INFO Network time acquired")

    before = tick(device)
    assert asked(device, before) == ["CheckDeviceRegistered", "CheckDeviceRegistered"]


def test_a_cycle_without_points_still_sends_the_logs(device: Device) -> None:
    start_ticking(device)
    device.record_structured("type", b"data")
    tick(device)
    device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)

    record_numbers(device, 1)
    assert numbers_of(upload(device)) == [1]
    assert len(device.cloud.requests(Endpoint.METRICS)) == 1
    assert device.read_file(names.START_TIME)


def test_an_empty_device_id_is_left_out_of_the_url(device: Device) -> None:
    start_ticking(device)
    device.larder.unregister()
    record_numbers(device, 1)
    assert upload(device).path == "/v1/devices/metrics:batchCreatePoints"


def test_the_request_has_one_content_type_and_one_token(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    request = upload(device)
    headers = [(name.lower(), value) for name, value in request.event["headers"]]
    assert [value for name, value in headers if name == "content-type"] == ["application/json"]
    assert [value for name, value in headers if name == "authorization"] == ["Bearer access-1"]
    assert (request.method, request.host) == ("POST", "pelmor.quintara.example")


def test_the_url_is_joined_by_single_slashes(device: Device) -> None:
    device.configure(upload_interval_in_seconds=str(PERIOD),
                     url="https://pelmor.quintara.example/v2//")
    device.provision()
    device.start_daemon()
    device.wait_for_access_token()
    device.larder.register("device-7")
    record_numbers(device, 1)
    assert upload(device).path == "/v2/device-7/metrics:batchCreatePoints"


def test_the_body_holds_the_points_by_name_in_byte_order(device: Device) -> None:
    device.write_file(names.START_TIME, "1700000000999999")
    start_ticking(device)
    recorded = [("é", {}, 1), ("ap/radio/x", {"band.width": "80.5", "a": "", "Ä\n\"": "ß"}, 0.25),
                ("a", {}, True), ("ap/radio", {}, ""), ("ap/radio/x", {"z": "1"}, int64(-7)),
                ("B", {}, uint64(2**64 - 1)), ("a", {}, byte(255)), ("", {}, double(-0.5))]
    device.record_metrics(recorded)

    request = upload(device)

    start = {"seconds": 1700000000}
    groups = request.json["metricPoints"]
    ends = {point["endTime"]["seconds"] for group in groups for point in group["points"]}
    assert len(ends) <= 2 and max(ends) - min(ends) <= 1, ends
    for group in groups:
        for point in group["points"]:
            assert set(point.pop("endTime")) == {"seconds"}
    assert groups == [
        {"metricName": "", "points": [{"labels": {}, "startTime": start, "doubleValue": -0.5}]},
        {"metricName": "B", "points": [{"labels": {}, "startTime": start, "int64Value": "-1"}]},
        {"metricName": "a", "points": [
            {"labels": {}, "startTime": start, "boolValue": True},
            {"labels": {}, "startTime": start, "int64Value": "255"}]},
        {"metricName": "ap/radio", "points": [
            {"labels": {}, "startTime": start, "stringValue": ""}]},
        {"metricName": "ap/radio/x", "points": [
            {"labels": {"band.width": "80.5", "a": "", "Ä\n\"": "ß"}, "startTime": start,
             "doubleValue": 0.25},
            {"labels": {"z": "1"}, "startTime": start, "int64Value": "-7"}]},
        {"metricName": "é", "points": [{"labels": {}, "startTime": start, "int64Value": "1"}]}]
    assert set(json.loads(request.body)) == {"metricPoints"}


def test_each_point_has_the_second_of_its_own_recording(device: Device) -> None:
    start_ticking(device)
    spans = []
    for moved, offset in ((0, 0), (100, 100), (-1000, -900)):
        device.move_clocks(wall=moved)
        before = time.time() + offset
        record_numbers(device, offset)
        spans.append((int(before), int(time.time() + offset)))

    request = upload(device)

    points = request.json["metricPoints"][0]["points"]
    ends = [point["endTime"]["seconds"] for point in points]
    assert all(first <= end <= last for (first, last), end in zip(spans, ends)), (spans, ends)
    # The clock was set back: the last point ends before it starts, and is sent unchanged.
    start_time = int(device.read_file(names.START_TIME) or b"0")
    assert [point["startTime"]["seconds"] for point in points] == [start_time // 1_000_000] * 3
    assert ends[0] == start_time // 1_000_000


def test_a_malformed_registration_reply_ends_the_cycle(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    device.larder.answer_with("CheckDeviceRegistered", "i", 5, times=1)
    before = tick(device)
    assert asked(device, before) == ["CheckDeviceRegistered"]
    assert numbers_of(upload(device)) == [1]
    assert len(device.cloud.requests(Endpoint.METRICS)) == 1
