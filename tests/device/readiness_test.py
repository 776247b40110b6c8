"""Records are accepted while the daemon has an access token and the time from the network."""

import pytest

from lab.common.names import Endpoint
from lab.device.device import Device
from tests.device.helpers import (messages, register, settled_mark, start_ready, wait_for_message,
                                  wait_for_whole_cycle)

ACQUIRED = "INFO Network time acquired"


def record_one_of_each(device: Device, name: str) -> None:
    device.record_metric(name, {}, 1)
    device.record_structured(name, b"")
    device.record_offline(name, b"")


def assert_only_uploads(device: Device, *names: str) -> None:
    """Waits for the last request of one-of-each: the others precede it."""
    device.cloud.wait_for_request(Endpoint.METRICS)
    device.cloud.wait_for_answer(Endpoint.OFFLINE_LOGS, count=len(names))
    metrics = [group["metricName"] for request in device.cloud.requests(Endpoint.METRICS)
               for group in request.json["metricPoints"]]
    structured = [request.json["typeUrl"] for request in
                  device.cloud.requests(Endpoint.STRUCTURED_LOGS)]
    offline = [request.json["writeLog"][0]["typeUrl"] for request in
               device.cloud.requests(Endpoint.OFFLINE_LOGS)]
    assert (sorted(metrics), structured, offline) == (sorted(names), list(names), list(names))


def log_texts(device: Device, text: str) -> list[str]:
    return [message for message in messages(device) if text in message]


def test_without_a_token_records_are_dropped_and_the_time_is_not_asked_for(device: Device) -> None:
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")
    start = settled_mark(device)
    record_one_of_each(device, "before")
    assert messages(device, after=start) == []
    device.larder.add_credentials_command()
    device.larder.wait_for_call("Complete")
    assert device.clock.calls() == []

    record_one_of_each(device, "after")

    assert_only_uploads(device, "after")
    assert len(device.clock.calls("LastSyncInfo")) == 1


def test_while_a_token_is_being_fetched_records_are_dropped(device: Device) -> None:
    device.provision()
    device.larder.refuse("CheckDeviceRegistered")
    device.cloud.answer("refresh", body={"access_token": "access-2"}, delay=1, times=1)
    device.start_daemon()
    device.cloud.wait_for_request(Endpoint.REFRESH)
    record_one_of_each(device, "before")
    assert device.event_log.events("cloud.answer") == [], "recorded before the token was sent"
    assert device.clock.calls() == []
    device.wait_for_access_token()
    record_one_of_each(device, "after")
    register(device)

    assert_only_uploads(device, "after")
    request = device.cloud.requests(Endpoint.METRICS)[0]
    assert request.headers["authorization"] == "Bearer access-2"
    assert len(device.cloud.requests(Endpoint.REFRESH)) == 1


@pytest.mark.parametrize("source, synced", [
    ("", True), ("Network", True), ("NETWORK", True), ("network ", True), ("networks", True),
    ("net", True), ("rtc", True), ("disk", False)])
def test_only_the_network_is_a_source_of_time(device: Device, source: str, synced: bool) -> None:
    device.clock.set_source(source, synced=synced)
    start_ready(device)
    start = settled_mark(device)
    record_one_of_each(device, "before")
    assert len(device.clock.calls("LastSyncInfo")) == 3, "each record asks the clock"
    assert messages(device, after=start) == []

    device.clock.set_source("network")
    record_one_of_each(device, "after")
    register(device)

    assert_only_uploads(device, "after")
    assert len(device.clock.calls("LastSyncInfo")) == 4
    assert log_texts(device, "Network time") == [ACQUIRED]


def test_the_source_of_the_time_decides_and_not_the_synced_flag(device: Device) -> None:
    device.clock.set_source("network", synced=False)
    start_ready(device)
    record_one_of_each(device, "taken")
    wait_for_message(device, ACQUIRED)
    register(device)
    assert_only_uploads(device, "taken")


