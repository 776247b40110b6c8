"""The choice of the bus of a device."""

from pathlib import Path

import pytest

from lab.common.errors import LabError
from lab.device import system_bus
from lab.device.device import Device
from lab.device.system_bus import SystemBus


def buses(device: Device) -> set[str]:
    """The programs of buses that run in the device; those that have ended have no executable."""
    programs = device.run("sh", "-c", "readlink /proc/[0-9]*/exe").output
    return {Path(line).name for line in programs.splitlines() if "/dbus-" in line}


@pytest.mark.parametrize("bus", sorted({system_bus.chosen(), *system_bus.installed()}))
def test_a_device_runs_on_the_chosen_bus(monkeypatch: pytest.MonkeyPatch, bus: SystemBus) -> None:
    monkeypatch.setenv("PELMOR_BUS", bus)
    with Device() as device:
        device.provision()
        device.start_daemon()
        device.wait_for_access_token()
        device.record_metric("ap/x", {}, 1)
        assert device.cloud.wait_for_request("metrics").json["metricPoints"]
        assert buses(device) == {bus.program, bus}


def test_the_default_is_dbus_daemon() -> None:
    assert system_bus.chosen({}) is SystemBus.DBUS_DAEMON


def test_an_unknown_bus_is_an_error_that_lists_the_known_ones(
        monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("PELMOR_BUS", "dbus-brokr")
    with pytest.raises(LabError, match="PELMOR_BUS is 'dbus-brokr', which is not a bus; "
                                       "use dbus-daemon or dbus-broker"), Device():
        pass


def test_a_missing_bus_is_an_error_that_names_its_package(
        monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    monkeypatch.setenv("PATH", str(tmp_path))
    with pytest.raises(LabError, match="install the Debian package dbus-broker"):
        system_bus.check(SystemBus.DBUS_BROKER)


def test_stopping_the_bus_ends_all_of_its_processes(device: Device) -> None:
    device.stop_bus()
    assert buses(device) == set()
