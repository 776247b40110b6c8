"""Fixtures: a browser, a console with a device, and pages of made-up events."""

from collections.abc import Iterator
from pathlib import Path

import pytest

from lab.console.console import Console
from tests.console.browser import Browser, Invented

_FOLDER = Path(__file__).parent


# Before xdist reads the groups.
@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Runs the tests of a file in one worker, where they share a browser and a device."""
    for item in items:
        if item.path.parent == _FOLDER:
            item.add_marker(pytest.mark.xdist_group(item.path.name))


@pytest.fixture(scope="session")
def browser() -> Iterator[Browser]:
    with Browser() as one:
        yield one


@pytest.fixture(scope="module")
def console() -> Iterator[Console]:
    """A device that has credentials, with an upload each second."""
    with Console(port=0, interval=1, provisioned=True) as one:
        one.device.wait_for_access_token()
        yield one


@pytest.fixture
def invented() -> Iterator[Invented]:
    with Invented() as one:
        yield one


@pytest.fixture
def page(browser: Browser, console: Console) -> Iterator[Browser]:
    browser.leave()
    browser.open(console.address)
    yield browser
    assert browser.errors() == []
