"""Records of the tests to the daemon of a booted device, and the requests that its cloud
receives."""

from lab.common import names
from lab.device.events import Event
from tests.boot.booted_device import BootedDevice
from tests.boot.machine import Machine, Run

TOKEN = "Successfully fetched access token: 200"
EXCHANGED = "Successfully fetched refresh token: 200"
INSTALL = "dpkg --install /opt/packages/ap-pelmor_*.deb"
COMMAND = "/org/quintara/Larder/commands/1"


def provision(device: Machine) -> None:
    """Provisions the daemon by a command of the cloud; returns when the command is complete."""
    device.larder.wait_for_call("UpdateState")
    device.larder.add_credentials_command(COMMAND, code="code-1")
    device.larder.wait_for_call("Complete", path=COMMAND)


def record(device: BootedDevice, name: str, *value: str, user: str = "reporter") -> Run:
    """Records a point as a process of the device; the value is its type and its text for busctl."""
    return device.run("busctl", "call", names.DAEMON_SERVICE, names.DAEMON_PATH,
                      names.DAEMON_INTERFACE, "RecordMetric", "sa{ss}v", name, "0", *value,
                      user=user)


def upload(device: BootedDevice, name: str) -> dict:
    """Records a point and returns the request that takes it to the cloud."""
    device.wait_for_log(device.daemon(), TOKEN, EXCHANGED)
    before = device.event_log.last()
    assert record(device, name, "d", "0.25") == Run(0, "", "")
    request = device.cloud.wait_for_request("metrics", after=before)
    assert request.headers["authorization"] == "Bearer access-1"
    return request.json


def assert_delivers(machine: Machine, name: str) -> None:
    """Records points until the daemon runs, has an access token and uploads one."""
    before = machine.event_log.last()

    def record_and_look() -> int:
        machine.run("pelmorctl", "metric", name, "0.25")
        return uploaded(machine, name, before)

    machine.wait_until(record_and_look, f"{name} in the cloud")


def assert_uploads(device: BootedDevice, name: str = "ap/clients") -> None:
    device.wait_for_service()
    assert points(upload(device, name)) == [name]


def assert_owns_its_name(device: BootedDevice) -> None:
    owner = device.shell("busctl --json=short call org.freedesktop.DBus /org/freedesktop/DBus"
                         " org.freedesktop.DBus GetConnectionUnixProcessID s"
                         f" {names.DAEMON_SERVICE}")
    assert owner == f'{{"type":"u","data":[{device.daemon()}]}}\n'


def points(body: dict) -> list[str]:
    return [point["metricName"] for point in body["metricPoints"]]


def uploaded(device: Machine, name: str, after: Event | None) -> int:
    """The number of points of a metric that the cloud has received."""
    return sum(len(metric["points"]) for request in device.cloud.requests("metrics", after=after)
               for metric in request.json["metricPoints"] if metric["metricName"] == name)
