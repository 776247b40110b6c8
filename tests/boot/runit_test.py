"""The services of packaging/runit, in an image that the commands of docs/integration.md make,
without systemd and without a package manager: each test continues where the previous one ended."""

import re

import pytest

from lab.common import names
from tests.boot.booted_device import START_TIME
from tests.boot.image import Image
from tests.boot.reports import assert_delivers, provision

LOG = "/run/log/ap-pelmor/current"


def process(image: Image) -> int:
    """The daemon, as the image numbers it; 0 while there is none."""
    text = image.file("/run/runit/supervise/ap-pelmor/pid").read_text().strip()
    return int(text or 0)


def wait_for_check(image: Image) -> None:
    image.wait_until(lambda: image.run("sv", "check", "ap-pelmor").code == 0, "the daemon")


def test_a_new_device_delivers_from_a_read_only_root(runit_image: Image) -> None:
    with pytest.raises(OSError, match="Read-only file system"):
        runit_image.file("/etc/new").touch()
    assert not runit_image.file(names.REFRESH_TOKEN).exists()
    provision(runit_image)
    assert_delivers(runit_image, "ap/first")
    assert runit_image.file(START_TIME).exists()


def test_neither_systemd_nor_a_package_manager_is_in_the_image(runit_image: Image) -> None:
    assert runit_image.package_managers() == []
    for path in ("/usr/bin/systemctl", "/usr/lib/systemd/systemd"):
        assert not runit_image.file(path).exists()


def test_the_daemon_runs_as_its_user_within_the_limits_of_the_unit(runit_image: Image) -> None:
    wait_for_check(runit_image)
    folder = runit_image.file(f"/proc/{process(runit_image)}")
    status = dict(line.split(":\t", 1) for line in (folder / "status").read_text().splitlines()
                  if ":\t" in line)
    assert status["Name"] == "ap-pelmor"
    assert status["Uid"].split() == status["Gid"].split() == ["480"] * 4
    assert (status["Groups"].split(), status["CapEff"], status["NoNewPrivs"]) == (
        ["480"], "0" * 16, "1")
    limits = dict(re.findall(r"^(Max .+?)  +(\S+)", (folder / "limits").read_text(), re.MULTILINE))
    assert (limits["Max core file size"], limits["Max file size"]) == ("0", "2097152")
    [(variable, value)] = names.DAEMON_ENVIRONMENT.items()
    # The C library has split the value where the program can see it.
    environment = (folder / "environ").read_text().replace("\0", ":")
    assert environment == f"PATH=/usr/sbin:/usr/bin:/sbin:/bin:{variable}={value}:"


def test_the_daemon_has_a_read_only_tmp_with_its_folder_alone(runit_image: Image) -> None:
    root = runit_image.file(f"/proc/{process(runit_image)}/root")
    assert [str(path.relative_to(root)) for path in (root / "tmp").rglob("*")] == [
        "tmp/ap", "tmp/ap/pelmor", "tmp/ap/pelmor/uploader.start_time"]
    with pytest.raises(OSError, match="Read-only file system"):
        (root / "tmp/new").touch()
    # That of the image is another.
    runit_image.file("/tmp/new").touch()


def test_the_secrets_are_the_daemons(runit_image: Image) -> None:
    for path, mode in ((names.CONFIGURATION, 0o400), (names.OVERRIDE, 0o400),
                       (names.STATE_FOLDER, 0o700), (names.REFRESH_TOKEN, 0o600)):
        state = runit_image.file(path).stat()
        assert (state.st_uid, state.st_mode & 0o777) == (480, mode), path


def test_after_a_fault_the_daemon_restarts_half_a_minute_later(runit_image: Image) -> None:
    old = process(runit_image)
    before = runit_image.event_log.last()
    runit_image.run("kill", "-KILL", str(old))
    waiting = ("pidof", "sleep")
    runit_image.wait_until(lambda: runit_image.run(*waiting).code == 0, "the script finish")
    assert runit_image.run("sv", "check", "ap-pelmor").code == 1
    sleep = runit_image.run(*waiting).output.strip()
    command = runit_image.file(f"/proc/{sleep}/cmdline").read_text().split("\0")
    assert command[-3:-1] == ["sleep", "30"]
    runit_image.run("kill", sleep)
    wait_for_check(runit_image)
    assert process(runit_image) != old
    assert_delivers(runit_image, "ap/killed")
    assert not runit_image.cloud.requests("exchange", after=before)


def test_a_restart_on_request_does_not_wait(runit_image: Image) -> None:
    old = process(runit_image)
    assert runit_image.run("sv", "hup", "ap-pelmor").code == 0
    runit_image.wait_until(lambda: process(runit_image) not in (0, old), "another process")
    wait_for_check(runit_image)
    assert_delivers(runit_image, "ap/restarted")


def test_a_reboot_keeps_the_credentials(runit_image: Image) -> None:
    before = runit_image.event_log.last()
    runit_image.kill()
    runit_image.boot()
    assert_delivers(runit_image, "ap/rebooted")
    assert not runit_image.cloud.requests("exchange", after=before)


def test_a_stop_waits_for_the_end_of_the_daemon(runit_image: Image) -> None:
    assert runit_image.run("sv", "-w", "150", "stop", "ap-pelmor").code == 0
    assert process(runit_image) == 0
    log = runit_image.file(LOG).read_text().splitlines()
    assert log[-1].endswith("Shutting down pelmor daemon"), log