def test_network_time_is_asked_for_until_it_is_acquired(device: Device) -> None:
    start_ready(device)
    record_one_of_each(device, "first")
    device.clock.set_source("rtc", synced=False)
    record_one_of_each(device, "second")
    device.clock.stop()
    record_one_of_each(device, "third")
    device.clock.start()
    register(device)

    assert_only_uploads(device, "first", "second", "third")
    assert len(device.clock.calls()) == 1
    assert log_texts(device, "Network time") == [ACQUIRED]


def test_a_cycle_asks_for_the_time_too(device: Device) -> None:
    device.clock.set_source("rtc")
    start_ready(device)
    register(device)
    device.clock.wait_for_call("LastSyncInfo", count=2)
    device.clock.set_source("network")
    wait_for_message(device, ACQUIRED)
    asked = len(device.clock.calls())
    wait_for_whole_cycle(device)
    assert len(device.clock.calls()) == asked
    assert device.cloud.requests(Endpoint.METRICS) == []


def test_a_time_signal_is_ignored(device: Device) -> None:
    device.clock.set_source("rtc")
    start_ready(device)
    device.clock.emit_time_updated("network")
    # tlsdate's reply to the first call arrives after the signal.
    record_one_of_each(device, "before")
    record_one_of_each(device, "before too")
    assert len(device.clock.calls("LastSyncInfo")) == 6
    assert log_texts(device, "Network time") == []
    device.clock.set_source("network")
    record_one_of_each(device, "after")
    register(device)
    assert_only_uploads(device, "after")


@pytest.mark.parametrize("why", ["refused", "no manager", "no Larder"])
def test_a_device_that_is_not_registered_keeps_its_records(device: Device, why: str) -> None:
    device.provision()
    leave, come_back = {
        "refused": (lambda: device.larder.refuse("CheckDeviceRegistered"),
                    lambda: device.larder.behave()),
        "no manager": (device.larder.remove_manager, device.larder.add_manager),
        "no Larder": (device.larder.stop, device.larder.start)}[why]
    leave()
    device.start_daemon()
    device.wait_for_access_token()
    record_one_of_each(device, "unregistered")
    assert device.cloud.requests(Endpoint.METRICS) == []
    come_back()
    assert_only_uploads(device, "unregistered")


def test_a_device_with_an_empty_id_still_uploads(device: Device) -> None:
    device.larder.unregister()
    device.provision()
    device.start_daemon()
    device.wait_for_access_token()
    record_one_of_each(device, "taken")

    assert_only_uploads(device, "taken")
    paths = {request.endpoint: request.path for request in device.cloud.requests()}
    assert paths == {Endpoint.REFRESH: "/token",
                     Endpoint.METRICS: "/v1/devices/metrics:batchCreatePoints",
                     Endpoint.STRUCTURED_LOGS: "/v1/devices/structuredLogs",
                     Endpoint.OFFLINE_LOGS: "/v1/devices/writeLogs"}


@pytest.mark.movable_clocks
def test_without_a_token_records_are_dropped_until_a_new_one_arrives(device: Device) -> None:
    start_ready(device)
    device.record_metric("kept", {}, 1)
    device.cloud.answer("metrics", status=401, times=1)
    register(device)
    wait_for_message(device, "INFO Upload failed due to expired access token")
    record_one_of_each(device, "between")
    assert len(device.cloud.requests(Endpoint.REFRESH)) == 1, "within 30 seconds of the first"

    before = device.mark()
    device.move_clocks(monotonic=30)
    device.wait_for_access_token(after=before)
    device.record_metric("after", {}, 1)
    device.cloud.wait_for_answer(Endpoint.METRICS, count=2)
    wait_for_whole_cycle(device)

    sent = [[group["metricName"] for group in request.json["metricPoints"]]
            for request in device.cloud.requests(Endpoint.METRICS)]
    assert sent[0] == ["kept"]
    assert sorted({name for names in sent[1:] for name in names}) == ["after", "kept"]
    assert device.cloud.requests(Endpoint.STRUCTURED_LOGS) == []
    assert device.cloud.requests(Endpoint.OFFLINE_LOGS) == []
