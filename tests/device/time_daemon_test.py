"""tlsdate is absent or answers wrongly; and shutdown while a neighbour blocks the daemon."""

from collections.abc import Callable
from typing import Any

import pytest

from lab.common.names import Endpoint, Host
from lab.device.device import Device, Reply
from lab.device.programs import TimeDaemon
from lab.device.values import int32, string
from tests.device.helpers import (EX_UNAVAILABLE, messages, metric_names, register, settled_mark,
                                  start_ready, wait_for_failure, wait_for_message)

ACQUIRED = "INFO Network time acquired"
METRICS_FAILED = "ERROR Error uploading metrics: "
TOKEN_FAILED = "WARNING Error fetching access token: "


def answer(signature: str, *values: Any) -> Callable[[TimeDaemon], None]:
    return lambda clock: clock.answer_with("LastSyncInfo", signature, *values)


@pytest.mark.parametrize("misbehave", [
    TimeDaemon.stop, lambda clock: clock.refuse("LastSyncInfo"), answer(""), answer("b", True),
    answer("s", "network"), answer("bs", True, "network"), answer("bsxx", True, "network", 1, 2),
    answer("sbx", "network", True, 1), answer("bsi", True, "network", 1),
    answer("bst", True, "network", 1), answer("bvx", True, string("network"), 1)],
    ids=["absent", "refused", "empty", "b", "s", "bs", "bsxx", "sbx", "bsi", "bst", "bvx"])
def test_without_a_valid_answer_of_tlsdate_points_are_dropped(
        device: Device, misbehave: Callable[[TimeDaemon], None]) -> None:
    misbehave(device.clock)
    start_ready(device)
    start = settled_mark(device)
    device.record_metric("before", {}, 1)
    assert messages(device, after=start) == []
    (TimeDaemon.start if misbehave is TimeDaemon.stop else TimeDaemon.behave)(device.clock)
    device.record_metric("after", {}, 1)
    register(device)
    device.cloud.wait_for_request(Endpoint.METRICS)
    assert metric_names(device) == [["after"]]
    assert messages(device, after=start)[0] == ACQUIRED


def test_the_daemon_waits_for_a_late_answer_of_tlsdate(device: Device) -> None:
    device.clock.delay("LastSyncInfo", 0.3)
    start_ready(device)
    device.record_metric("kept", {}, 1)
    [call] = device.clock.calls()
    assert wait_for_message(device, ACQUIRED).time - call.time >= 0.3
    register(device)
    device.cloud.wait_for_request(Endpoint.METRICS)
    assert metric_names(device) == [["kept"]]


def test_a_tlsdate_that_ends_during_a_call_is_asked_again(device: Device) -> None:
    device.provision()
    device.clock.never_answer("LastSyncInfo", times=1)
    device.start_daemon()
    device.clock.wait_for_call("LastSyncInfo")
    device.clock.stop()
    device.clock.start()
    wait_for_message(device, ACQUIRED)
    assert len(device.clock.calls()) == 2


# Shutdown while a neighbour blocks the daemon.

@pytest.mark.parametrize("end", ["the bus", "a signal"])
def test_shutdown_does_not_wait_for_the_cloud(device: Device, end: str) -> None:
    device.cloud.never_answer("metrics")
    start_ready(device)
    device.record_metric("lost", {}, 1)
    register(device)
    device.cloud.wait_for_request(Endpoint.METRICS)
    if end == "the bus":
        device.stop_bus()
        assert device.wait_for_exit() == EX_UNAVAILABLE
    else:
        assert device.stop_daemon() == 0
    assert not [text for text in messages(device) if METRICS_FAILED in text]
    assert messages(device)[-1] == "INFO Shutting down pelmor daemon"


def test_the_daemon_ends_when_the_bus_ends_during_a_call(device: Device) -> None:
    device.provision()
    device.larder.never_answer("CheckDeviceRegistered")
    device.start_daemon()
    device.larder.wait_for_call("CheckDeviceRegistered")
    device.stop_bus()
    assert device.wait_for_exit() == EX_UNAVAILABLE
    assert messages(device)[-1] == "INFO Shutting down pelmor daemon"


def test_without_any_neighbour_the_daemon_still_answers(device: Device) -> None:
    device.larder.stop()
    device.clock.stop()
    device.cloud.go_away(Host.IDENTITY)
    device.cloud.go_away(Host.MONITORING)
    device.provision()
    device.start_daemon()
    assert wait_for_failure(device, TOKEN_FAILED)
    reply = device.call_raw("RecordMetric", "sa{ss}v", ["ap/clients", {}, int32(1)])
    assert reply == Reply()
    assert device.stop_daemon() == 0
