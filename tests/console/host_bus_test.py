"""The device's bus as programs of the host see it, and its restart."""

import os
import socket
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from lab.common import names
from lab.device.device import Device
from lab.device.values import plain

BUSCTL = ("busctl", "call", names.DAEMON_SERVICE, names.DAEMON_PATH, names.DAEMON_INTERFACE,
          "RecordMetric", "sa{ss}v", "ap/x", "1", "band", "5g", "d", "0.25")
DBUS_SEND = ("dbus-send", "--system", "--print-reply", f"--dest={names.DAEMON_SERVICE}",
             names.DAEMON_PATH, f"{names.DAEMON_INTERFACE}.RecordMetric", "string:ap/x",
             "dict:string:string:band,5g", "variant:double:0.25")
# A user of the host other than root.
USER = ("bwrap", "--dev-bind", "/", "/", "--unshare-user", "--uid", "1000", "--gid", "1000")


@pytest.fixture
def shared(tmp_path: Path) -> Iterator[Device]:
    with Device(shared_folder=tmp_path) as device:
        device.provision()
        device.watch_bus()
        device.start_daemon()
        device.wait_for_access_token()
        yield device


@pytest.mark.parametrize("command", [BUSCTL, DBUS_SEND, (*USER, *BUSCTL), (*USER, *DBUS_SEND)],
                         ids=["busctl", "dbus-send", "busctl of a user", "dbus-send of a user"])
def test_a_program_of_the_host_reports_to_the_device(
        shared: Device, tmp_path: Path, command: tuple[str, ...]) -> None:
    address = f"unix:path={tmp_path}/{names.HOST_BUS}"
    subprocess.run(command, env=os.environ | {"DBUS_SYSTEM_BUS_ADDRESS": address}, check=True)
    call = shared.wait_for("bus.call", method="RecordMetric")
    assert plain(call["arguments"]) == ["ap/x", {"band": "5g"}, 0.25]
    assert shared.cloud.wait_for_request("metrics").json["metricPoints"][0]["metricName"] == "ap/x"


def test_anonymous_authentication_is_rejected(shared: Device, tmp_path: Path) -> None:
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(str(tmp_path / names.HOST_BUS))
        connection.sendall(b"\0AUTH ANONYMOUS\r\n")
        assert connection.recv(4096) == b"REJECTED EXTERNAL\r\n"


def test_descriptors_are_rejected(shared: Device, tmp_path: Path) -> None:
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(str(tmp_path / names.HOST_BUS))
        connection.sendall(b"\0AUTH EXTERNAL 30\r\n")
        assert connection.recv(4096).startswith(b"OK ")
        connection.sendall(b"NEGOTIATE_UNIX_FD\r\n")
        assert connection.recv(4096).startswith(b"ERROR")


def test_an_error_on_the_bus_is_an_event(shared: Device) -> None:
    shared.call_raw("RecordMetric", "s", ["ap/x"])
    error = shared.wait_for("bus.error")
    assert error["error"] == "org.freedesktop.DBus.Error.InvalidArgs"


def test_programs_reconnect_to_a_restarted_bus(shared: Device) -> None:
    shared.clock.stop()
    shared.stop_bus()
    assert shared.wait_for_exit() == 69
    before = shared.mark()
    shared.start_bus()
    shared.wait_for("bus.name", after=before, name=names.LARDER_SERVICE, owned=True)
    assert not shared.event_log.events("bus.name", before, name=names.TLSDATE_SERVICE)
    shared.clock.start()
    shared.start_daemon()
    shared.wait_for_access_token(after=before)
    shared.record_metric("ap/again", {}, 1)
    assert shared.wait_for("bus.call", after=before, method="RecordMetric")
    assert shared.cloud.wait_for_request("metrics", after=before).json


def test_a_load_records_each_metric_with_each_label_set_and_ends(shared: Device) -> None:
    shared.start_load(50, ["ap/a", "ap/b"], [{"band": "2g"}, {"band": "5g"}], seconds=0.5)
    ended = shared.wait_for("load.ended")
    calls = [plain(event["arguments"]) for event in shared.event_log.events("bus.call")]
    assert {(name, labels["band"]) for name, labels, _ in calls} == {
        ("ap/a", "2g"), ("ap/a", "5g"), ("ap/b", "2g"), ("ap/b", "5g")}
    assert 0 < len(calls) <= ended["recorded"] <= 25
    assert ended["failed"] == 0


def test_a_stopped_load_records_nothing(shared: Device) -> None:
    shared.start_load(50, ["ap/a"], [{}], seconds=60)
    shared.wait_for("bus.call")
    shared.stop_load()
    ended = shared.wait_for("load.ended")
    assert not shared.event_log.events("bus.call", after=ended)
