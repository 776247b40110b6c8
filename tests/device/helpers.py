"""Shared by the tests: starting a daemon, ticks and uploads, and reading its log."""

import re
import time
from typing import Any

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import Device
from lab.device.events import DEFAULT_DEADLINE, Event
from lab.device.programs import Request

# Exit codes of sysexits.h.
EX_USAGE = 64
EX_UNAVAILABLE = 69

MIB = 1024 * 1024
BUS_SOCKET = "/run/dbus/system_bus_socket"
COMMAND = "/org/quintara/Larder/commands/1"
OTHER_COMMAND = "/org/quintara/Larder/commands/2"

# A line of the daemon's log on its standard error.
LOG_LINE = re.compile(
    r"(?P<time>\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z) (?P<severity>INFO|WARNING|ERROR|FATAL) "
    r"ap-pelmor\[(?P<pid>\d+)\] (?P<place>\w+\.\w+:\d+)\] (?P<message>.*)")


def settle(device: Device) -> None:
    """Returns when the lab has read all that the daemon has logged before this call."""
    device.run("true")


def message_of(line: str) -> str:
    """The severity and the message of a line of the log; a line of another form unchanged."""
    found = LOG_LINE.fullmatch(line)
    return f"{found['severity']} {found['message']}" if found else line


def messages(device: Device, after: Event | None = None) -> list[str]:
    """The severities and messages of the lines that the daemon has logged since."""
    settle(device)
    return [message_of(event["text"]) for event in device.event_log.events("daemon.log", after)]


def wait_for_message(device: Device, message: str, *, after: Event | None = None, count: int = 1,
                     deadline: float = DEFAULT_DEADLINE) -> Event:
    """Waits for a line of the log with exactly this severity and message."""
    return device.wait_for(
        lambda event: event.kind == "daemon.log" and message_of(event["text"]) == message,
        after=after, count=count, deadline=deadline, what=f'log "{message}"')


def wait_for_failure(device: Device, start: str) -> str:
    """Waits for a line of the log that begins with `start`; returns the rest of the line."""
    event = device.wait_for(
        lambda event: event.kind == "daemon.log" and message_of(event["text"]).startswith(start),
        what=f'log "{start}…"')
    return message_of(event["text"]).removeprefix(start)


def kilobytes(device: Device, field: str, pid: int | None = None) -> int:
    """A field of /proc/PID/status, the daemon's by default."""
    pid = pid or device.wait_for("daemon.started")["pid"]
    status = device.run("cat", f"/proc/{pid}/status").output
    [found] = re.findall(rf"^{field}:\s+(\d+) kB$", status, re.MULTILINE)
    return int(found)


def start_ready(device: Device) -> None:
    """A daemon that accepts records, and keeps them until `register` lets it upload."""
    device.provision("refresh-1")
    device.larder.refuse("CheckDeviceRegistered")
    device.start_daemon()
    device.wait_for_access_token()


def register(device: Device) -> None:
    device.larder.behave("CheckDeviceRegistered")


def settled_mark(device: Device) -> Event | None:
    """A mark after all that the daemon has logged before this call."""
    settle(device)
    return device.mark()


def wait_for_whole_cycle(device: Device) -> None:
    """Waits until an upload cycle that began after this call has ended."""
    # A cycle makes two such calls. The first one counted may be the second of the current cycle;
    # then follow the two of a whole cycle, and the first of the next.
    device.larder.wait_for_call("CheckDeviceRegistered", after=device.mark(), count=4)


# The upload interval of `start_ticking`, in seconds: longer than any test, and longer than the
# least time between two refreshes of the access token.
PERIOD = 60

METRICS_STATUS = "AccessPoint.PelmorMetrics.ResponseStatusCode"
LOG_STATUS = "AccessPoint.PelmorStructuredLog.ResponseStatusCode"


def start(device: Device, period: int = PERIOD, **environment: str) -> None:
    """On a device with movable clocks, a daemon that knows Larder, and whose upload timer ticks
    when `tick` says so."""
    device.configure(upload_interval_in_seconds=str(period))
    before = device.mark()
    device.start_daemon(**environment)
    device.larder.wait_for_call("UpdateState", after=before)


def start_ticking(device: Device, period: int = PERIOD, **environment: str) -> None:
    """Such a daemon, with an access token: it accepts records."""
    device.provision()
    before = device.mark()
    start(device, period, **environment)
    device.wait_for_access_token(after=before)


def catch_up(device: Device) -> None:
    """Returns when the daemon has done what was due before this call. Replies that it waits for,
    above all the cloud's, may still be missing."""
    for _ in range(2):  # The iteration that has a due timer may handle the ping first.
        # Larder's messages and the reporters' calls arrive on two connections.
        for connection in device.daemon_connections():
            device.call_raw("Ping", destination=connection,
                            interface="org.freedesktop.DBus.Peer")


def tick(device: Device, period: int = PERIOD) -> Event | None:
    """Lets one upload interval pass; after the tick, returns a mark before it."""
    before = settled_mark(device)
    device.move_clocks(monotonic=period)
    catch_up(device)
    return before


def upload(device: Device, period: int = PERIOD) -> Request:
    """Lets one upload interval pass, and a cycle upload points; returns their request when the
    daemon has handled its answer."""
    before = tick(device, period)
    request = device.cloud.wait_for_request(Endpoint.METRICS, after=before)
    wait_for_status(device, METRICS_STATUS, after=before)
    return request


def wait_for_status(device: Device, name: str, *, after: Event | None = None,
                    count: int = 1) -> Event:
    """Waits until the daemon has an answer, whose status it sends to the collector."""
    return device.wait_for("statsd.sample", name=name, after=after, count=count)


def record_numbers(device: Device, *numbers: int) -> None:
    for number in numbers:
        device.record_metric("ap/number", {}, number)


def numbers_of(request: Request) -> list[int]:
    """The numbers that `record_numbers` recorded, in the order of the request."""
    [group] = request.json["metricPoints"]
    return [int(point["int64Value"]) for point in group["points"]]


def calls_of_larder(device: Device, after: Event | None = None) -> list[tuple[Any, ...]]:
    """The daemon's calls of Larder: a command's method with its path and arguments, or a state as
    ("state", provisioned). Each nonce must be fresh, or 0."""
    found: list[tuple[Any, ...]] = []
    for call in device.larder.calls(after=after):
        if call["method"] == "UpdateState":
            assert call["path"] == names.LARDER_MANAGER_PATH, call
            [state] = call["arguments"]
            assert list(state) == [names.CREDENTIALS_STATE], call
            entries = state[names.CREDENTIALS_STATE].value
            provisioned = entries["_provisioned"].value
            nonce = entries["_nonce"].value
            now = int(time.time())
            assert nonce == 0 if provisioned else now - 20 <= nonce <= now, entries
            found.append(("state", provisioned))
        elif call["interface"] == names.LARDER_COMMAND:
            found.append((call["method"], call["path"], *call["arguments"]))
        elif call["interface"] == names.LARDER_MANAGER:
            found.append((call["method"],))
    return found


def metric_names(device: Device) -> list[list[str]]:
    """The names of the metrics in each request."""
    return [[group["metricName"] for group in request.json["metricPoints"]]
            for request in device.cloud.requests(Endpoint.METRICS)]
