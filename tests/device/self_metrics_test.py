"""The samples about its requests that the daemon sends to the metrics collector."""

from concurrent.futures import ThreadPoolExecutor

import pytest

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import Device
from tests.device.helpers import (LOG_STATUS, METRICS_STATUS, messages, numbers_of, record_numbers,
                                  settled_mark, start_ticking, tick, upload, wait_for_message,
                                  wait_for_status)

pytestmark = pytest.mark.movable_clocks

COUNT = "AccessPoint.PelmorMetrics.RequestPointCount"
SIZE = "AccessPoint.PelmorMetrics.RequestWireSize"
SIZE_PER_POINT = "AccessPoint.PelmorMetrics.RequestWireSizePerPoint"
LOG_SIZE = "AccessPoint.PelmorStructuredLog.RequestWireSize"

READY = f"{names.RUN_FOLDER}/collector"

# A collector at another address: prints the first samples, one a line.
COLLECT = """
import pathlib, socket, sys
host, port, count, ready = sys.argv[1:]
family = socket.AF_INET6 if ":" in host else socket.AF_INET
collector = socket.socket(family, socket.SOCK_DGRAM)
collector.settimeout(10)
collector.bind((host, int(port)))
pathlib.Path(ready).write_text("ready")
for _ in range(int(count)):
    print(collector.recv(1000).decode())
"""


def datagrams(device: Device) -> list[str]:
    return [sample.text for sample in device.samples()]


def test_each_request_and_each_answer_is_measured_when_it_happens(device: Device) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.METRICS, 202, held=True, times=1)
    for number in range(10):
        for name in ("ap/a", "ap/b", "ap/é"):
            device.record_metric(name, {"number": str(number)}, number)
    tick(device)

    # Samples of the request, and after its answer that of the status.
    request = device.cloud.wait_for_request(Endpoint.METRICS)
    device.wait_for_sample(SIZE_PER_POINT)
    size = len(request.body.encode())
    assert int(request.headers["content-length"]) == size
    groups = [f"{COUNT}:3|h", f"{SIZE}:{size}|h", f"{SIZE_PER_POINT}:{size // 3}|h"]
    assert datagrams(device) == groups
    device.cloud.release(Endpoint.METRICS)
    wait_for_status(device, METRICS_STATUS)
    assert datagrams(device) == [*groups, f"{METRICS_STATUS}:202|h"]


def test_points_of_one_name_count_as_one(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, *range(50))
    size = len(upload(device).body)
    assert datagrams(device) == [
        f"{COUNT}:1|h", f"{SIZE}:{size}|h", f"{SIZE_PER_POINT}:{size}|h",
        f"{METRICS_STATUS}:200|h"]


def test_the_size_per_point_is_a_whole_number(device: Device) -> None:
    start_ticking(device)
    # Names of growing length: not all of the sizes can be multiples of seven.
    for length in range(1, 8):
        device.record_metric("n" * length, {}, True)
    sizes = []
    for _ in range(2):
        sizes.append(len(upload(device).body))
        for length in range(1, 8):
            device.record_metric("n" * length, {"l": "x"[length % 2:]}, True)
    seen = [sample.value for sample in device.samples(SIZE_PER_POINT)]
    assert seen == [size // 7 for size in sizes]
    assert [size % 7 for size in sizes] != [0, 0], "the remainder was never in question"


@pytest.mark.parametrize("status", [401, 403, 500, 302])
def test_the_status_of_every_answer_is_reported(device: Device, status: int) -> None:
    start_ticking(device)
    for endpoint in (Endpoint.METRICS, Endpoint.STRUCTURED_LOGS):
        device.cloud.answer(endpoint, status, times=1)
    record_numbers(device, 1)
    device.record_structured("type", b"abc")
    tick(device)
    wait_for_status(device, METRICS_STATUS)
    wait_for_status(device, LOG_STATUS)
    assert [sample.value for sample in device.samples(METRICS_STATUS)] == [status]
    assert [sample.value for sample in device.samples(LOG_STATUS)] == [status]


def test_a_structured_log_is_measured_by_its_encoded_data(device: Device) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.STRUCTURED_LOGS, held=True, times=1)
    for data in (b"\xfb\xff\x01", b"", b"four", b"x" * 1000):
        device.record_structured("a/long/type/url", data)
    tick(device)
    device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)
    device.wait_for_sample(LOG_SIZE)
    assert datagrams(device) == [f"{LOG_SIZE}:4|h"]
    device.cloud.release(Endpoint.STRUCTURED_LOGS)
    wait_for_status(device, LOG_STATUS, count=4)
    assert datagrams(device) == [
        f"{LOG_SIZE}:4|h", f"{LOG_STATUS}:200|h", f"{LOG_SIZE}:0|h", f"{LOG_STATUS}:200|h",
        f"{LOG_SIZE}:8|h", f"{LOG_STATUS}:200|h", f"{LOG_SIZE}:1336|h", f"{LOG_STATUS}:200|h"]


