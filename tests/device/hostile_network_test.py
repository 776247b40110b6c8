"""What comes over the network, or is to go there, that no well-meaning neighbour would make."""

import pytest
from stories import messages, numbers_of, record_numbers, start_ticking, tick, upload

from lab.device import Device
from lab.names import Endpoint, Host
from lab.stand_ins import Request

BAD_URL = "ERROR Error uploading metrics: refusing to send to a bad URL"


def test_a_token_that_is_no_header_is_refused_by_the_service_and_replaced(
        movable_device: Device) -> None:
    device = movable_device
    device.cloud.answer(Endpoint.REFRESH, body={"access_token": "access-9\r\nx-evil: 1"}, times=1)
    start_ticking(device)
    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    record_numbers(device, 1)
    refused = upload(device)
    assert refused.headers["authorization"] == "Bearer access-9  x-evil: 1"
    assert "x-evil" not in refused.headers
    # The refresh that follows brings the usual one.
    device.wait_for_access_token(after=refused.event)
    record_numbers(device, 2)
    accepted = upload(device)
    assert accepted.headers["authorization"] == "Bearer access-1"
    assert numbers_of(accepted) == [1, 2]


# The id goes into the URL as it is. Whatever it is, it is sent to the configured host, or not at all.
@pytest.mark.parametrize(("device_id", "path"), [
    ("a?b", "/v1/devices/a?b/metrics:batchCreatePoints"),
    ("a#b", "/v1/devices/a"),
    ("a/b", "/v1/devices/a/b/metrics:batchCreatePoints"),
    ("../../x", "/x/metrics:batchCreatePoints"),
    ("../../../../..", "/metrics:batchCreatePoints"),
    ("//other.example", "/v1/devices/other.example/metrics:batchCreatePoints"),
    ("@other.example:1", "/v1/devices/@other.example:1/metrics:batchCreatePoints"),
    ("%0d%0ax-evil:1", "/v1/devices/%0d%0ax-evil:1/metrics:batchCreatePoints"),
])
def test_an_odd_device_id_stays_in_the_path_on_the_configured_host(
        movable_device: Device, device_id: str, path: str) -> None:
    device = movable_device
    # Not all of these are as the cloud's description has them: what follows looks for secrets.
    device.cloud.takes_anything = True
    start_ticking(device)
    device.larder.register(device_id)
    record_numbers(device, 1)
    before = tick(device)
    request = Request.of(device.wait_for("cloud.request", after=before))
    assert (request.host, request.path) == (Host.MONITORING, path)
    assert "x-evil" not in request.headers
    device.secrets.check()


@pytest.mark.parametrize("device_id", ["a\r\nx-evil: 1", "a b", "a\x7f", "\x01"])
def test_a_device_id_that_no_url_can_hold_is_refused_until_another_comes(
        movable_device: Device, device_id: str) -> None:
    device = movable_device
    start_ticking(device)
    device.larder.register(device_id)
    record_numbers(device, 1)
    before = tick(device)
    assert [text for text in messages(device, after=before) if text.startswith(BAD_URL)]
    assert not device.cloud.requests(Endpoint.METRICS) + device.cloud.requests(Endpoint.UNKNOWN)
    device.larder.register("device-1")
    assert numbers_of(upload(device)) == [1]
