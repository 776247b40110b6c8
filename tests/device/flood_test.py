"""Reporters that record as fast as the bus allows, and the largest safe records: the daemon stays
within the memory limit of its unit, and continues its other work."""

import pytest

from lab.common.names import Endpoint
from lab.device import system_bus
from lab.device.device import Device
from lab.device.events import Event
from lab.device.system_bus import SystemBus
from lab.device.values import string
from tests.device.helpers import MIB, kilobytes, register, start_ready, start_ticking, tick

pytestmark = pytest.mark.plain_build("AddressSanitizer's own memory counts in the peak")

# The unit's MemoryMax. It counts more than the process's own pages, so half of it may be used.
MEMORY_MAX = 64 * MIB
TEXT_BYTES = 2600
# The limit of dbus-broker for one user.
BROKER_MAX = 512 * MIB
# For the largest record that docs/operations.md calls safe. The rest is for the page cache.
LARGE_RECORD_MAX = 52 * MIB
MEGABYTE = 1_000_000
# Each takes 24 bytes of a message.
SMALL_LABELS = {f"{number:x}": "" for number in range(100_000)}
# Points.
FULL_REQUEST = 1000
MOST_REQUESTS = 30
# In seconds: a flood keeps two processors busy.
PATIENCE = 60.0


def peak_memory(device: Device) -> int:
    """The peak of the daemon since its start, in bytes."""
    return kilobytes(device, "VmHWM") * 1024


def wait_for_backlog(device: Device, size: int) -> None:
    """Waits until the bus itself keeps so many bytes for its readers."""
    [bus] = device.run("pidof", system_bus.chosen()).output.split()
    while kilobytes(device, "RssAnon", int(bus)) * 1024 < size:
        assert not device.event_log.events("daemon.exited")


judges_peak_memory = pytest.mark.not_emulated("the emulator's own memory counts in the peak")
# dbus-daemon blocks the reporters.
blocks_reporters = pytest.mark.only_on(
    SystemBus.DBUS_DAEMON, "dbus-broker closes connections, the daemon's among them")


@judges_peak_memory
@blocks_reporters
@pytest.mark.parametrize("reporters", [1, 4])
def test_during_a_blocking_call_the_bus_keeps_the_calls_of_reporters(
        device: Device, reporters: int) -> None:
    start_ready(device)
    before = device.mark()
    device.larder.never_answer("CheckDeviceRegistered")
    device.larder.wait_for_call("CheckDeviceRegistered", after=before)
    device.start_flood(reporters, TEXT_BYTES)
    wait_for_backlog(device, MEMORY_MAX)
    device.larder.stop()
    device.larder.behave()
    device.larder.start()
    device.cloud.wait_for_request(Endpoint.METRICS, deadline=PATIENCE)
    device.stop_flood()
    assert peak_memory(device) < MEMORY_MAX / 2
    assert not device.event_log.events("daemon.exited")


def points_of_request(device: Device, after: Event, count: int) -> int:
    request = device.cloud.wait_for_request(Endpoint.METRICS, after=after, count=count,
                                            deadline=PATIENCE)
    [metric] = request.json["metricPoints"]
    return len(metric["points"])


@judges_peak_memory
@blocks_reporters
def test_a_flood_of_points_is_uploaded_within_the_memory_limit(device: Device) -> None:
    start_ready(device)
    register(device)
    device.start_flood(4, TEXT_BYTES)
    before = device.mark()
    # On busy processors the first requests may not be full.
    assert any(points_of_request(device, before, count) == FULL_REQUEST
               for count in range(3, MOST_REQUESTS))
    device.stop_flood()
    assert peak_memory(device) < MEMORY_MAX / 2
    assert not device.event_log.events("daemon.exited")


@blocks_reporters
def test_a_command_is_executed_during_a_flood(device: Device) -> None:
    start_ready(device)
    device.start_flood(1, TEXT_BYTES)
    # The bus queues as much for one destination as for all.
    wait_for_backlog(device, MEMORY_MAX)
    before = device.mark()
    device.larder.add_credentials_command()
    device.larder.wait_for_call("Complete", after=before, deadline=PATIENCE)
    device.stop_flood()
    assert not device.event_log.events("daemon.exited")


@judges_peak_memory
@pytest.mark.only_on(SystemBus.DBUS_BROKER, "dbus-daemon blocks the reporters")
def test_during_a_blocking_call_dbus_broker_keeps_a_flood_of_calls(device: Device) -> None:
    start_ready(device)
    before = device.mark()
    device.larder.never_answer("CheckDeviceRegistered")
    device.larder.wait_for_call("CheckDeviceRegistered", after=before)
    device.start_flood(1, TEXT_BYTES)
    wait_for_backlog(device, BROKER_MAX)
    assert peak_memory(device) < MEMORY_MAX / 2
    assert not device.event_log.events("daemon.exited")
    device.stop_flood()


@judges_peak_memory
@pytest.mark.parametrize(("method", "signature", "arguments", "endpoint"), [
    pytest.param("RecordMetric", "sa{ss}v", ["n", {}, string("x" * 12 * MEGABYTE)],
                 Endpoint.METRICS, id="text"),
    pytest.param("RecordMetric", "sa{ss}v", ["n", {}, string("\x01" * 4 * MEGABYTE)],
                 Endpoint.METRICS, id="control characters"),
    pytest.param("RecordMetric", "sa{ss}v", ["n", {"k": "\xe4" * 6 * MEGABYTE}, string("")],
                 Endpoint.METRICS, id="label"),
    pytest.param("RecordMetric", "sa{ss}v", ["n", {"\x01" * 4 * MEGABYTE: ""}, string("")],
                 Endpoint.METRICS, id="key"),
    pytest.param("RecordMetric", "sa{ss}v", ["n", SMALL_LABELS, string("")],
                 Endpoint.METRICS, id="small labels"),
    pytest.param("RecordOfflineData", "say", ["t", bytes(8 * MEGABYTE)],
                 Endpoint.OFFLINE_LOGS, id="data"),
])
@pytest.mark.movable_clocks
def test_the_largest_safe_record_is_uploaded_within_the_memory_limit(
        device: Device, method: str, signature: str, arguments: list,
        endpoint: Endpoint) -> None:
    start_ticking(device)
    assert not device.call_raw(method, signature, arguments).error
    before = tick(device)
    device.cloud.wait_for_answer(endpoint, after=before, deadline=PATIENCE)
    assert peak_memory(device) < LARGE_RECORD_MAX
    assert not device.event_log.events("daemon.exited")
