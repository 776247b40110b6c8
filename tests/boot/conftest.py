"""One booted device for the tests of each file; a failed test's report has its journal."""

import os
from collections.abc import Iterator
from pathlib import Path

import pytest

from tests.boot import readme
from tests.boot.booted_device import BootedDevice
from tests.boot.reports import provision

_DEVICE = pytest.StashKey[BootedDevice]()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    outcome = yield
    report = outcome.get_result()
    if report.failed and _DEVICE in item.session.stash:
        text = item.session.stash[_DEVICE].describe()
        report.sections.append(("What happened in the device", text))


@pytest.fixture(scope="module")
def device(request: pytest.FixtureRequest) -> Iterator[BootedDevice]:
    """Booted, with the packages installed; `tests/boot/run` names the root and the packages."""
    root, packages = (Path(os.environ[name]).resolve()
                      for name in ("PELMOR_BOOT_ROOT", "PELMOR_PACKAGES"))
    with BootedDevice(root, packages) as one:
        request.session.stash[_DEVICE] = one
        one.install(readme.shell_blocks("On a device")[0])
        one.boot()
        yield one


@pytest.fixture(scope="module")
def provisioned(device: BootedDevice) -> None:
    provision(device)
