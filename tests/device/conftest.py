"""Gives each test a device of its own, and shows what happened in it when the test fails."""

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab.architectures import of_program  # noqa: E402  The path to it is set just above.
from lab.device import Device, find_daemon  # noqa: E402
from lab.emulation import NOT_APPLICABLE  # noqa: E402

_DEVICES = pytest.StashKey[list[Device]]()


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "not_emulated(reason): cannot hold for an emulated daemon, "
                            "for a reason that lies in the emulator")


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Skips what does not apply to an emulated daemon."""
    daemon = find_daemon()
    if not daemon.is_file() or not of_program(daemon):
        return
    for item in items:
        if mark := item.get_closest_marker("not_emulated"):
            [reason] = mark.args
            item.add_marker(pytest.mark.skip(reason=NOT_APPLICABLE + reason))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for device in item.stash.get(_DEVICES, []):
            report.sections.append(("What happened in the device", device.story.told()))


def _devices_of(item: pytest.Item) -> list[Device]:
    if _DEVICES not in item.stash:
        item.stash[_DEVICES] = []
    return item.stash[_DEVICES]


@pytest.fixture
def device(request: pytest.FixtureRequest) -> Iterator[Device]:
    """A device whose daemon is not started yet; a missing binary fails the test."""
    with Device() as one:
        _devices_of(request.node).append(one)
        yield one


@pytest.fixture
def movable_device(request: pytest.FixtureRequest) -> Iterator[Device]:
    """A device whose daemon's clocks `move_clocks` can move."""
    with Device(movable_clocks=True) as one:
        _devices_of(request.node).append(one)
        yield one
