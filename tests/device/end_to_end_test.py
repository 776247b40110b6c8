"""From a device without credentials to its records in the cloud."""

import time

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import DEFAULT_CONFIGURATION, Device
from lab.device.values import Variant, int32, plain
from tests.device.helpers import COMMAND, register, start_ready

EVENT_TYPE = "type.example/ap.Event"
EVENT_DATA = b"\xfb\xff\x01"


def seconds_now() -> int:
    return int(time.time())


def credentials_states(device: Device) -> list[dict]:
    """The credentials states that Larder received, without their nonces."""
    states = [plain(call["arguments"][0])[names.CREDENTIALS_STATE]
              for call in device.larder.calls("UpdateState")]
    return [{"_provisioned": state["_provisioned"]} for state in states]


def test_a_command_with_a_code_provisions_the_device(device: Device) -> None:
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")
    device.larder.add_command(COMMAND, names.CREDENTIALS_COMMAND, "queued",
                              {"_authorizationCode": "code 1/&"})

    device.larder.wait_for_call("Complete", path=COMMAND, arguments=[{}])

    assert device.wait_for_file(names.REFRESH_TOKEN) == b"refresh-1"
    [exchange] = device.cloud.requests(Endpoint.EXCHANGE)
    assert (exchange.method, exchange.host, exchange.path) == (
        "POST", "oauth2.quintara.example", "/token")
    assert exchange.form == [
        ("code", "code 1/&"),
        ("client_id", DEFAULT_CONFIGURATION["PELMOR_CLIENT_ID"]),
        ("client_secret", DEFAULT_CONFIGURATION["PELMOR_CLIENT_SECRET"]),
        ("redirect_uri", "oob"),
        ("scope", DEFAULT_CONFIGURATION["PELMOR_SCOPE"]),
        ("grant_type", "authorization_code")]
    assert [call["method"] for call in device.larder.calls()
            if call["interface"] == names.LARDER_COMMAND] == ["SetProgress", "Complete"]
    states = credentials_states(device)
    assert states[0] == {"_provisioned": False}
    assert states[-1] == {"_provisioned": True}


def test_the_published_state_has_its_exact_form(device: Device) -> None:
    before = seconds_now()
    device.start_daemon()
    unprovisioned = device.larder.wait_for_call("UpdateState")["arguments"][0]
    device.larder.add_credentials_command(COMMAND)
    device.larder.wait_for_call("Complete")
    provisioned = device.larder.calls("UpdateState")[-1]["arguments"][0]

    entries = unprovisioned[names.CREDENTIALS_STATE]
    assert entries.signature == "a{sv}"
    assert entries.value["_provisioned"] == Variant("b", False)
    assert entries.value["_nonce"].signature == "i"
    assert before <= entries.value["_nonce"].value <= seconds_now()
    assert provisioned == {names.CREDENTIALS_STATE: Variant("a{sv}", {
        "_provisioned": Variant("b", True), "_nonce": Variant("i", 0)})}


