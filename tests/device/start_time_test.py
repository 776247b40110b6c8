"""The start time of the reports, and its file, which survives restarts of the daemon."""

from datetime import UTC, datetime

import pytest

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import Device
from lab.device.programs import Request
from tests.device.helpers import messages, record_numbers, start_ticking, upload, wait_for_message

pytestmark = pytest.mark.movable_clocks


def as_logged(microseconds: int) -> str:
    """The time as the log has it."""
    return datetime.fromtimestamp(microseconds / 1_000_000, UTC).strftime("%Y-%m-%dT%H:%M:%S.%fZ")


def start_seconds(request: Request) -> set[int]:
    return {point["startTime"]["seconds"] for group in request.json["metricPoints"]
            for point in group["points"]}


def lines_on_the_start_time(device: Device) -> list[str]:
    return [line for line in messages(device) if "start time" in line]


def assert_starts_anew(device: Device, request: Request) -> None:
    """The daemon has loaded no start time, and has saved the one of its first request."""
    saved = int(device.read_file(names.START_TIME) or b"0")
    assert start_seconds(request) == {saved // 1_000_000}
    assert lines_on_the_start_time(device) == [
        f"INFO Set start time from first point timestamp: {as_logged(saved)}",
        f"INFO Saved start time: {as_logged(saved)}"]


def test_the_start_time_is_that_of_the_oldest_point_and_stays(device: Device) -> None:
    start_ticking(device)
    assert device.read_file(names.START_TIME) is None
    record_numbers(device, 1)
    device.move_clocks(wall=100)
    record_numbers(device, 2)
    first = upload(device)
    content = device.read_file(names.START_TIME) or b""
    assert content.isdigit(), content
    microseconds = int(content)
    assert microseconds // 1_000_000 == first.json["metricPoints"][0]["points"][0]["endTime"][
        "seconds"]
    assert lines_on_the_start_time(device) == [
        f"INFO Set start time from first point timestamp: {as_logged(microseconds)}",
        f"INFO Saved start time: {as_logged(microseconds)}"]

    # Later requests and runs keep it; the file is written once.
    record_numbers(device, 3)
    second = upload(device)
    assert device.stop_daemon() == 0
    start_ticking(device)
    wait_for_message(device, f"INFO Loaded start time: {as_logged(microseconds)}")
    record_numbers(device, 4)
    third = upload(device)

    assert [start_seconds(request) for request in (first, second, third)] == [
        {microseconds // 1_000_000}] * 3
    assert len(lines_on_the_start_time(device)) == 3
    assert device.read_file(names.START_TIME) == content
    assert len(device.event_log.events("file.written", path=names.START_TIME)) == 1


def test_the_start_time_is_saved_before_the_request_is_sent(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    request = upload(device)
    written = device.wait_for("file.written", path=names.START_TIME)
    assert written.number < request.event.number


@pytest.mark.parametrize("content", ["1700000000000000", "-1700000000000000"])
def test_a_start_time_of_an_earlier_run_is_used(device: Device, content: str) -> None:
    device.write_file(names.START_TIME, content)
    start_ticking(device)
    record_numbers(device, 1)
    assert start_seconds(upload(device)) == {int(content) // 1_000_000}
    assert lines_on_the_start_time(device) == [f"INFO Loaded start time: {as_logged(int(content))}"]
    assert device.read_file(names.START_TIME) == content.encode()


@pytest.mark.parametrize("content", [
    b"1700000000000000\n", b" 1700000000000000", b"1700000000000000 ", b"", b"soon", b"1.7e15",
    b"9223372036854775808", b"17\x0000"])
def test_a_malformed_start_time_file_is_replaced(device: Device, content: bytes) -> None:
    device.write_file(names.START_TIME, content)
    start_ticking(device)
    record_numbers(device, 1)
    request = upload(device)
    [end] = [point["endTime"]["seconds"] for point in request.json["metricPoints"][0]["points"]]
    assert start_seconds(request) == {end}
    assert_starts_anew(device, request)


TRAPS = {"pipe": ["mkfifo", names.START_TIME],
         "endless": ["ln", "-s", "/dev/zero", names.START_TIME],
         "link": ["ln", "-s", "/run/planted", names.START_TIME],
         "too large": ["truncate", "--size=2M", names.START_TIME]}


@pytest.mark.parametrize("trap", TRAPS.values(), ids=TRAPS.keys())
def test_a_file_planted_by_another_user_is_not_read_and_is_replaced(
        device: Device, trap: list[str]) -> None:
    device.run("chmod", "1777", "/tmp")
    device.write_file("/run/planted", "1600000000000000")
    assert device.run(*trap).code == 0
    start_ticking(device)
    record_numbers(device, 1)
    assert_starts_anew(device, upload(device))
    assert device.read_file("/run/planted") == b"1600000000000000"


@pytest.mark.parametrize("planted", ["/tmp/ap", names.RUN_FOLDER])
def test_a_link_to_another_folder_is_neither_read_nor_written_through(
        device: Device, planted: str) -> None:
    device.run("chmod", "1777", "/tmp")
    device.delete_folder(planted)
    for folder in ("/run/other", "/run/other/pelmor"):
        device.write_file(f"{folder}/uploader.start_time", "1600000000000000")
    assert device.run("ln", "-s", "/run/other", planted).code == 0
    start_ticking(device)
    record_numbers(device, 1)
    device.move_clocks(monotonic=60)
    assert device.wait_for_exit() == -6
    assert lines_on_the_start_time(device)[0].startswith("INFO Set start time from first point")
    for folder in ("/run/other", "/run/other/pelmor"):
        assert device.read_file(f"{folder}/uploader.start_time") == b"1600000000000000"


def test_a_start_time_that_cannot_be_saved_aborts_the_daemon(device: Device) -> None:
    start_ticking(device)
    device.delete_folder(names.RUN_FOLDER)
    record_numbers(device, 1)
    device.move_clocks(monotonic=60)
    assert device.wait_for_exit() == -6
    assert messages(device)[-1] == (
        "FATAL Check failed: "
        "base::WriteFile(kStartTimePath, serialized.data(), serialized.size()) != -1")
    assert not device.cloud.requests(Endpoint.METRICS)
