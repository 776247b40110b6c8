"""The package's scripts on a running device: each test continues where the previous one ended."""

import pytest

from lab.common import names
from tests.boot.booted_device import RUN_FOLDER, UNIT, BootedDevice
from tests.boot.reports import INSTALL, assert_owns_its_name, assert_uploads

pytestmark = pytest.mark.usefixtures("provisioned")

# As at boot, without the cleaning of /tmp before.
BOOT = "systemd-tmpfiles --create --boot ap-pelmor.conf"
SHARED_FOLDER = "/var/lib/ap"
PRECIOUS = "/tmp/ap/other/data"


def exists(device: BootedDevice, path: str) -> bool:
    return device.run("test", "-e", path).code == 0


@pytest.mark.parametrize("how", [INSTALL, BOOT], ids=["installation", "boot"])
@pytest.mark.parametrize("prepare, look, expected", [
    (f"chown root:cloud {SHARED_FOLDER} && chmod 751 {SHARED_FOLDER}",
     f"stat --format='%a %U:%G' {SHARED_FOLDER}", "751 root:cloud\n"),
    (f"rm -rf /tmp/ap && mkdir -p /tmp/ap/other && echo live >{PRECIOUS}",
     f"cat {PRECIOUS}", "live\n"),
], ids=["the shared folder's owner and mode", "another program's folder in /tmp"])
def test_a_folder_of_others_is_left_as_it_is(
        device: BootedDevice, how: str, prepare: str, look: str, expected: str) -> None:
    device.shell(prepare)
    device.shell(how)
    assert device.shell(look) == expected
    assert_uploads(device)
    device.shell(f"rm -rf /tmp/ap && {BOOT}")
    assert device.shell(f"readlink --canonicalize {names.RUN_FOLDER}") == f"{RUN_FOLDER}\n"


def test_a_purge_removes_the_credentials_from_a_folder_that_is_a_mount_point(
        device: BootedDevice) -> None:
    device.shell(f"systemctl stop {UNIT} && mount -t tmpfs state {names.STATE_FOLDER} &&"
                 f" chown pelmor: {names.STATE_FOLDER} && systemctl start {UNIT} &&"
                 f" mkdir {names.STATE_FOLDER}/folder && touch {names.REFRESH_TOKEN}")
    device.wait_for_service()
    device.shell("dpkg --purge ap-pelmor")
    assert not exists(device, names.OVERRIDE)
    assert not exists(device, names.REFRESH_TOKEN)
    assert device.shell(f"ls --almost-all {names.STATE_FOLDER}") == ""
    assert device.run("dpkg-query", "--status", "ap-pelmor").code == 1
    device.shell(f"umount {names.STATE_FOLDER}")


def test_a_purge_empties_a_folder_that_is_a_link(device: BootedDevice) -> None:
    device.shell(f"rm -rf {names.STATE_FOLDER} && mkdir -p {SHARED_FOLDER} /data/pelmor &&"
                 f" ln -s /data/pelmor {names.STATE_FOLDER} && {INSTALL} &&"
                 f" touch /data/pelmor/refresh_token")
    device.shell("dpkg --purge ap-pelmor")
    assert exists(device, "/data/pelmor")
    assert not exists(device, "/data/pelmor/refresh_token")
    device.shell(f"rm {names.STATE_FOLDER} && rmdir /data/pelmor /data")


def test_a_purge_removes_every_folder_of_the_daemon(device: BootedDevice) -> None:
    device.shell(f"{INSTALL} && touch {names.OVERRIDE}")
    device.shell("dpkg --purge ap-pelmor")
    for path in (SHARED_FOLDER, "/run/ap", "/tmp/ap"):
        assert not exists(device, path), path


def test_the_first_start_after_the_first_installation_owns_the_name(device: BootedDevice) -> None:
    # As on a device that never had the package; the bus looks up users again.
    device.shell("userdel pelmor; groupdel --force pelmor || true; ! getent passwd pelmor &&"
                 " ! getent group pelmor && systemctl reload dbus.service")
    before = len(device.log())
    device.shell(INSTALL)
    device.wait_for_service()
    assert device.unit("NRestarts") == "0"
    assert_owns_its_name(device)
    log = device.log()[before:]
    assert log and not [line for line in log if "Unable to take the service name" in line], log


def test_an_installation_creates_the_shared_folder_where_it_is_missing(
        device: BootedDevice) -> None:
    device.shell("dpkg --purge ap-pelmor")
    assert not exists(device, SHARED_FOLDER)
    device.shell(INSTALL)
    assert device.shell(f"stat --format='%a %U:%G' {SHARED_FOLDER}") == "755 root:root\n"
