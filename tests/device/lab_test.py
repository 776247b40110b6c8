"""The lab itself: its simulated programs behave and fail as the tests of the daemon assume."""

import json
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from lab.common import certificates
from lab.common.errors import LabError
from lab.common.names import Endpoint, Host
from lab.common.tree import ROOT
from lab.device.device import Device, Reply
from lab.device.events import EventLog
from lab.device.values import Variant, from_json, int32, to_json, uint64, variant_of

pytestmark = pytest.mark.plain_build("a test of the lab: a sanitized daemon adds nothing")

LARDER = {"destination": "org.quintara.Larder", "path": "/org/quintara/Larder/Manager",
          "interface": "org.quintara.Larder.Manager"}
TLSDATE = {"destination": "org.torproject.tlsdate", "path": "/org/torproject/tlsdate",
           "interface": "org.torproject.tlsdate"}
COMMAND_PATH = "/org/quintara/Larder/commands/7"

# Posts to the monitoring service; prints the status and the body, or the error's name.
POST = """
import http.client, sys, urllib.error, urllib.request
try:
    url = "https://pelmor.quintara.example/v1/metrics:batchCreatePoints"
    with urllib.request.urlopen(url, b"{}", timeout=float(sys.argv[1])) as answer:
        print(answer.status, answer.read().decode())
except urllib.error.HTTPError as error:
    print(error.code, error.read().decode())
except urllib.error.URLError as error:
    print(type(error.reason).__name__)
except (OSError, http.client.HTTPException) as error:
    print(type(error).__name__)
"""

# Runs in place of the daemon: prints its clocks at each SIGUSR1.
CLOCK_PRINTER = """#!/usr/bin/python3 -u
import signal, time
signal.signal(signal.SIGUSR1, lambda *_: print(int(time.time()), int(time.monotonic())))
signal.signal(signal.SIGTERM, lambda *_: exit(7))
print("ready")
while True:
    signal.pause()
"""

# Sends a text over TLS, and prints the answer.
SEND = f"""
import socket, ssl, sys
with socket.create_connection(("{Host.MONITORING}", 443), timeout=10) as plain:
    context = ssl.create_default_context()
    with context.wrap_socket(plain, server_hostname="{Host.MONITORING}") as link:
        link.sendall(sys.argv[1].encode())
        print(b"".join(iter(lambda: link.recv(4096), b"")).decode())
"""


@pytest.fixture
def world():
    """A device without a daemon."""
    with Device("/usr/bin/false") as device:
        device.cloud.takes_anything = True
        yield device


def post(device: Device, patience: float = 10) -> str:
    return device.run("python3", "-c", POST, str(patience)).output.strip()


@pytest.mark.parametrize("value", [
    None, True, 5, 0.5, "text", b"\x00\xff", [1, [b""]], {"key": {"inner": b"x"}}, {1: "one"},
    {"$odd": 1}, Variant("a{sv}", {"a": Variant("ay", b"\x00")})])
def test_a_value_survives_the_link(value):
    assert from_json(json.loads(json.dumps(to_json(value)))) == value


@pytest.mark.parametrize("value, signature", [
    (True, "b"), (-2**31, "i"), (2**31, "x"), (2**63, "t"), (0.5, "d"), ("text", "s"),
    (b"\x00", "ay"), (uint64(5), "t")])
def test_a_plain_value_becomes_the_nearest_type(value, signature):
    assert variant_of(value).signature == signature


def test_a_wait_that_times_out_prints_the_event_log():
    event_log = EventLog()
    event_log.add(0, "daemon.log", {"text": "a line of the log"})
    event_log.add(0, "cloud.request", {"path": "/somewhere"})
    with pytest.raises(LabError) as error:
        event_log.wait_for("daemon.exited", deadline=0)
    assert "daemon.exited" in str(error.value)
    assert "a line of the log" in str(error.value)
    assert "/somewhere" in str(error.value)


def test_the_sandbox_is_isolated_from_the_machine(world: Device, tmp_path: Path):
    assert world.run("ls", str(tmp_path)).code != 0
    assert world.run("ls", "/sys/class/net").code != 0
    addresses = world.run("cat", "/proc/net/dev").output.splitlines()[2:]
    assert [line.split(":")[0].strip() for line in addresses] == ["lo"]
    assert world.run("cat", "/proc/1/comm").output == "bwrap\n"
    owned = world.run("busctl", "--list", "--acquired", "--no-legend", "--no-pager").output
    assert {line.split()[0] for line in owned.splitlines()} == {
        "org.freedesktop.DBus", "org.freedesktop.systemd1", "org.quintara.Larder",
        "org.torproject.tlsdate"}


def test_a_daemon_that_ends_at_once_is_an_error(world: Device):
    with pytest.raises(LabError, match="did not start"):
        world.start_daemon()
    assert world.wait_for_exit() == 1


def test_a_missing_daemon_is_an_error():
    with pytest.raises(LabError, match="PELMOR_DAEMON"):
        with Device("/nowhere/ap-pelmor"):
            pass


