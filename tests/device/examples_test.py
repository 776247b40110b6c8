"""The examples for reporters, for each language and library."""

import base64

import pytest

from lab.common.names import Endpoint
from lab.common.tree import ROOT
from lab.device import emulation
from lab.device.device import Device
from tests.device import libpelmor
from tests.device.helpers import LOG_STATUS, start_ticking, tick, upload, wait_for_status

pytestmark = pytest.mark.plain_build("a test of the examples: a sanitized daemon adds nothing")

SOURCES = ROOT / "client/examples"
NATIVE = pytest.mark.not_emulated("it loads a library into the machine's own Python")


EXAMPLES = {
    "c++": libpelmor.built("examples/record-cc"),
    "c": libpelmor.built("examples/record-c"),
    "libpelmor": libpelmor.built("examples/report-c"),
    "sh": SOURCES / "record.sh",
    "python": SOURCES / "record.py",
    "python-libpelmor": SOURCES / "report.py",
}
LANGUAGES = [pytest.param(language, marks=[NATIVE] if language == "python-libpelmor" else [])
             for language in EXAMPLES]


def run(device: Device, language: str) -> tuple[int, str, str]:
    program = f"{libpelmor.FOLDER}/record"
    device.write_file(program, EXAMPLES[language].read_bytes(), mode=0o755)
    libpelmor.add(device)
    ran = device.run(*libpelmor.ENVIRONMENT, *emulation.command(EXAMPLES[language], program))
    return ran.code, ran.output, ran.errors


def text_of(log: dict) -> str:
    return base64.urlsafe_b64decode(log["value"]).decode()


@pytest.mark.parametrize("language", LANGUAGES)
@pytest.mark.movable_clocks
def test_the_records_of_an_example_are_uploaded(device: Device, language: str) -> None:
    start_ticking(device)
    assert run(device, language) == (0, "Recorded\n", "")
    before = device.mark()
    [group] = upload(device).json["metricPoints"]
    [point] = group["points"]
    assert group["metricName"] == "example/utilization"
    assert point["labels"] == {"band": "5g", "language": language}
    assert point["doubleValue"] == 0.25
    structured = device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS, after=before).json
    [offline] = device.cloud.wait_for_request(
        Endpoint.OFFLINE_LOGS, after=before).json["writeLog"]
    assert structured["typeUrl"] == offline["typeUrl"] == "type.example/ap.Example"
    assert text_of(structured) == f"structured from {language}"
    assert text_of(offline) == f"offline from {language}"
    # The daemon has both answers: moving its clock would time out a request in flight.
    wait_for_status(device, LOG_STATUS, after=before, count=2)
    tick(device)
    assert len(device.cloud.requests(after=before)) == 3


@pytest.mark.parametrize("language", LANGUAGES)
def test_without_a_daemon_an_example_fails_with_a_message(device: Device, language: str) -> None:
    code, output, errors = run(device, language)
    assert (code, output) == (1, "")
    assert "daemon" in errors and "running" in errors
