"""The package's scripts on a running device: each test goes on where the one before it ended."""

from lab import names
from tests.boot.booted_device import BootedDevice

INSTALL = "dpkg --install /opt/packages/ap-pelmor_*.deb"


def succeed(device: BootedDevice, command: str) -> str:
    told = device.run("sh", "-e", "-c", command)
    assert told.code == 0, told
    return told.output


def test_after_its_first_installation_the_first_start_gets_the_name(device: BootedDevice) -> None:
    # A device that has never had the package; the bus looks users up again.
    succeed(device, "userdel pelmor; groupdel --force pelmor || true; ! getent passwd pelmor &&"
                    " ! getent group pelmor && systemctl reload dbus.service")
    before = len(device.log())
    succeed(device, INSTALL)
    device.wait_for_service()
    assert device.unit("NRestarts") == "0"
    owner = succeed(device, "busctl --json=short call org.freedesktop.DBus /org/freedesktop/DBus"
                            f" org.freedesktop.DBus GetConnectionUnixProcessID s"
                            f" {names.DAEMON_SERVICE}")
    assert owner == f'{{"type":"u","data":[{device.daemon()}]}}\n'
    log = device.log()[before:]
    assert log and not [line for line in log if "Unable to take the service name" in line], log