def test_a_request_that_is_not_as_described_fails_the_device():
    described = "Request 1, POST https://pelmor.* does not match cloud-api.yaml"
    with pytest.raises(LabError, match=described):
        with Device("/usr/bin/false") as device:
            assert post(device) == "200 {}"


def test_larder_answers_as_configured(world: Device):
    assert world.call_raw("CheckDeviceRegistered", **LARDER) == Reply("s", ("device-0001",))
    world.larder.unregister()
    assert world.call_raw("CheckDeviceRegistered", **LARDER) == Reply("s", ("",))
    world.larder.refuse("CheckDeviceRegistered", "org.quintara.Error.Busy", "later", times=1)
    assert world.call_raw("CheckDeviceRegistered", **LARDER) == Reply(
        error="org.quintara.Error.Busy", message="later")
    world.larder.answer_with("CheckDeviceRegistered", "is", 5, "five")
    assert world.call_raw("CheckDeviceRegistered", **LARDER) == Reply("is", (5, "five"))
    world.larder.behave()
    world.larder.register("device-2")
    assert world.call_raw("CheckDeviceRegistered", **LARDER) == Reply("s", ("device-2",))
    assert len(world.larder.calls("CheckDeviceRegistered")) == 5


def test_larder_delays_an_answer(world: Device):
    world.larder.delay("GetState", 0.2)
    world.call_raw("GetState", **LARDER)
    [call] = world.larder.calls("GetState")
    world.larder.behave()
    world.call_raw("CheckDeviceRegistered", **LARDER)
    [later] = world.larder.calls("CheckDeviceRegistered")
    assert later.time - call.time >= 0.2


def test_a_command_moves_through_its_states(world: Device):
    world.larder.add_command(COMMAND_PATH, "a.command", "queued", {"number": 5})
    command = {"destination": "org.quintara.Larder", "path": COMMAND_PATH}
    calls = command | {"interface": "org.quintara.Larder.Command"}
    properties = command | {"interface": "org.freedesktop.DBus.Properties"}

    def value_of(name: str) -> Variant:
        asked = ("org.quintara.Larder.Command", name)
        return world.call_raw("Get", "ss", asked, **properties).values[0]

    assert value_of("Parameters") == Variant("a{sv}", {"number": int32(5)})
    world.call_raw("SetProgress", "a{sv}", [{}], **calls)
    assert value_of("State") == Variant("s", "inProgress")
    world.call_raw("Complete", "a{sv}", [{"done": int32(1)}], **calls)
    assert value_of("State") == Variant("s", "done")
    assert value_of("Results") == Variant("a{sv}", {"done": int32(1)})
    world.larder.remove_command(COMMAND_PATH)
    assert world.call_raw("Cancel", **calls).error == "org.freedesktop.DBus.Error.UnknownObject"


def test_a_stopped_program_leaves_the_bus_until_it_is_started(world: Device):
    world.clock.stop()
    assert world.call_raw("LastSyncInfo", **TLSDATE).error == (
        "org.freedesktop.DBus.Error.ServiceUnknown")
    world.clock.set_source("rtc", synced=False)
    world.clock.start()
    synced, source, _ = world.call_raw("LastSyncInfo", **TLSDATE).values
    assert (synced, source) == (False, "rtc")


def test_prepared_answers_come_before_the_default(world: Device):
    world.cloud.answer("metrics", status=500, body="oh", times=1)
    world.cloud.answer("metrics", status=401, body={"a": 1}, times=1)
    assert [post(world) for _ in range(3)] == ["500 oh", '401 {"a": 1}', "200 {}"]
    world.cloud.answer("metrics", status=503, body="closed")
    assert [post(world), post(world)] == ["503 closed", "503 closed"]
    world.cloud.behave("metrics")
    assert post(world) == "200 {}"
    assert [request.json for request in world.cloud.requests(Endpoint.METRICS)] == [{}] * 6


def test_the_cloud_misbehaves_below_http(world: Device):
    world.cloud.cut_connection("metrics", times=1)
    world.cloud.send_garbage("metrics", times=1)
    world.cloud.never_answer("metrics", times=1)
    assert post(world) == "RemoteDisconnected"
    assert post(world) == "BadStatusLine"
    assert post(world, patience=0.2) == "TimeoutError"
    assert post(world) == "200 {}"


def test_the_cloud_rejects_input_that_is_not_http(world: Device):
    answer = world.run("python3", "-c", SEND, "no request\r\n\r\n").output
    assert answer.startswith("HTTP/1.1 400 ")
    assert not world.cloud.requests()
    assert post(world) == "200 {}"


def test_the_cloud_accepts_a_chunked_body_and_answers_without_one(world: Device):
    head = f"POST /v1/structuredLogs HTTP/1.1\r\nHost: {Host.MONITORING}\r\nConnection: close\r\n"
    world.cloud.answer("structured_logs", status=204)
    answer = world.run("python3", "-c", SEND, head + "Transfer-Encoding: chunked\r\n\r\n"
                       "3\r\n{ \n\r\n1\r\n}\r\n0\r\n\r\n").output
    assert answer.startswith("HTTP/1.1 204 ") and answer.strip().endswith("Connection: close")
    assert [request.json for request in world.cloud.requests(Endpoint.STRUCTURED_LOGS)] == [{}]


