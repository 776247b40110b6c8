"""Reporters that record as fast as the bus takes their points: the daemon stays within the memory
that its unit allows, and does its other work."""

import re

import pytest
from stories import register, start_ready

from lab import names
from lab.device import Device
from lab.names import Endpoint

MIB = 1024 * 1024
# The unit's MemoryMax, which counts more than this process's own pages: so half of it may be used.
MEMORY_MAX = 64 * MIB
TEXT_BYTES = 2600
# A flood gives two processors enough to do.
PATIENCE = 60.0


def _kilobytes(device: Device, pid: int, field: str) -> int:
    status = device.run("cat", f"/proc/{pid}/status").output
    [kilobytes] = re.findall(rf"^{field}:\s+(\d+) kB$", status, re.MULTILINE)
    return int(kilobytes)


def peak_memory(device: Device) -> int:
    """Of the daemon since its start, in bytes."""
    return _kilobytes(device, device.wait_for("daemon.started")["pid"], "VmHWM") * 1024


def wait_for_backlog(device: Device, size: int) -> None:
    """Until the bus itself holds so many bytes for its readers."""
    bus = device.call_raw("GetConnectionUnixProcessID", "s", (names.BUS_SERVICE,),
                          destination=names.BUS_SERVICE, path=names.BUS_PATH,
                          interface=names.BUS_SERVICE).values[0]
    while _kilobytes(device, bus, "RssAnon") * 1024 < size:
        assert not device.story.events("daemon.exited")


@pytest.mark.parametrize("reporters", [1, 4])
def test_a_blocking_call_leaves_the_reports_with_the_bus(device: Device, reporters: int) -> None:
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
    assert not device.story.events("daemon.exited")


def test_a_flood_of_points_is_uploaded_within_the_memory(device: Device) -> None:
    start_ready(device)
    register(device)
    device.start_flood(4, TEXT_BYTES)
    before = device.mark()
    # Full requests, one while the next points come.
    request = device.cloud.wait_for_request(Endpoint.METRICS, after=before, count=3,
                                            deadline=PATIENCE)
    device.stop_flood()
    [metric] = request.json["metricPoints"]
    assert len(metric["points"]) == 1000
    assert peak_memory(device) < MEMORY_MAX / 2
    assert not device.story.events("daemon.exited")


def test_a_command_is_carried_out_during_a_flood(device: Device) -> None:
    start_ready(device)
    device.start_flood(1, TEXT_BYTES)
    # The bus holds as much for the reporters' one destination as it holds for any.
    wait_for_backlog(device, MEMORY_MAX)
    before = device.mark()
    device.larder.add_credentials_command()
    device.larder.wait_for_call("Complete", after=before, deadline=PATIENCE)
    device.stop_flood()
    assert not device.story.events("daemon.exited")
