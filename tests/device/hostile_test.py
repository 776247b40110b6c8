"""Extreme records, misbehaving neighbours, and a machine short of memory or descriptors."""

import signal
from mmap import PAGESIZE

import pytest

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import Device
from tests.device.helpers import (BUS_SOCKET, EX_UNAVAILABLE, MIB, kilobytes, messages, numbers_of,
                                  record_numbers, register, start_ready, start_ticking, tick,
                                  upload, wait_for_whole_cycle)

# In seconds: a sanitized daemon needs long for so much data.
PATIENCE = 120.0
# By default a bus limits messages to 32 MiB, with their headers.
LARGEST_DATA = 32 * MIB - 1024
FLAPS = 1000
# Points and logs that fill their queues.
FULL = 1000
FULL_LOGS = 20
# A full queue of these needs more than a process has in reserve.
LARGE = 8 * MIB
# More than the daemon may have open; and the bus's limit for one message.
DESCRIPTORS = 512
DESCRIPTORS_A_MESSAGE = 16
DAY = 24 * 3600
YEAR = 365 * DAY

# Sends the daemon signals with descriptors, and returns when the bus has received them.
FLOOD = f"""
import asyncio, os
from dbus_next import BusType, Message
from dbus_next.aio import MessageBus
async def main():
    bus = await MessageBus(bus_type=BusType.SYSTEM, negotiate_unix_fd=True).connect()
    null = os.open("/dev/null", os.O_RDONLY)
    for _ in range({DESCRIPTORS // DESCRIPTORS_A_MESSAGE}):
        signal = Message.new_signal("/x", "x.y", "Z", "h" * {DESCRIPTORS_A_MESSAGE},
                                    list(range({DESCRIPTORS_A_MESSAGE})),
                                    [null] * {DESCRIPTORS_A_MESSAGE})
        signal.destination = "{names.DAEMON_SERVICE}"
        await bus.send(signal)
    await bus.introspect("org.freedesktop.DBus", "/org/freedesktop/DBus")
asyncio.run(main())
"""


def uploaded(device: Device) -> dict:
    """The one metric in the request of the next cycle."""
    before = tick(device)
    request = device.cloud.wait_for_request(Endpoint.METRICS, after=before, deadline=PATIENCE)
    [metric] = request.json["metricPoints"]
    return metric


@pytest.mark.movable_clocks
def test_ten_thousand_labels_all_arrive(device: Device) -> None:
    labels = {f"label-{number}": f"value-{number}" for number in range(10_000)}
    start_ticking(device)
    device.record_metric("ap/crowded", labels, 1)
    [point] = uploaded(device)["points"]
    assert point["labels"] == labels


@pytest.mark.movable_clocks
def test_a_name_a_label_and_a_text_of_a_mebibyte_arrive_whole(device: Device) -> None:
    start_ticking(device)
    device.record_metric("n" * MIB, {"k" * MIB: "v" * MIB}, "t" * MIB)
    metric = uploaded(device)
    assert metric["metricName"] == "n" * MIB
    [point] = metric["points"]
    assert point["labels"] == {"k" * MIB: "v" * MIB}
    assert point["stringValue"] == "t" * MIB


def test_data_of_the_largest_message_is_accepted(device: Device) -> None:
    start_ready(device)
    script = ("import asyncio, sys\n"
              "from dbus_next import Message\n"
              "from dbus_next.aio import MessageBus\n"
              "async def main():\n"
              "    bus = await MessageBus(bus_address=sys.argv[1]).connect()\n"
              "    reply = await bus.call(Message(destination='org.quintara.ap.Pelmor',\n"
              "        path='/org/quintara/ap/Pelmor/Manager',\n"
              "        interface='org.quintara.ap.Pelmor.Manager', member='RecordOfflineData',\n"
              "        signature='say', body=['t', bytes(int(sys.argv[2]))]))\n"
              "    print(reply.error_name or 'accepted')\n"
              "asyncio.run(main())\n")
    run = device.run("/usr/bin/python3", "-c", script, f"unix:path={BUS_SOCKET}",
                     str(LARGEST_DATA), deadline=PATIENCE)
    assert run.output == "accepted\n", run
    assert not device.event_log.events("daemon.exited")


def test_the_daemon_follows_a_larder_that_restarted_a_thousand_times(device: Device) -> None:
    start_ready(device)
    for _ in range(FLAPS):
        device.larder.stop()
        device.larder.start()
    before = device.mark()
    device.larder.add_credentials_command()
    device.larder.wait_for_call("Complete", after=before)
    record_numbers(device, 1)
    register(device)
    assert numbers_of(device.cloud.wait_for_request(Endpoint.METRICS)) == [1]
    assert not device.event_log.events("daemon.exited")


