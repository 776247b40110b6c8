"""cloud/check sends the requests of the daemon, byte for byte."""

from lab.common.names import Endpoint, Host
from lab.device.device import Device
from lab.device.programs import Request
from tests.device.helpers import COMMAND, register, start_ready

from cloud.check import daemon
from cloud.check.daemon import Client, Point, Release, Target
from cloud.check.point_rules import DOUBLES, INTEGERS, TEXTS

TOKEN_URL = Target.of(f"https://{Host.IDENTITY}/token")
SERVICE = Target.of(f"https://{Host.MONITORING}/v1/devices/")
DEVICE = "device-0001"
TOKEN = "access-1"
ODD = "a b/ü~-._&=+%\"?#"
CLIENT = Client(f"client {ODD}", f"secret {ODD}", f"https://scope.quintara.example/{ODD}")
BYTES = bytes(range(256))
RELEASE = Release("9000.1.0", "stable-channel", "board-a")


def sent(request: Request) -> bytes:
    """The request as the daemon sent it."""
    lines = [f"{request.method} {request.path} HTTP/1.1",
             *(f"{name}: {value}" for name, value in request.event["headers"]), "", ""]
    return ("\r\n".join(lines) + request.body).encode()


def configure(device: Device) -> None:
    device.configure(client_id=CLIENT.id, client_secret=CLIENT.secret, scope=CLIENT.scope)


def test_an_exchange_is_as_the_daemon_sends_it(device: Device) -> None:
    configure(device)
    device.start_daemon()
    device.larder.add_credentials_command(COMMAND, code=f"code {ODD}")
    request = device.cloud.wait_for_request(Endpoint.EXCHANGE)
    assert sent(request) == daemon.exchange(TOKEN_URL, CLIENT, f"code {ODD}")


def test_a_refresh_is_as_the_daemon_sends_it(device: Device) -> None:
    configure(device)
    device.provision(f"refresh {ODD}")
    device.start_daemon()
    request = device.cloud.wait_for_request(Endpoint.REFRESH)
    assert sent(request) == daemon.refresh(TOKEN_URL, CLIENT, f"refresh {ODD}")


def test_a_batch_is_as_the_daemon_sends_it(device: Device) -> None:
    labels = {text: text for text in TEXTS}
    values = [*(("int64Value", value) for value in INTEGERS),
              *(("doubleValue", value) for value in DOUBLES), ("doubleValue", None),
              ("boolValue", True), ("boolValue", False),
              *(("stringValue", text) for text in TEXTS)]
    names = [*("ap/b" for _ in values), *TEXTS, "ap/a"]
    values += [("int64Value", "1")] * (len(names) - len(values))
    start_ready(device)
    for name, (type_, value) in zip(names, values, strict=True):
        reported = int(value) if type_ == "int64Value" else float("nan") if value is None else value
        device.record_metric(name, labels if name == "ap/a" else {}, reported)
    register(device)

    request = device.cloud.wait_for_request(Endpoint.METRICS)

    # Points with the same value in any order; the times are the daemon's.
    groups = {group["metricName"]: group["points"] for group in request.json["metricPoints"]}
    ends = {name: [point["endTime"]["seconds"] for point in points]
            for name, points in groups.items()}
    start = groups["ap/a"][0]["startTime"]["seconds"]
    points = [Point(name, type_, value, ends[name].pop(0), labels if name == "ap/a" else {})
              for name, (type_, value) in zip(names, values, strict=True)]
    assert sent(request) == daemon.metrics(SERVICE, DEVICE, TOKEN, points, start)


def test_logs_are_as_the_daemon_sends_them(device: Device) -> None:
    start_ready(device)
    device.record_structured("type/é\n", BYTES)
    device.record_offline("", b"")
    register(device)
    offline = device.cloud.wait_for_request(Endpoint.OFFLINE_LOGS)
    [structured] = device.cloud.requests(Endpoint.STRUCTURED_LOGS)
    assert sent(structured) == daemon.structured_log(SERVICE, DEVICE, TOKEN, "type/é\n", BYTES)
    time = offline.json["deviceTimestamp"]["seconds"]
    assert sent(offline) == daemon.offline_log(SERVICE, DEVICE, TOKEN, "", b"", time, RELEASE)


def test_a_request_of_an_unregistered_device_is_as_the_daemon_sends_it(device: Device) -> None:
    device.cloud.takes_anything = True  # The description has no path without a device.
    device.larder.unregister()
    start_ready(device)
    device.record_structured("", b"")
    register(device)
    request = device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)
    assert sent(request) == daemon.structured_log(SERVICE, "", TOKEN, "", b"")


def test_a_token_of_control_characters_is_sent_as_no_token(device: Device) -> None:
    device.cloud.takes_anything = True
    device.cloud.answer("refresh", body={"access_token": "\n\t"})
    start_ready(device)
    device.record_structured("", b"")
    register(device)
    request = device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)
    assert sent(request) == daemon.structured_log(SERVICE, DEVICE, "", "", b"")