@pytest.mark.parametrize("reason", ["stranger", "name"])
def test_the_cloud_can_have_an_untrusted_certificate(world: Device, reason: str):
    world.cloud.refuse_tls(Host.MONITORING, reason)
    assert post(world) == "SSLCertVerificationError"
    world.cloud.trust_tls(Host.MONITORING)
    assert post(world) == "200 {}"


def test_the_cloud_can_refuse_connections(world: Device):
    world.cloud.go_away(Host.MONITORING)
    assert post(world) == "ConnectionRefusedError"
    world.cloud.come_back(Host.MONITORING)
    assert post(world) == "200 {}"


def test_child_processes_have_the_shared_certificates():
    certificates.share()
    script = ("from lab.common import certificates as made\n"
              "print(made.trusted_bundle() + made.of_a_stranger().key, end='')")
    output = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                            check=True, cwd=ROOT).stdout
    assert output == certificates.trusted_bundle() + certificates.of_a_stranger().key


def test_samples_and_syslog_lines_are_collected(world: Device):
    world.run("python3", "-c", "import socket\n"
              "out = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
              "out.sendto(b'a.name:12|h', ('127.0.0.1', 8125))")
    world.run("logger", "--socket", "/dev/log", "a line")
    assert world.wait_for_sample("a.name").value == 12
    assert world.wait_for("syslog.line")["text"].endswith("a line")


def test_files_are_written_read_watched_and_deleted(world: Device):
    path = "/var/lib/ap/pelmor/some"
    assert world.read_file(path) is None
    world.write_file(path, b"\x00\xff")
    assert world.wait_for_file(path) == b"\x00\xff"
    world.delete_file(path)
    world.wait_for("file.deleted", path=path)
    assert world.read_file(path) is None


def test_the_clocks_of_the_daemon_can_be_moved(tmp_path: Path):
    printer = tmp_path / "printer"
    printer.write_text(CLOCK_PRINTER)
    printer.chmod(0o755)
    with Device(printer, movable_clocks=True) as device:
        device.start_daemon(wait=False)
        device.wait_for_log("ready")

        def clocks() -> list[int]:
            before = device.mark()
            device.signal_daemon(signal.SIGUSR1)
            return [int(word) for word in
                    device.wait_for("daemon.log", after=before)["text"].split()]

        first = clocks()
        device.move_clocks(wall=1860)
        device.move_clocks(wall=-3600, monotonic=40)
        moved = clocks()
        assert 0 <= moved[0] - first[0] + 1740 <= 5
        assert 0 <= moved[1] - first[1] - 40 <= 5
        assert device.stop_daemon() == 7


def test_moving_fixed_clocks_is_an_error(world: Device):
    with pytest.raises(LabError, match="movable_clocks"):
        world.move_clocks(wall=1)


@pytest.mark.movable_clocks
def test_a_timer_expires_when_the_clock_passes_it(device: Device):
    device.configure(upload_interval_in_seconds="600")
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")
    device.move_clocks(wall=-3600, monotonic=600)
    device.larder.wait_for_call("UpdateState", count=2)
    device.move_clocks(monotonic=600)
    device.larder.wait_for_call("UpdateState", count=3)


def test_stopped_clocks_show_the_given_times(tmp_path: Path):
    printer = tmp_path / "printer"
    printer.write_text(CLOCK_PRINTER)
    printer.chmod(0o755)
    with Device(printer, movable_clocks=True) as device:
        device.stop_clocks(wall=1_700_000_000_000_000, monotonic=5_000_000_000)
        device.start_daemon(wait=False)
        device.wait_for_log("ready")

        def clocks() -> str:
            before = device.mark()
            device.signal_daemon(signal.SIGUSR1)
            return device.wait_for("daemon.log", after=before)["text"]

        assert clocks() == "1700000000 5000"
        device.move_clocks(wall=-60, monotonic=40)
        assert clocks() == "1699999940 5040"
        assert device.stop_daemon() == 7


@pytest.mark.movable_clocks
def test_a_timer_on_stopped_clocks_expires_when_they_pass_it(device: Device):
    device.configure(upload_interval_in_seconds="600")
    device.stop_clocks(wall=1_700_000_000_000_000, monotonic=5_000_000_000)
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")
    device.move_clocks(monotonic=599)
    before = device.mark()
    device.move_clocks(monotonic=2)
    device.larder.wait_for_call("UpdateState", after=before)
    assert len(device.larder.calls("UpdateState")) == 2


@pytest.mark.movable_clocks
def test_a_held_answer_can_be_changed_on_release(device: Device):
    device.cloud.answer(Endpoint.REFRESH, held=True)
    device.provision()
    device.start_daemon()
    device.cloud.wait_for_request(Endpoint.REFRESH)
    device.cloud.release(Endpoint.REFRESH, status=418, body="tea")
    device.wait_for_log("Successfully fetched access token: 418")