def test_without_a_free_descriptor_points_are_kept(device: Device) -> None:
    start_ready(device)
    process = str(device.wait_for("daemon.started")["pid"])
    # The start-time file is written once; without a descriptor for it the daemon would abort.
    record_numbers(device, 0)
    register(device)
    device.cloud.wait_for_request(Endpoint.METRICS)
    device.larder.refuse("CheckDeviceRegistered")
    wait_for_whole_cycle(device)

    def allow(descriptors: int) -> None:
        limited = device.run("prlimit", f"--pid={process}", f"--nofile={descriptors}:1024")
        assert limited.code == 0, limited

    record_numbers(device, 1, 2)
    # An open connection would still work.
    device.cloud.go_away("pelmor.quintara.example")
    device.cloud.come_back("pelmor.quintara.example")
    before = device.mark()
    allow(5)
    register(device)
    device.wait_for(lambda event: event.kind == "daemon.log"
                    and "Error uploading metrics: " in event["text"], what="a failed upload")
    assert not device.cloud.requests(Endpoint.METRICS, after=before)
    allow(1024)
    assert numbers_of(device.cloud.wait_for_request(Endpoint.METRICS, after=before)) == [1, 2]


def test_descriptors_sent_during_a_blocking_call_do_not_reach_the_daemon(device: Device) -> None:
    start_ready(device)
    process = str(device.wait_for("daemon.started")["pid"])
    limited = device.run("prlimit", f"--pid={process}", f"--nofile={DESCRIPTORS // 2}:1024")
    assert limited.code == 0, limited
    before = device.mark()
    # The call blocks until the flood is over and Larder restarts, not until its time limit.
    device.larder.never_answer("CheckDeviceRegistered")
    device.larder.wait_for_call("CheckDeviceRegistered", after=before)
    flood = device.run("/usr/bin/python3", "-c", FLOOD)
    assert (flood.code, flood.errors) == (0, ""), flood
    device.larder.stop()
    device.larder.behave()
    device.larder.start()
    record_numbers(device, 1)
    assert numbers_of(device.cloud.wait_for_request(Endpoint.METRICS)) == [1]
    assert not device.event_log.events("daemon.exited")


# As the kernel kills when a control group or the machine has no memory left.
@pytest.mark.movable_clocks
def test_a_kill_with_full_queues_loses_only_the_queues(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 0)
    upload(device)
    start_time = device.read_file(names.START_TIME)
    device.larder.refuse("CheckDeviceRegistered")
    device.record_metrics([("ap/number", {}, number) for number in range(FULL)])
    for _ in range(FULL_LOGS):
        device.record_structured("type", b"data")
    assert device.kill_daemon() == -signal.SIGKILL
    register(device)
    start_ticking(device)
    record_numbers(device, 1)
    before = device.mark()
    assert numbers_of(upload(device)) == [1]
    assert device.read_file(names.START_TIME) == start_time
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    assert not device.cloud.requests(Endpoint.STRUCTURED_LOGS, after=before)


@pytest.mark.not_emulated("the emulator reserves the program's addresses at its start, and a later "
                          "limit on them is one on the emulator's own")
@pytest.mark.plain_build("AddressSanitizer reserves more addresses than any limit leaves")
# Without any room the bus library fails first, and closes the connection.
@pytest.mark.parametrize(("room", "end", "last"), [
    (0, EX_UNAVAILABLE, ["ERROR Lost the connection to the system bus",
                         "INFO Shutting down pelmor daemon"]),
    (16 * MIB, -signal.SIGABRT, ["FATAL No memory left for "]),
    (64 * MIB, -signal.SIGABRT, ["FATAL No memory left for "]),
])
def test_without_memory_the_daemon_logs_a_message_and_ends(
        device: Device, room: int, end: int, last: list[str]) -> None:
    start_ready(device)
    process = device.wait_for("daemon.started")["pid"]
    pages = int(device.read_file(f"/proc/{process}/statm").split()[0])
    limited = device.run("prlimit", f"--pid={process}", f"--as={pages * PAGESIZE + room}")
    assert limited.code == 0, limited
    for _ in range(FULL_LOGS):
        if device.call_raw("RecordOfflineData", "say", ["type", bytes(LARGE)]).error:
            break
    assert device.wait_for_exit() == end
    logged = messages(device)[-len(last):]
    assert all(map(str.startswith, logged, last)), logged
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    before = device.mark()
    device.start_daemon()
    device.wait_for_access_token(after=before)
    record_numbers(device, 1)
    register(device)
    assert numbers_of(device.cloud.wait_for_request(Endpoint.METRICS)) == [1]


@pytest.mark.parametrize(("step", "left"), [
    pytest.param(YEAR, [2], id="a year forward"),
    pytest.param(-DAY, [1, 2], id="a day back"),
])
@pytest.mark.movable_clocks
def test_points_before_a_step_of_the_clock_expire_by_the_new_time(
        device: Device, step: int, left: list[int]) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    device.move_clocks(wall=step)
    record_numbers(device, 2)
    assert numbers_of(upload(device)) == left
    record_numbers(device, 3)
    assert numbers_of(upload(device)) == [3]


@pytest.mark.not_emulated("the emulator's own memory counts")
@pytest.mark.plain_build("AddressSanitizer keeps freed memory in quarantine")
@pytest.mark.movable_clocks
def test_the_memory_of_uploaded_points_is_returned_to_the_kernel(device: Device) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    upload(device)
    before = kilobytes(device, "RssAnon")
    text = "x" * 4096
    for number in range(FULL):
        device.record_metric("ap/large", {"text": text}, number)
    full = kilobytes(device, "RssAnon")
    assert (full - before) * 1024 > FULL * len(text)
    upload(device)
    # The daemon sends the next request after it has freed the last one.
    record_numbers(device, 2)
    upload(device)
    assert kilobytes(device, "RssAnon") - before < (full - before) / 4
