"""The reader of a log stalls: the daemon continues, drops lines, and reports how many."""

import re

import pytest

from lab.common.names import Endpoint
from lab.device.device import Device
from lab.device.events import Event
from tests.device.helpers import METRICS_STATUS, PERIOD, catch_up, wait_for_status

pytestmark = pytest.mark.movable_clocks

STANDARD_ERROR = "/run/standard-error"
# Standard error is a pipe that the daemon itself keeps open for reading: it never gets EPIPE.
INTO_A_PIPE = ("sh", "-c", f'mkfifo {STANDARD_ERROR}; exec 3<>{STANDARD_ERROR}; exec "$@" 2>&3',
               "sh")
# Replaces the system log with a process that never reads.
STALLED_SYSLOG = """
import os, signal, socket
os.unlink("/dev/log")
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
log.bind("/dev/log")
if os.fork() == 0:
    os.closerange(0, 3)
    signal.pause()
"""
# More than the pipe and the socket's queue can contain, in lines of this many bytes.
LINES = 20
LINE_BYTES = 8000


def refuse_uploads(device: Device) -> None:
    """Each rejected upload logs a long line."""
    device.cloud.answer(Endpoint.METRICS, 500, body="x" * LINE_BYTES)
    for number in range(LINES):
        before = device.mark()
        device.record_metric("ap/number", {}, number)
        device.move_clocks(monotonic=PERIOD)
        wait_for_status(device, METRICS_STATUS, after=before)
    catch_up(device)


def wait_for_syslog(device: Device, text: str, after: Event | None = None) -> Event:
    return device.wait_for(lambda event: event.kind == "syslog.line" and text in event["text"],
                           after=after, what=f'syslog "{text}"')


def test_a_full_pipe_at_standard_error_does_not_block_the_daemon(device: Device) -> None:
    device.provision()
    device.configure(upload_interval_in_seconds=str(PERIOD))
    device.start_daemon(under=INTO_A_PIPE)
    wait_for_syslog(device, "Successfully fetched access token: 200")

    refuse_uploads(device)

    errors = [event for event in device.event_log.events("syslog.line")
              if "Error uploading metrics: xxx" in event["text"]]
    assert len(errors) == LINES, "the system log gets every line"
    # With room again, the next line is preceded by the number of lost lines.
    read = device.run("dd", f"if={STANDARD_ERROR}", "iflag=nonblock", "bs=64k").output
    before = device.mark()
    device.larder.add_credentials_command(code="")
    wait_for_syslog(device, "No pelmor authorization code provided", before)
    catch_up(device)  # The system log gets a line before standard error does.
    more = device.run("dd", f"if={STANDARD_ERROR}", "iflag=nonblock", "bs=64k").output
    lost = re.search(r"WARNING ap-pelmor\[\d+\] logging\.cc:\d+\] (\d+) log lines were lost\n"
                     r".*No pelmor authorization code provided\n$", more)
    assert lost, more
    written = len(re.findall("Error uploading metrics: x{8000}\n", read))
    assert written > 1
    assert written + int(lost[1]) == LINES

    assert device.stop_daemon() == 0


def test_a_stalled_system_log_does_not_block_the_daemon(device: Device) -> None:
    device.provision()
    device.configure(upload_interval_in_seconds=str(PERIOD))
    assert device.run("python3", "-c", STALLED_SYSLOG).code == 0
    device.start_daemon()
    device.wait_for_access_token()

    refuse_uploads(device)

    errors = [line for line in device.log_lines() if "Error uploading metrics: xxx" in line]
    assert len(errors) == LINES, "standard error gets every line"
    assert device.stop_daemon() == 0
    assert "Shutting down pelmor daemon" in device.log_lines()[-1]
