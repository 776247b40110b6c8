"""The daemon in its AppArmor profile, where the machine's kernel has AppArmor. The device shares
that kernel, so the profile is loaded during the tests only."""

import re
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from lab.common import names
from tests.boot.booted_device import RUN_FOLDER, UNIT, BootedDevice
from tests.boot.reports import assert_uploads, provision

PROFILE = "ap-pelmor"
FILE = "/etc/apparmor.d/usr.sbin.ap-pelmor"
COMPLAIN = " flags=(complain)"
LOADED = Path("/sys/kernel/security/apparmor/profiles")


def parser(*arguments: str | Path) -> None:
    subprocess.run(["apparmor_parser", "--skip-cache", *arguments], check=True)


@pytest.fixture(scope="module", autouse=True)
def profile(request: pytest.FixtureRequest) -> Iterator[None]:
    if not LOADED.exists():
        pytest.skip("the kernel of this machine has no AppArmor")
    if re.search(rf"^{PROFILE} ", LOADED.read_text(), re.MULTILINE):
        pytest.skip(f"this machine uses a profile {PROFILE} of its own")
    device = request.getfixturevalue("device")
    # A copy in enforce mode: the installed profile is in complain mode.
    file = request.getfixturevalue("tmp_path_factory").mktemp("profile") / PROFILE
    installed = device.file(FILE).read_text()
    assert COMPLAIN in installed
    file.write_text(installed.replace(COMPLAIN, ""))
    parser("--replace", file)
    device.run("systemctl", "restart", UNIT)
    device.wait_for_service()
    yield
    parser("--remove", file)


def denials() -> list[str]:
    """What the kernel has logged that the profile denied."""
    log = subprocess.run(["dmesg"], check=True, capture_output=True, text=True).stdout
    return [line for line in log.splitlines()
            if 'apparmor="DENIED"' in line and f'profile="{PROFILE}"' in line]


def test_the_profile_allows_all_the_work_of_the_daemon(device: BootedDevice) -> None:
    label = device.file(f"/proc/{device.daemon()}/attr/current").read_text()
    assert label.strip("\n\0") == f"{PROFILE} (enforce)"
    provision(device)
    assert_uploads(device)
    device.run("systemctl", "restart", UNIT)
    device.wait_for_service()
    device.wait_for_log(device.daemon(), "Loaded start time")
    assert_uploads(device)
    assert denials() == []


# Tries to read or create a file, or to run a program, in the daemon's profile.
ATTEMPT = """
import os, sys
profile, verb, path = sys.argv[1:]
if profile:
    with open("/proc/self/attr/current", "w") as change:
        change.write(f"changeprofile {profile}")
try:
    if verb == "run":
        os.execv(path, [path, "-c", "true"])
    os.close(os.open(path, os.O_RDONLY if verb == "read" else os.O_WRONLY | os.O_CREAT, 0o600))
except PermissionError:
    sys.exit(13)
"""


@pytest.mark.parametrize("verb, path", [
    ("run", "/bin/sh"),
    ("read", "/etc/shadow"),
    ("write", f"{names.STATE_FOLDER}/other"),
    ("write", f"{RUN_FOLDER}/other"),
    ("write", "/proc/self/mem"),
])
def test_the_profile_allows_nothing_else(device: BootedDevice, verb: str, path: str) -> None:
    """As the superuser, whom nothing but the profile prevents."""
    for profile, code in (("", 0), (PROFILE, 13)):
        tried = device.run("/usr/bin/python3", "-I", "-c", ATTEMPT, profile, verb, path)
        assert tried.code == code, tried
