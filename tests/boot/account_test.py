"""Whether `pelmorctl`, run by root, sees what the daemon's own user may read and what everybody
may: each test leaves the files as the package makes them, by the remedy that is printed."""

import json
import re
from collections.abc import Iterator
from typing import Any

import pytest

from lab.common import names
from tests.boot.booted_device import UNIT, BootedDevice
from tests.boot.machine import Run

INTERVAL = "PELMOR_UPLOAD_INTERVAL_IN_SECONDS"
PASSED_OVER = "Failed to load configuration overrides"
NO_CONFIGURATION = "Check failed: configuration.Load(base::FilePath(kConfigurationFile))"
FOR_PELMOR = "the daemon's intended user"


@pytest.fixture(autouse=True)
def leaves_all_well(device: BootedDevice) -> Iterator[None]:
    yield
    for path in (names.CONFIGURATION, names.OVERRIDE):
        kept = device.run("stat", "--format=%a %U", path).output
        assert kept == "400 pelmor\n", path
    result = check(device)
    assert result.code == 0 and "'t read it" not in result.output, result
    assert "can read it" not in result.output, result


def replace(device: BootedDevice, path: str, mask: str, text: str) -> None:
    """As root with that umask does it by hand."""
    device.shell(f"rm -f {path}; umask {mask}; printf '{text}' >{path}")


def check(device: BootedDevice) -> Run:
    return device.run("pelmorctl", "check-config")


def configuration(device: BootedDevice) -> dict[str, Any]:
    """The doctor's verdict."""
    conditions = json.loads(device.run("pelmorctl", "doctor", "--json").output)["conditions"]
    return next(one for one in conditions if one["name"] == "configuration")


def apply_remedy(device: BootedDevice, result: str) -> None:
    device.shell(re.search(r"run '(chown [^']+)'", result)[1])


def restart(device: BootedDevice) -> int:
    old = device.daemon()
    device.shell(f"systemctl restart {UNIT}")
    device.wait_for_restart(old)
    return device.daemon()


def test_an_override_file_that_only_root_can_read_is_reported(device: BootedDevice) -> None:
    replace(device, names.OVERRIDE, "077", f"{INTERVAL}=60\\n")
    result = check(device)
    assert f"{names.OVERRIDE}: warning: the daemon can't read it" in result.output, result
    assert f"{names.OVERRIDE}:1: " not in result.output and result.code == 0
    found = configuration(device)
    assert not found["green"] and "the daemon's user" in found["finding"], found
    device.wait_for_log(restart(device), PASSED_OVER)

    apply_remedy(device, result.output)
    assert f"{names.OVERRIDE}:1: {INTERVAL}=60\n" in check(device).output
    process = restart(device)
    assert not [line for line in device.log(process) if PASSED_OVER in line]
    found = configuration(device)
    assert found["green"] and "'t read it" not in found["finding"], found


def test_a_main_file_that_only_root_can_read_is_reported(device: BootedDevice) -> None:
    device.shell(f"systemctl stop {UNIT}")
    device.shell(f"chown root:root {names.CONFIGURATION}; chmod 0600 {names.CONFIGURATION}")
    result = check(device)
    assert f"{names.CONFIGURATION}: error: the daemon can't read it" in result.output, result
    assert FOR_PELMOR in result.output and result.code == 1
    found = configuration(device)
    assert not found["green"] and FOR_PELMOR in found["finding"], found
    assert device.run("systemctl", "start", UNIT).code != 0
    device.wait_until(lambda: any(NO_CONFIGURATION in line for line in device.log()), "its end")

    apply_remedy(device, result.output)
    device.shell(f"systemctl restart {UNIT}")
    device.wait_for_service()


@pytest.mark.parametrize("mode, group, reader, readers", [
    ("0644", "root", "stranger", "every local user"),
    ("0640", "pelmor", "reporter", "every member of the group pelmor")])
def test_a_secret_that_others_can_read_is_reported(
        device: BootedDevice, mode: str, group: str, reader: str, readers: str) -> None:
    replace(device, names.OVERRIDE, "077", "PELMOR_CLIENT_SECRET=secret-1\\n")
    device.shell(f"chown pelmor:{group} {names.OVERRIDE}; chmod {mode} {names.OVERRIDE}")
    assert device.run("cat", names.OVERRIDE, user=reader).code == 0
    result = check(device)
    warning = f"{names.OVERRIDE}: warning: it contains a secret, and {readers} can read it; run '"
    assert warning in result.output and result.code == 0, result
    found = configuration(device)
    assert found["green"] and f"{readers} can read it" in found["finding"], found

    apply_remedy(device, result.output)
    assert device.run("cat", names.OVERRIDE, user=reader).code != 0


def test_the_running_daemon_is_identified_also_after_its_file_was_replaced(
        device: BootedDevice) -> None:
    identity = r"[\d.]+, token endpoint https://\S+"
    installed = rf"installed ap-pelmor +{identity} \(/usr/sbin/ap-pelmor\)\n"

    def versions(user: str = "root") -> str:
        return device.run("pelmorctl", "version", user=user).output

    def running() -> str:
        return rf"running ap-pelmor +{identity} \(process {device.daemon()}\)\n"

    assert re.search(f"{installed}{running()}$", versions())
    assert "has no right to read it: run this as root" in versions("stranger")

    device.shell("cd /usr/sbin && cp -p ap-pelmor new && mv new ap-pelmor")
    assert re.search(f"{running()}The running daemon is another file than ", versions())
    restart(device)
    assert re.search(f"{installed}{running()}$", versions())
