"""A device for each test; when the test fails, its report has the device's event log."""

from collections.abc import Iterator

import pytest

from lab.common.applicability import NOT_APPLICABLE
from lab.common.architectures import of_program
from lab.device import system_bus
from lab.device.device import Device, find_daemon

_DEVICES = pytest.StashKey[list[Device]]()


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Skips what does not apply to an emulated daemon, or to the bus of this run."""
    daemon = find_daemon()
    emulated = daemon.is_file() and of_program(daemon)
    for item in items:
        if emulated and (mark := item.get_closest_marker("not_emulated")):
            _skip(item, *mark.args)
        if (mark := item.get_closest_marker("only_on")) and mark.args[0] != system_bus.chosen():
            _skip(item, mark.args[1])


def _skip(item: pytest.Item, reason: str) -> None:
    item.add_marker(pytest.mark.skip(reason=NOT_APPLICABLE + reason))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for device in item.stash.get(_DEVICES, []):
            report.sections.append(("What happened in the device", device.event_log.text()))


def _devices_of(item: pytest.Item) -> list[Device]:
    if _DEVICES not in item.stash:
        item.stash[_DEVICES] = []
    return item.stash[_DEVICES]


@pytest.fixture
def device(request: pytest.FixtureRequest) -> Iterator[Device]:
    """A device whose daemon is not started yet; a missing binary fails the test."""
    movable = request.node.get_closest_marker("movable_clocks") is not None
    with Device(movable_clocks=movable) as one:
        _devices_of(request.node).append(one)
        yield one
