"""The package's scripts on a running device: each test goes on where the one before it ended."""

import pytest

from lab.common import names
from tests.boot.booted_device import RUN_FOLDER, UNIT, BootedDevice
from tests.boot.reports import points, provision, upload

INSTALL = "dpkg --install /opt/packages/ap-pelmor_*.deb"
# What a boot does, without the cleaning of /tmp that comes before.
BOOT = "systemd-tmpfiles --create --boot ap-pelmor.conf"
SHARED_FOLDER = "/var/lib/ap"
PRECIOUS = "/tmp/ap/other/data"


@pytest.fixture(scope="module", autouse=True)
def provisioned(device: BootedDevice) -> None:
    provision(device)


def succeed(device: BootedDevice, command: str) -> str:
    told = device.run("sh", "-e", "-c", command)
    assert told.code == 0, told
    return told.output


def exists(device: BootedDevice, path: str) -> bool:
    return device.run("test", "-e", path).code == 0


@pytest.mark.parametrize("how", [INSTALL, BOOT], ids=["installation", "boot"])
def test_a_shared_folder_keeps_its_owner_and_its_mode(device: BootedDevice, how: str) -> None:
    succeed(device, f"chown root:cloud {SHARED_FOLDER} && chmod 751 {SHARED_FOLDER}")
    succeed(device, how)
    assert succeed(device, f"stat --format='%a %U:%G' {SHARED_FOLDER}") == "751 root:cloud\n"
    device.wait_for_service()
    assert points(upload(device, "ap/clients")) == ["ap/clients"]


@pytest.mark.parametrize("how", [INSTALL, BOOT], ids=["installation", "boot"])
def test_another_programs_folder_in_tmp_is_left_alone(device: BootedDevice, how: str) -> None:
    succeed(device, f"rm -rf /tmp/ap && mkdir -p /tmp/ap/other && echo live >{PRECIOUS}")
    succeed(device, how)
    assert succeed(device, f"cat {PRECIOUS}") == "live\n"
    device.wait_for_service()
    assert points(upload(device, "ap/clients")) == ["ap/clients"]
    succeed(device, f"rm -r /tmp/ap && {BOOT}")
    assert succeed(device, f"readlink --canonicalize {names.RUN_FOLDER}") == f"{RUN_FOLDER}\n"


def test_a_purge_removes_the_credentials_from_a_folder_that_is_a_mount_point(
        device: BootedDevice) -> None:
    succeed(device, f"systemctl stop {UNIT} && mount -t tmpfs state {names.STATE_FOLDER} &&"
                    f" chown pelmor: {names.STATE_FOLDER} && systemctl start {UNIT} &&"
                    f" mkdir {names.STATE_FOLDER}/folder && touch {names.REFRESH_TOKEN}")
    device.wait_for_service()
    succeed(device, "dpkg --purge ap-pelmor")
    assert not exists(device, names.OVERRIDE)
    assert not exists(device, names.REFRESH_TOKEN)
    assert succeed(device, f"ls --almost-all {names.STATE_FOLDER}") == ""
    assert device.run("dpkg-query", "--status", "ap-pelmor").code == 1
    succeed(device, f"umount {names.STATE_FOLDER}")


def test_a_purge_empties_a_folder_that_is_a_link(device: BootedDevice) -> None:
    succeed(device, f"rm -rf {names.STATE_FOLDER} && mkdir -p {SHARED_FOLDER} /data/pelmor &&"
                    f" ln -s /data/pelmor {names.STATE_FOLDER} && {INSTALL} &&"
                    f" touch /data/pelmor/refresh_token")
    succeed(device, "dpkg --purge ap-pelmor")
    assert exists(device, "/data/pelmor")
    assert not exists(device, "/data/pelmor/refresh_token")
    succeed(device, f"rm {names.STATE_FOLDER} && rmdir /data/pelmor /data")


def test_a_purge_leaves_nothing_that_the_daemon_had(device: BootedDevice) -> None:
    succeed(device, f"{INSTALL} && touch {names.OVERRIDE}")
    succeed(device, "dpkg --purge ap-pelmor")
    for path in (SHARED_FOLDER, "/run/ap", "/tmp/ap"):
        assert not exists(device, path), path


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


def test_an_installation_creates_the_shared_folder_where_it_is_missing(
        device: BootedDevice) -> None:
    succeed(device, "dpkg --purge ap-pelmor")
    assert not exists(device, SHARED_FOLDER)
    succeed(device, INSTALL)
    assert succeed(device, f"stat --format='%a %U:%G' {SHARED_FOLDER}") == "755 root:root\n"