def test_of_an_offline_log_only_the_answer_is_measured(device: Device) -> None:
    start_ticking(device)
    device.cloud.answer(Endpoint.OFFLINE_LOGS, 201, times=1)
    device.record_offline("type", b"abc")
    device.record_structured("type", b"abc")
    tick(device)
    wait_for_status(device, LOG_STATUS, count=2)
    assert datagrams(device) == [
        f"{LOG_STATUS}:201|h", f"{LOG_SIZE}:4|h", f"{LOG_STATUS}:200|h"]


def test_a_request_without_an_answer_reports_no_status(device: Device) -> None:
    start_ticking(device)
    for endpoint in (Endpoint.METRICS, Endpoint.STRUCTURED_LOGS):
        device.cloud.send_garbage(endpoint, times=1)
    record_numbers(device, 1)
    device.record_structured("type", b"abc")
    before = tick(device)
    device.wait_for_log("Error uploading metrics: ")
    device.wait_for_log("Error uploading log: ")
    requests = [request.endpoint for request in device.cloud.requests(after=before)]
    assert sorted(requests) == [Endpoint.METRICS, Endpoint.STRUCTURED_LOGS]
    upload(device)
    wait_for_status(device, LOG_STATUS)
    assert [sample.value for sample in device.samples(METRICS_STATUS)] == [200]
    assert [sample.value for sample in device.samples(LOG_STATUS)] == [200]
    assert len(device.samples(SIZE)) == len(device.samples(LOG_SIZE)) == 2


def test_a_cycle_without_a_request_is_not_measured(device: Device) -> None:
    start_ticking(device)
    tick(device)
    record_numbers(device, 1)
    device.larder.refuse("CheckDeviceRegistered", times=1)
    tick(device)
    size = len(upload(device).body)
    assert datagrams(device) == [
        f"{COUNT}:1|h", f"{SIZE}:{size}|h", f"{SIZE_PER_POINT}:{size}|h",
        f"{METRICS_STATUS}:200|h"]


def start_with_collector(device: Device, host: str, port: str) -> None:
    start_ticking(device, STATSD_HOST=host, STATSD_PORT=port)
    record_numbers(device, 1)


@pytest.mark.parametrize("host", ["127.0.0.7", "::1"])
def test_the_environment_can_name_another_collector(device: Device, host: str) -> None:
    with ThreadPoolExecutor() as executor:
        collected = executor.submit(device.run, "python3", "-c", COLLECT, host, "18125", "4", READY)
        device.wait_for("file.written", path=READY)
        start_with_collector(device, host, "18125")
        tick(device)
        run = collected.result()
    size = len(device.cloud.requests(Endpoint.METRICS)[0].body)
    assert run.output.splitlines() == [
        f"{COUNT}:1|h", f"{SIZE}:{size}|h", f"{SIZE_PER_POINT}:{size}|h",
        f"{METRICS_STATUS}:200|h"], run.errors
    assert datagrams(device) == []


def test_the_environment_can_select_timers(device: Device) -> None:
    start_ticking(device, STATSD_TYPE="ms")
    record_numbers(device, 1)
    size = len(upload(device).body)
    assert datagrams(device) == [
        f"{COUNT}:1|ms", f"{SIZE}:{size}|ms", f"{SIZE_PER_POINT}:{size}|ms",
        f"{METRICS_STATUS}:200|ms"]


def test_an_unknown_type_is_logged_at_the_start_and_no_sample_is_sent(device: Device) -> None:
    start_ticking(device, STATSD_TYPE="histogram")
    assert ("WARNING No metrics will be sent: STATSD_TYPE must be h or ms, not 'histogram'"
            in messages(device))
    # A rejection, because its line in the log shows when the daemon has handled the answer.
    device.cloud.answer(Endpoint.METRICS, 500, body="no")
    record_numbers(device, 1)
    tick(device)
    wait_for_message(device, "WARNING Error uploading metrics: no")
    assert datagrams(device) == []


def test_a_missing_collector_has_no_effect(device: Device) -> None:
    # A rejection, because its line in the log shows when the daemon has handled the answer.
    device.cloud.answer(Endpoint.METRICS, 500, body="no")
    start_with_collector(device, "127.0.0.1", "18125")
    before = settled_mark(device)
    for number in (1, 2):
        tick(device)
        wait_for_message(device, "WARNING Error uploading metrics: no", count=number)
        record_numbers(device, number + 1)
    assert [numbers_of(request) for request in device.cloud.requests(Endpoint.METRICS)] == [
        [1], [2]]
    assert [line for line in messages(device, before) if not line.startswith("INFO ")] == [
        "WARNING Error uploading metrics: no"] * 2
    assert datagrams(device) == []
