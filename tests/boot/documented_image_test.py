"""An image that the commands of docs/integration.md make, with systemd and without a package
manager, from its first boot to a factory reset: each test continues where the last one ended."""

import os
import shutil
import subprocess

import pytest

from lab.common import names
from tests.boot import readme
from tests.boot.booted_device import RUN_FOLDER, UNIT
from tests.boot.image import Image
from tests.boot.reports import assert_delivers, provision


def test_the_image_has_no_package_manager(systemd_image: Image) -> None:
    assert systemd_image.package_managers() == []


def test_the_root_is_read_only(systemd_image: Image) -> None:
    for path in ("/new", "/etc/new", "/usr/new"):
        with pytest.raises(OSError, match="Read-only file system"):
            systemd_image.file(path).touch()


def test_the_first_start_is_that_of_a_new_device(systemd_image: Image) -> None:
    state = systemd_image.larder.wait_for_call("UpdateState")
    assert not systemd_image.file(names.REFRESH_TOKEN).exists()
    assert systemd_image.run("pelmorctl", "status").code == 0, state


def test_a_new_device_delivers_once_it_is_provisioned(systemd_image: Image) -> None:
    provision(systemd_image)
    assert_delivers(systemd_image, "ap/first")


def test_the_diagnosis_finds_nothing(systemd_image: Image) -> None:
    for command in ("check-config", "doctor"):
        result = systemd_image.run("pelmorctl", command)
        assert result.code == 0, result


def test_the_unit_is_confined_as_on_debian(systemd_image: Image) -> None:
    process = systemd_image.run(
        "systemctl", "show", "--value", "--property=MainPID", UNIT).output.strip()
    status = systemd_image.file(f"/proc/{process}/status").read_text()
    assert "NoNewPrivs:\t1\n" in status and "Seccomp:\t2\n" in status
    assert systemd_image.file(RUN_FOLDER).stat().st_mode & 0o777 == 0o700


def test_an_update_of_the_image_keeps_the_credentials(systemd_image: Image) -> None:
    before = systemd_image.event_log.last()
    systemd_image.kill()
    systemd_image.update()
    systemd_image.boot()
    assert_delivers(systemd_image, "ap/updated")
    assert systemd_image.cloud.requests("refresh", after=before)
    assert not systemd_image.cloud.requests("exchange", after=before)


def test_a_factory_reset_makes_a_new_device_of_it(systemd_image: Image) -> None:
    systemd_image.kill()
    [reset] = readme.shell_blocks("Factory reset", readme.INTEGRATION)
    subprocess.run(["sh", "-e", "-c", reset], check=True,
                   env=os.environ | {"VAR": str(systemd_image.var)})
    before = systemd_image.event_log.last()
    systemd_image.boot()
    systemd_image.larder.wait_for_call("UpdateState", after=before)
    assert not systemd_image.cloud.requests(after=before)
    provision(systemd_image)
    assert_delivers(systemd_image, "ap/reset")
    assert systemd_image.cloud.requests("exchange", after=before)


def test_an_empty_var_is_sufficient(systemd_image: Image) -> None:
    systemd_image.kill()
    shutil.rmtree(systemd_image.var)
    systemd_image.var.mkdir()
    before = systemd_image.event_log.last()
    systemd_image.boot()
    systemd_image.larder.wait_for_call("UpdateState", after=before)
    state = systemd_image.file(names.STATE_FOLDER).stat()
    assert (state.st_uid, state.st_mode & 0o777) == (
        systemd_image.file(RUN_FOLDER).stat().st_uid, 0o700)
