"""One booted machine for the tests of each file; a failed test's report has its journal."""

import os
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from lab.common.tree import ROOT
from tests.boot import readme
from tests.boot.booted_device import BootedDevice
from tests.boot.image import Image
from tests.boot.machine import Machine
from tests.boot.reports import provision

# The section of docs/integration.md.
_SYSTEMD = "An image with systemd"
_MACHINE = pytest.StashKey[Machine]()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    outcome = yield
    report = outcome.get_result()
    if report.failed and _MACHINE in item.session.stash:
        text = item.session.stash[_MACHINE].describe()
        report.sections.append(("What happened in the machine", text))


@pytest.fixture(scope="module")
def device(request: pytest.FixtureRequest) -> Iterator[BootedDevice]:
    """Booted, with the packages installed; `tests/boot/run` names the root and the packages."""
    root, packages = (Path(os.environ[name]).resolve()
                      for name in ("PELMOR_BOOT_ROOT", "PELMOR_PACKAGES"))
    with BootedDevice(root, packages) as one:
        request.session.stash[_MACHINE] = one
        one.install(readme.shell_blocks("On a device")[0])
        one.boot()
        yield one


@pytest.fixture(scope="module")
def provisioned(device: BootedDevice) -> None:
    provision(device)


@pytest.fixture(scope="session")
def mirror() -> None:
    """The images are made of downloaded packages."""
    found = subprocess.run([ROOT / "packaging/cross/mirror"], capture_output=True, text=True,
                           check=False)
    if found.returncode != 0:
        pytest.skip(found.stderr.strip())


@pytest.fixture(scope="module")
def systemd_image(request: pytest.FixtureRequest, mirror: None) -> Iterator[Image]:
    """Booted for the first time."""
    with Image("/systemd/systemd") as one:
        request.session.stash[_MACHINE] = one
        one.build(readme.shell_blocks(_SYSTEMD, readme.INTEGRATION))
        one.boot()
        yield one


@pytest.fixture(scope="module")
def runit_image(request: pytest.FixtureRequest, mirror: None) -> Iterator[Image]:
    """Booted for the first time."""
    with Image("/runit") as one:
        request.session.stash[_MACHINE] = one
        _, build, _, files, _ = readme.shell_blocks(_SYSTEMD, readme.INTEGRATION)
        base, install = readme.shell_blocks("An image with runit", readme.INTEGRATION)
        one.build([base, build, install, files], Path(__file__).resolve().parent / "runit")
        one.boot()
        yield one
