"""A local user who creates files in /tmp before the daemon, during an installation or a restart,
can neither feed it data nor prevent its start."""

from collections.abc import Iterator

import pytest

from lab.common import names
from tests.boot.booted_device import RUN_FOLDER, START_TIME, UNIT, BootedDevice
from tests.boot.reports import INSTALL, assert_uploads

pytestmark = pytest.mark.usefixtures("provisioned")

# In 2017, earlier than any real upload.
PLANTED = "1500000000000000"
FILE = f"{names.RUN_FOLDER}/uploader.start_time"
TRAPS = {
    "a start time": f"mkdir --parents {names.RUN_FOLDER} && echo -n {PLANTED} >{FILE}",
    "an endless file": f"mkdir --parents {names.RUN_FOLDER} && ln -s /dev/zero {FILE}",
    "a pipe": f"mkdir --parents {names.RUN_FOLDER} && mkfifo {FILE}",
    "a link to a folder": f"mkdir --parents /var/tmp/trap/pelmor && ln -s /var/tmp/trap /tmp/ap &&"
                          f" echo -n {PLANTED} >/var/tmp/trap/pelmor/uploader.start_time",
    "a file": "touch /tmp/ap",
}
# Creates the folder whenever it does not exist, with a start time in it.
RACER = f"""
import os
while True:
    try:
        os.mkdir("/tmp/ap")
        os.mkdir("{names.RUN_FOLDER}")
        with open("{FILE}", "w") as file:
            file.write("{PLANTED}")
    except OSError:
        pass
"""


@pytest.fixture
def racer(device: BootedDevice) -> Iterator[None]:
    """A local user's process that tries to be first, for as long as a test lasts."""
    started = device.run("systemd-run", "--quiet", "--unit=racer", "--uid=stranger",
                         "/usr/bin/python3", "-c", RACER)
    assert started.code == 0, started
    yield
    assert device.run("systemctl", "is-active", "racer").output == "active\n"
    device.run("systemctl", "stop", "racer")


def free_name(device: BootedDevice) -> None:
    """As a cleaning of /tmp does, or a reboot after the removal."""
    device.shell("rm -rf /tmp/ap")


def take_name(device: BootedDevice, trap: str) -> None:
    free_name(device)
    device.shell(f"rm -rf /var/tmp/trap; {TRAPS[trap]}", user="stranger")
    assert owner(device) == "stranger"


def owner(device: BootedDevice) -> str:
    return device.run("stat", "--format=%U", "/tmp/ap").output.strip()


def assert_uploads_with_a_start_of_its_own(device: BootedDevice) -> None:
    assert_uploads(device)
    assert not any("Loaded start time" in line for line in device.log(device.daemon()))
    start = device.file(START_TIME)
    device.wait_until(start.exists, "the start time's file")
    assert int(start.read_text()) > int(PLANTED)


def test_a_removed_package_leaves_nothing_in_run_and_tmp(device: BootedDevice) -> None:
    assert_uploads_with_a_start_of_its_own(device)
    device.shell("dpkg --remove ap-pelmor")
    for path in ("/run/ap", "/tmp/ap"):
        assert device.run("test", "-L", path, "-o", "-e", path).code == 1, path
    assert device.run("stat", "--format=%a %U", names.STATE_FOLDER).output == "700 pelmor\n"


@pytest.mark.parametrize("trap", TRAPS)
def test_a_file_planted_before_an_installation_is_not_read(device: BootedDevice, trap: str) -> None:
    device.shell("dpkg --remove ap-pelmor")
    take_name(device, trap)
    device.shell(INSTALL)
    assert_uploads_with_a_start_of_its_own(device)
    # The planted file is kept, as another program's folder is.
    assert owner(device) == "stranger"


def test_a_user_who_races_with_an_installation_has_no_effect(
        device: BootedDevice, racer: None) -> None:
    device.shell("dpkg --remove ap-pelmor")
    free_name(device)
    device.wait_until(lambda: owner(device) == "stranger", "the user's folder")
    device.shell(INSTALL)
    assert_uploads_with_a_start_of_its_own(device)


@pytest.mark.parametrize("trap", ["a start time", "a link to a folder"])
def test_a_removal_keeps_a_users_file_in_place_of_the_link(device: BootedDevice, trap: str) -> None:
    take_name(device, trap)
    device.shell("dpkg --remove ap-pelmor")
    assert device.shell(f"cat {FILE}", user="stranger") == PLANTED
    device.shell(INSTALL)


@pytest.mark.parametrize("trap", [None, "a start time", "an endless file"])
def test_the_daemon_restarts_without_its_folder_whoever_owns_the_name(
        device: BootedDevice, trap: str | None) -> None:
    device.shell(f"rm -rf {RUN_FOLDER}")
    free_name(device)
    if trap:
        take_name(device, trap)
    device.shell(f"systemctl restart {UNIT}")
    assert_uploads_with_a_start_of_its_own(device)
    assert device.run("stat", "--format=%a %U:%G", RUN_FOLDER).output == "700 pelmor:pelmor\n"
    assert device.run("stat", "--format=%a %U:%G", "/run/ap").output == "755 root:root\n"


def test_the_start_time_survives_a_restart_and_an_upgrade(device: BootedDevice) -> None:
    start = device.file(START_TIME).read_text()
    for command in (f"systemctl restart {UNIT}", INSTALL):
        device.shell(command)
        assert_uploads(device)
        assert any("Loaded start time" in line for line in device.log(device.daemon()))
        assert device.file(START_TIME).read_text() == start
