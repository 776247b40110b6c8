"""Reporters that do not wait for replies: the client library and `pelmorctl metric --stream` beside
the real daemon. What they report agrees with the daemon's own counts."""

import json
import re
import signal
from concurrent.futures import ThreadPoolExecutor

import pytest

from lab.common.names import Endpoint
from lab.device import emulation
from lab.device.device import Device, Run, find_daemon
from tests.device.helpers import EX_UNAVAILABLE, register, start_ready
from tests.device.pelmorctl import FAILED, OK, ctl, shell

pytestmark = pytest.mark.plain_build("a test of the reporters: a sanitized daemon adds nothing")

# Of pelmor/client.h.
WINDOWS = 2 * 64
QUEUE = 1024
# In milliseconds.
LONG = 30_000
SHORT = 200
# In seconds.
PATIENCE = 60.0


def report(device: Device, count: int, queue_wait: int, flush: int) -> dict:
    """Records points through the client library, as fast as it accepts them."""
    program = find_daemon().resolve().parents[2] / "client/reporter"
    device.write_file("/opt/reporter", program.read_bytes(), mode=0o755)
    run = device.run(*emulation.command(program, "/opt/reporter"), str(count), "0",
                     str(queue_wait), str(flush), deadline=PATIENCE)
    assert (run.code, run.errors) == (OK, "")
    result = json.loads(run.output)
    del result["seconds"]
    return result


def stream(device: Device, lines: str) -> Run:
    device.write_file("/tmp/lines", lines)
    return shell(device, "pelmorctl metric --stream </tmp/lines")


def wait_for_recorded(device: Device, count: int) -> None:
    device.wait_for_status(f"points recorded={count} ")


@pytest.mark.parametrize("count", [
    1000, pytest.param(100_000, marks=pytest.mark.not_emulated("it would take a minute"))])
def test_the_daemon_receives_every_point_of_a_burst(device: Device, count: int) -> None:
    start_ready(device)
    assert report(device, count, LONG, LONG) == {"accepted": count, "busy": 0, "lost": 0,
                                                 "flush": ""}
    wait_for_recorded(device, count)


def test_points_are_uploaded_in_the_order_of_recording(device: Device) -> None:
    start_ready(device)
    report(device, 1000, LONG, LONG)
    register(device)
    [metric] = device.cloud.wait_for_request(Endpoint.METRICS).json["metricPoints"]
    assert [point["doubleValue"] for point in metric["points"]] == [
        number / 4 for number in range(1000)]


def test_while_the_daemon_hangs_the_client_is_busy_and_its_queue_is_sent_later(
        device: Device) -> None:
    start_ready(device)
    device.signal_daemon(signal.SIGSTOP)
    accepted = WINDOWS + QUEUE
    assert report(device, 5000, 0, SHORT) == {
        "accepted": accepted, "busy": 5000 - accepted, "lost": 0,
        "flush": "org.freedesktop.DBus.Error.Timeout"}
    device.signal_daemon(signal.SIGCONT)
    wait_for_recorded(device, accepted)


def test_a_stream_ends_soon_after_the_daemon_was_killed(device: Device) -> None:
    start_ready(device)
    with ThreadPoolExecutor(1) as threads:
        flood = threads.submit(shell, device, "yes ap/n 1 | pelmorctl metric --stream")
        device.wait_for(lambda event: event.kind == "daemon.notify" and re.search(
            "points recorded=[1-9]", event["text"]), what="a record of the flood")
        device.kill_daemon()
        run = flood.result()
    assert run.code == EX_UNAVAILABLE
    [lost] = re.findall(r"^pelmorctl: up to (\d+) records before line \d+ are lost: .*"
                        r" \(org\.freedesktop\.DBus\.Error\.\w+\): see 'pelmorctl doctor'$",
                        run.errors, re.MULTILINE)
    # The last one waited for room.
    assert 0 < int(lost) <= WINDOWS + QUEUE + 1


def test_a_stream_without_a_daemon_fails(device: Device) -> None:
    run = stream(device, "ap/n 1\n" * 10)
    assert run.code == EX_UNAVAILABLE
    assert run.errors.startswith("pelmorctl: up to 10 records before line 11 are lost: ")


def test_a_stream_skips_and_reports_bad_lines(device: Device) -> None:
    start_ready(device)
    lines = ("ap/x 1 -l band=5g\n"
             "ap/x\n"
             "\n"
             "ap/x 'two words' --label=note='a \"b\"'\r\n"
             "ap/x 5 --type bool\n"
             f"ap/x {'x' * 17_000_000}\n"
             "ap/x 2.5")
    assert stream(device, lines) == Run(FAILED, "", """\
pelmorctl: line 2: give a NAME and a VALUE
pelmorctl: line 5: '5' is not a bool: give true or false
pelmorctl: line 6: more than 16777216 bytes: too large
""")
    register(device)
    [metric] = device.cloud.wait_for_request(Endpoint.METRICS).json["metricPoints"]
    points = [{key: value for key, value in point.items() if not key.endswith("Time")}
              for point in metric["points"]]
    assert points == [{"labels": {"band": "5g"}, "int64Value": "1"},
                      {"labels": {"note": 'a "b"'}, "stringValue": "two words"},
                      {"labels": {}, "doubleValue": 2.5}]


def test_a_stream_reports_a_last_line_that_is_too_long(device: Device) -> None:
    start_ready(device)
    # The rest of the line is in the piece that makes it too long.
    assert stream(device, "x" * (16 * 1024 * 1024 + 1)) == Run(
        FAILED, "", "pelmorctl: line 1: more than 16777216 bytes: too large\n")


@pytest.mark.not_emulated("it would take a minute")
def test_a_stream_skips_and_reports_a_record_that_is_too_large(device: Device) -> None:
    start_ready(device)
    labels = "".join(f" -l{number:x}=" for number in range(1_750_000))
    assert stream(device, f"ap/n 1{labels}\nap/n 2\n") == Run(
        FAILED, "", "pelmorctl: line 1: The record is too large\n")
    wait_for_recorded(device, 1)


def test_a_stream_sends_a_line_before_the_next_one_arrives(device: Device) -> None:
    start_ready(device)
    with ThreadPoolExecutor(1) as threads:
        waiting = threads.submit(shell, device, "mkfifo /tmp/pipe && (echo ap/n 1; cat /tmp/pipe) |"
                                 " pelmorctl metric --stream")
        wait_for_recorded(device, 1)
        shell(device, "echo ap/n 2 >/tmp/pipe")
        assert waiting.result() == Run(OK, "", "")
    wait_for_recorded(device, 2)


def test_an_empty_stream_records_nothing(device: Device) -> None:
    start_ready(device)
    assert stream(device, "") == Run(OK, "", "")
    assert ctl(device, "metric", "--stream", "ap/n").code != OK
