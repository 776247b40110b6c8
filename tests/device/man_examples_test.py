"""Runs every example of the manual pages in a device, and compares its output with the page."""

import re

import pytest

from lab.common.names import Endpoint
from lab.device.device import Device
from tests import manual

pytestmark = pytest.mark.plain_build("a test of the manual: a sanitized daemon adds nothing")


def run(device: Device, command: str) -> tuple[int, str]:
    ran = device.run("env", "PATH=/opt/ap:/usr/bin", "sh", "-c", f"exec 2>&1\n{command}")
    return ran.code, ran.output


@pytest.fixture
def well(device: Device) -> Device:
    """A healthy device."""
    device.cloud.takes_anything = True  # The doctor's requests are not the daemon's.
    device.provision()
    device.start_daemon()
    device.wait_for_access_token()
    return device


@pytest.mark.parametrize("page", manual.PAGES)
def test_each_example_does_what_its_page_says(well: Device, page: str) -> None:
    examples = manual.examples(page)
    for example in examples:
        code, printed = run(well, example.command)
        assert code == 0, (example, printed)
        assert example.fits(printed), (example, printed)
    recorded = set(re.findall(r"\bap/[a-z/]+", "\n".join(one.command for one in examples)))
    recorded -= {"ap/pelmor"}  # A folder.
    well.wait_for(lambda _: recorded <= metrics_of(well), what=f"points of {recorded}")


def metrics_of(device: Device) -> set[str]:
    """The names of the metrics that the cloud has received."""
    return {metric["metricName"] for request in device.cloud.requests(Endpoint.METRICS)
            for metric in request.json["metricPoints"]}


@pytest.mark.parametrize("expected, printed, fits", [
    ("", "", True), ("", "x\n", False), ("a\n", "a\n", True), ("a.c\n", "abc\n", False),
    ("...\n", "", True), ("...\n", "a\nb\n", True), ("a\n...\n", "a\nb\n", True),
    ("a\n...\n", "b\n", False), ("a: ...\n", "a: b c\n", True), ("a: ...\n", "a: b\nc\n", False)])
def test_what_a_page_expects_is_compared_line_by_line(
        expected: str, printed: str, fits: bool) -> None:
    assert manual.Example("", expected).fits(printed) == fits
