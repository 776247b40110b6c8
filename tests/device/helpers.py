"""What the tests share: how a device gets ready, and how its daemon's log reads."""

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
    """Lets the lab read all that the daemon has logged by now: it may have seen other things that
    came later."""
    device.run("true")


def message_of(line: str) -> str:
    """The severity and the message of a line of the log; a line of another form is left whole."""
    found = LOG_LINE.fullmatch(line)
    return f"{found['severity']} {found['message']}" if found else line


def messages(device: Device, after: Event | None = None) -> list[str]:
    """The severities and messages of all that the daemon has logged since."""
    settle(device)
    return [message_of(event["text"]) for event in device.event_log.events("daemon.log", after)]


def wait_for_message(device: Device, message: str, *, after: Event | None = None, count: int = 1,
                     deadline: float = DEFAULT_DEADLINE) -> Event:
    """Waits for a line of the log that is, severity included, just `message`."""
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
    """A daemon that takes records, and keeps them until `register` lets it upload."""
    device.provision("refresh-1")
    device.larder.refuse("CheckDeviceRegistered")
    device.start_daemon()
    device.wait_for_access_token()


def register(device: Device) -> None:
    device.larder.behave("CheckDeviceRegistered")


def settled_mark(device: Device) -> Event | None:
    """A mark behind all that the daemon has logged by now."""
    settle(device)
    return device.mark()


def wait_for_whole_cycle(device: Device) -> None:
    """Waits until an upload cycle that began after this call is over: until the next begins."""
    # A cycle asks twice. The second of the one that is under way may be the first that is counted;
    # then come the two of a whole one, and the first of the next.
    device.larder.wait_for_call("CheckDeviceRegistered", after=device.mark(), count=4)


# The upload interval of `start_ticking`'s daemons, in seconds: more than a test ever takes, and
# more than a refresh of the access token must wait for the next.
PERIOD = 60

METRICS_STATUS = "AccessPoint.PelmorMetrics.ResponseStatusCode"
LOG_STATUS = "AccessPoint.PelmorStructuredLog.ResponseStatusCode"


def start(device: Device, period: int = PERIOD) -> None:
    """On a device with movable clocks, a daemon that has seen Larder, and whose upload timer ticks
    when `tick` says so."""
    device.configure(upload_interval_in_seconds=str(period))
    before = device.mark()
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", after=before)


def start_ticking(device: Device, period: int = PERIOD) -> None:
    """Such a daemon, with an access token: it takes records."""
    device.provision()
    before = device.mark()
    start(device, period)
    device.wait_for_access_token(after=before)


def catch_up(device: Device) -> None:
    """Returns when the daemon has done what was due before this call. What it awaits of others,
    the cloud's answers above all, may still be to come."""
    for _ in range(2):  # The turn of its loop that a timer is due in may begin with the ping.
        # What Larder said comes over one connection, what reporters said over another.
        for connection in device.daemon_connections():
            device.call_raw("Ping", destination=connection,
                            interface="org.freedesktop.DBus.Peer")


def tick(device: Device, period: int = PERIOD) -> Event | None:
    """Lets one upload interval pass; returns the moment before, when the tick is over."""
    before = settled_mark(device)
    device.move_clocks(monotonic=period)
    catch_up(device)
    return before


def upload(device: Device, period: int = PERIOD) -> Request:
    """Lets one upload interval pass, in which points go out; returns their request when the daemon
    has taken in its answer."""
    before = tick(device, period)
    request = device.cloud.wait_for_request(Endpoint.METRICS, after=before)
    wait_for_status(device, METRICS_STATUS, after=before)
    return request


def wait_for_status(device: Device, name: str, *, after: Event | None = None,
                    count: int = 1) -> Event:
    """Waits until the daemon has got an answer, whose status it then tells the collector."""
    return device.wait_for("statsd.sample", name=name, after=after, count=count)


def record_numbers(device: Device, *numbers: int) -> None:
    for number in numbers:
        device.record_metric("ap/number", {}, number)


def numbers_of(request: Request) -> list[int]:
    """The numbers that `record_numbers` recorded, in the order of the request."""
    [group] = request.json["metricPoints"]
    return [int(point["int64Value"]) for point in group["points"]]


def told_larder(device: Device, after: Event | None = None) -> list[tuple[Any, ...]]:
    """What the daemon did to Larder: a command's method with its path and arguments, or a state as
    ("state", provisioned); each nonce is checked to be fresh, or 0."""
    told: list[tuple[Any, ...]] = []
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
            told.append(("state", provisioned))
        elif call["interface"] == names.LARDER_COMMAND:
            told.append((call["method"], call["path"], *call["arguments"]))
        elif call["interface"] == names.LARDER_MANAGER:
            told.append((call["method"],))
    return told


def metric_names(device: Device) -> list[list[str]]:
    """The names of the metrics in each request."""
    return [[group["metricName"] for group in request.json["metricPoints"]]
            for request in device.cloud.requests(Endpoint.METRICS)]
