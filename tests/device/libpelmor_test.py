"""Reporters in C and in Python, through libpelmor, beside the real daemon."""

import json
import signal
from concurrent.futures import ThreadPoolExecutor

import pytest

from lab.common.names import Endpoint
from lab.device import emulation
from lab.device.device import Device, Run
from tests.device import libpelmor
from tests.device.helpers import register, start_ready
from tests.device.pelmorctl import OK, shell

pytestmark = pytest.mark.plain_build("a test of the reporters: a sanitized daemon adds nothing")

IN_PYTHON = pytest.mark.not_emulated("it loads a library into the machine's own Python")
REPORTER = f"{libpelmor.FOLDER}/reporter-c"
# In milliseconds.
LONG = 30_000
SHORT = 200
NO_PROCESS = -3
TIMED_OUT = -110
ALL_ARRIVED = {"result": 0, "message": "", "lost": 0}
# Two windows and the queue.
MOST_ACCEPTED = 2 * 64 + 1024
BURST = 10_000

# Records a burst, past what the client queues, and a point of each type; then waits for the end of
# its input, and tries one more.
IN_ASYNCIO = """
import asyncio, pelmor, sys

async def main():
    async with pelmor.AsyncClient() as client:
        for number in range(3000):
            await client.record("number", number)
        for value in (True, -2**63, -0.5, "größer"):
            await client.record(type(value).__name__, value, {"band": "5g"})
        await client.flush()
        print(client.lost_records, flush=True)
        sys.stdin.read()
        await client.record("number", 3000)
        try:
            await client.flush(0.2)
        except pelmor.Error as error:
            print(error.errno, client.lost_records)

asyncio.run(main())
"""


def put(device: Device) -> str:
    """Puts the reporter on the device; returns its command."""
    program = libpelmor.built("reporter-c")
    device.write_file(REPORTER, program.read_bytes(), mode=0o755)
    libpelmor.add(device)
    return " ".join(emulation.command(program, REPORTER))


def results(run: Run) -> list[dict]:
    """What the reporter printed of each command."""
    assert (run.code, run.errors) == (OK, "")
    return [json.loads(line) for line in run.output.splitlines()]


def report(device: Device, command: str, queue_wait: int, flush: int) -> dict:
    [result] = results(shell(
        device, f"echo {command} | {put(device)} {queue_wait} {flush} 2>/dev/null"))
    return result


def wait_for_recorded(device: Device, count: int) -> None:
    device.wait_for_status(f"points recorded={count} ")


def values(device: Device) -> dict[str, tuple[dict, dict]]:
    """The labels and the value of the first point of each metric, as uploaded."""
    register(device)
    metrics = device.cloud.wait_for_request(Endpoint.METRICS).json["metricPoints"]
    points = {metric["metricName"]: metric["points"][0] for metric in metrics}
    return {name: (point["labels"], {key: value for key, value in point.items()
                                     if key.endswith("Value")}) for name, point in points.items()}


def test_each_type_of_value_arrives_from_c(device: Device) -> None:
    start_ready(device)
    assert report(device, "types", LONG, LONG) == ALL_ARRIVED
    assert values(device) == {
        "c/bool": ({"band": "5g", "radio": "radio-0"}, {"boolValue": True}),
        "c/int64": ({}, {"int64Value": str(-2**63)}),
        "c/double": ({"band": "5g"}, {"doubleValue": -0.5}),
        "c/string": ({}, {"stringValue": "größer"}),
    }


@pytest.mark.parametrize("queue_wait", [0, LONG], ids=["event loop", "blocking"])
def test_the_daemon_receives_every_point_of_a_burst_from_c(
        device: Device, queue_wait: int) -> None:
    start_ready(device)
    assert report(device, str(BURST), queue_wait, LONG) == ALL_ARRIVED
    wait_for_recorded(device, BURST)


def test_while_the_daemon_hangs_a_flush_in_c_times_out(device: Device) -> None:
    start_ready(device)
    device.signal_daemon(signal.SIGSTOP)
    assert report(device, "10", 0, SHORT) == {
        "result": TIMED_OUT, "message": "The daemon did not reply in time", "lost": 0}
    device.signal_daemon(signal.SIGCONT)
    wait_for_recorded(device, 10)


def test_while_the_daemon_hangs_a_client_in_c_is_busy_and_its_event_loop_waits(
        device: Device) -> None:
    start_ready(device)
    reporter = put(device)
    device.signal_daemon(signal.SIGSTOP)
    shell(device, "mkfifo /tmp/errors")
    with ThreadPoolExecutor(1) as threads:
        flood = threads.submit(shell, device, f"echo {BURST} | {reporter} 0 {LONG} 2>/tmp/errors")
        busy = shell(device, "head -n 1 /tmp/errors")
        device.signal_daemon(signal.SIGCONT)
        assert results(flood.result()) == [ALL_ARRIVED]
    assert busy.output == f"busy after {MOST_ACCEPTED}\n"
    wait_for_recorded(device, BURST)


def test_a_client_in_c_reports_a_restart_of_the_daemon_and_goes_on(device: Device) -> None:
    start_ready(device)
    reporter = put(device)
    with ThreadPoolExecutor(1) as threads:
        waiting = threads.submit(
            shell, device, f"mkfifo /tmp/pipe && (echo 10; cat /tmp/pipe) | {reporter} 0 {LONG}")
        wait_for_recorded(device, 10)
        device.kill_daemon()
        start_ready(device)
        shell(device, "printf '20\\n30\\n' >/tmp/pipe")
        first, second, third = results(waiting.result())
    assert first == ALL_ARRIVED
    # They arrived, but the library cannot know that.
    assert second == {"result": NO_PROCESS, "message": "The daemon was restarted", "lost": 20}
    assert third == {"result": 0, "message": "", "lost": 20}
    wait_for_recorded(device, 50)


@IN_PYTHON
def test_a_client_in_asyncio_reports_every_point_and_the_death_of_the_daemon(
        device: Device) -> None:
    start_ready(device)
    libpelmor.add(device)
    device.write_file("/tmp/report.py", IN_ASYNCIO)
    environment = " ".join(libpelmor.ENVIRONMENT)
    with ThreadPoolExecutor(1) as threads:
        running = threads.submit(shell, device, "mkfifo /tmp/pipe &&"
                                 f" cat /tmp/pipe | {environment} /usr/bin/python3 /tmp/report.py")
        wait_for_recorded(device, 3004)
        assert values(device) == {
            # Four newer points are among the thousand that an upload has.
            "number": ({}, {"int64Value": "2004"}),
            "bool": ({"band": "5g"}, {"boolValue": True}),
            "int": ({"band": "5g"}, {"int64Value": str(-2**63)}),
            "float": ({"band": "5g"}, {"doubleValue": -0.5}),
            "str": ({"band": "5g"}, {"stringValue": "größer"}),
        }
        device.kill_daemon()
        shell(device, ": >/tmp/pipe")
        assert running.result() == Run(OK, f"0\n{-NO_PROCESS} 1\n", "")
