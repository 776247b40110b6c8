"""Uploads while the cloud is unreachable or answers wrongly, and afterwards."""

from collections.abc import Callable

import pytest

from lab.common import names
from lab.common.names import Endpoint, Host
from lab.device.device import Device
from tests.device.helpers import (messages, metric_names, register, start_ready, wait_for_failure,
                                  wait_for_whole_cycle)

METRICS_FAILED = "ERROR Error uploading metrics: "
LOG_FAILED = "ERROR Error uploading log: "
TOKEN_FAILED = "WARNING Error fetching access token: "
# Longer than any test.
LONG = "600"


def use(kind: str, host: Host, *endpoints: str) -> tuple[Callable, Callable]:
    """The functions that make a host fail in some way and that repair it."""
    def for_all(change: str) -> Callable[[Device], None]:
        def act(device: Device) -> None:
            for endpoint in endpoints:
                getattr(device.cloud, change)(endpoint)
        return act
    repair = for_all("behave")
    return {
        "refusing": (lambda device: device.cloud.go_away(host),
                     lambda device: device.cloud.come_back(host)),
        "unknown authority": (lambda device: device.cloud.refuse_tls(host, "stranger"),
                              lambda device: device.cloud.trust_tls(host)),
        "another name": (lambda device: device.cloud.refuse_tls(host, "name"),
                         lambda device: device.cloud.trust_tls(host)),
        "cutting": (for_all("cut_connection"), repair),
        "garbage": (for_all("send_garbage"), repair)}[kind]


FAULTS = ["refusing", "unknown authority", "another name", "cutting", "garbage"]


@pytest.mark.parametrize("fault", FAULTS)
def test_records_that_failed_to_upload_are_sent_later(device: Device, fault: str) -> None:
    break_it, repair_it = use(fault, Host.MONITORING, "metrics", "structured_logs")
    start_ready(device)
    device.record_metric("first", {}, 1)
    device.record_structured("first", b"")
    break_it(device)
    register(device)
    assert wait_for_failure(device, METRICS_FAILED)
    assert wait_for_failure(device, LOG_FAILED)
    device.record_metric("second", {}, 2)
    statuses = [sample for sample in device.samples() if "ResponseStatusCode" in sample.name]
    assert statuses == [], "there was no response"
    start = device.mark()
    repair_it(device)

    device.cloud.wait_for_answer(Endpoint.METRICS, after=start)
    device.cloud.wait_for_answer(Endpoint.STRUCTURED_LOGS, after=start)
    assert metric_names(device)[-1] == ["first", "second"]
    device.wait_for_sample("AccessPoint.PelmorMetrics.ResponseStatusCode")
    device.record_metric("third", {}, 3)
    device.cloud.wait_for_answer(Endpoint.METRICS, after=start, count=2)
    assert metric_names(device)[-1] == ["third"]
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"


def test_an_upload_succeeds_after_the_cloud_restarted(device: Device) -> None:
    start_ready(device)
    register(device)
    device.record_metric("first", {}, 1)
    device.cloud.wait_for_answer(Endpoint.METRICS)
    device.wait_for_sample("AccessPoint.PelmorMetrics.ResponseStatusCode")
    device.cloud.go_away(Host.MONITORING)
    device.cloud.come_back(Host.MONITORING)
    device.record_metric("second", {}, 1)
    device.cloud.wait_for_answer(Endpoint.METRICS, count=2)
    assert metric_names(device) == [["first"], ["second"]]


@pytest.mark.movable_clocks
def test_a_request_without_an_answer_times_out_after_ten_seconds(device: Device) -> None:
    device.configure(upload_interval_in_seconds=LONG)
    start_ready(device)
    register(device)
    device.record_metric("kept", {}, 1)
    device.cloud.never_answer("metrics", times=1)
    device.move_clocks(monotonic=600)
    device.cloud.wait_for_request(Endpoint.METRICS)
    device.move_clocks(monotonic=5)
    device.record_metric("kept too", {}, 2)  # Answered after the daemon has read the clock.
    assert not [text for text in messages(device) if "Error" in text]
    device.move_clocks(monotonic=5)
    assert wait_for_failure(device, METRICS_FAILED)
    device.move_clocks(monotonic=600)
    device.cloud.wait_for_answer(Endpoint.METRICS)
    assert metric_names(device) == [["kept"], ["kept", "kept too"]]


@pytest.mark.parametrize("fault", FAULTS)
@pytest.mark.movable_clocks
def test_a_failed_refresh_is_retried_after_30_seconds(device: Device, fault: str) -> None:
    break_it, repair_it = use(fault, Host.IDENTITY, "refresh")
    device.provision()
    break_it(device)
    device.start_daemon()
    assert wait_for_failure(device, TOKEN_FAILED)
    device.record_metric("dropped", {}, 1)
    repair_it(device)
    device.move_clocks(monotonic=15)
    wait_for_whole_cycle(device)
    assert messages(device).count("INFO Refreshing access token.") == 1

    device.move_clocks(monotonic=15)

    device.wait_for_access_token()
    assert messages(device).count("INFO Refreshing access token.") == 2
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    device.record_metric("taken", {}, 1)
    device.cloud.wait_for_request(Endpoint.METRICS)
    assert metric_names(device) == [["taken"]]