def test_points_reach_the_cloud_grouped_by_name(device: Device) -> None:
    start_ready(device)
    before = seconds_now()
    device.record_metric("ap/radio/utilization", {"band": "5g"}, 0.25)
    device.record_metric("ap/clients", {}, int32(12))
    device.record_metric("ap/radio/utilization", {"band": "2g"}, 0.5)
    register(device)

    request = device.cloud.wait_for_request(Endpoint.METRICS)

    assert (request.method, request.host, request.path) == (
        "POST", "pelmor.quintara.example",
        "/v1/devices/device-0001/metrics:batchCreatePoints")
    assert request.headers["authorization"] == "Bearer access-1"
    assert request.headers["content-type"].startswith("application/json")
    start = {"seconds": int(device.read_file(names.START_TIME) or b"0") // 1_000_000}
    clients, utilization = request.json["metricPoints"]
    ends = [point["endTime"]["seconds"] for group in (clients, utilization)
            for point in group["points"]]
    assert all(before <= end <= seconds_now() for end in ends)
    assert start["seconds"] == ends[1], "the oldest point's time is the start time"
    assert request.json == {"metricPoints": [
        {"metricName": "ap/clients", "points": [
            {"labels": {}, "startTime": start, "endTime": {"seconds": ends[0]},
             "int64Value": "12"}]},
        {"metricName": "ap/radio/utilization", "points": [
            {"labels": {"band": "5g"}, "startTime": start, "endTime": {"seconds": ends[1]},
             "doubleValue": 0.25},
            {"labels": {"band": "2g"}, "startTime": start, "endTime": {"seconds": ends[2]},
             "doubleValue": 0.5}]}]}


def test_logs_are_uploaded_one_after_the_other(device: Device) -> None:
    start_ready(device)
    before = seconds_now()
    device.record_structured(EVENT_TYPE, EVENT_DATA)
    device.record_offline(EVENT_TYPE, EVENT_DATA)
    register(device)

    offline = device.cloud.wait_for_request(Endpoint.OFFLINE_LOGS)

    [structured] = device.cloud.requests(Endpoint.STRUCTURED_LOGS)
    assert structured.path == "/v1/devices/device-0001/structuredLogs"
    assert structured.json == {"typeUrl": EVENT_TYPE, "value": "-_8B"}
    assert offline.path == "/v1/devices/device-0001/writeLogs"
    seconds = offline.json["deviceTimestamp"]["seconds"]
    assert before <= seconds <= seconds_now()
    assert offline.json == {
        "properties": {"softwareVersion": "9000.1.0", "updateChannel": "stable-channel",
                       "hardwareId": "board-a"},
        "deviceTimestamp": {"seconds": seconds},
        "writeLog": [{"typeUrl": EVENT_TYPE, "value": "-_8B"}]}
    assert [request.headers["authorization"] for request in (structured, offline)] == [
        "Bearer access-1", "Bearer access-1"]
    [answer] = device.event_log.events("cloud.answer", endpoint=Endpoint.STRUCTURED_LOGS)
    assert answer.number < offline.event.number


def test_the_daemon_measures_its_own_requests(device: Device) -> None:
    start_ready(device)
    device.record_metric("ap/clients", {}, 12)
    device.record_metric("ap/clients", {}, 13)
    device.record_metric("ap/uptime", {}, 3.5)
    device.record_structured(EVENT_TYPE, EVENT_DATA)
    register(device)

    device.wait_for_sample("AccessPoint.PelmorMetrics.ResponseStatusCode")
    device.wait_for_sample("AccessPoint.PelmorStructuredLog.ResponseStatusCode")

    size = len(device.cloud.requests(Endpoint.METRICS)[0].body)
    assert {sample.name: sample.value for sample in device.samples()} == {
        "AccessPoint.PelmorMetrics.RequestPointCount": 2,
        "AccessPoint.PelmorMetrics.RequestWireSize": size,
        "AccessPoint.PelmorMetrics.RequestWireSizePerPoint": size // 2,
        "AccessPoint.PelmorMetrics.ResponseStatusCode": 200,
        "AccessPoint.PelmorStructuredLog.RequestWireSize": 4,
        "AccessPoint.PelmorStructuredLog.ResponseStatusCode": 200}
    assert len(device.samples()) == 6


def test_a_restart_keeps_the_refresh_token_and_the_start_time(device: Device) -> None:
    start_ready(device)
    device.record_metric("ap/clients", {}, 12)
    register(device)
    device.cloud.wait_for_answer(Endpoint.METRICS)
    start_time = device.read_file(names.START_TIME)
    restart = device.mark()
    assert device.stop_daemon() == 0

    device.start_daemon()
    device.wait_for_access_token(after=restart)
    device.record_metric("ap/clients", {}, 13)

    request = device.cloud.wait_for_request(Endpoint.METRICS, after=restart)
    [point] = request.json["metricPoints"][0]["points"]
    assert point["startTime"] == {"seconds": int(start_time or b"0") // 1_000_000}
    assert device.read_file(names.START_TIME) == start_time
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    [refresh] = device.cloud.requests(Endpoint.REFRESH, after=restart)
    assert refresh.form == [
        ("refresh_token", "refresh-1"),
        ("client_id", DEFAULT_CONFIGURATION["PELMOR_CLIENT_ID"]),
        ("client_secret", DEFAULT_CONFIGURATION["PELMOR_CLIENT_SECRET"]),
        ("grant_type", "refresh_token")]
