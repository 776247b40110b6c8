"""Hostile texts from the cloud and for the cloud, and name servers that fail."""

import re
import time

import pytest

from lab.common import names
from lab.common.names import Endpoint, Host
from lab.device import emulation
from lab.device.device import Device, find_daemon
from lab.device.events import Event
from lab.device.programs import Request
from tests.device.helpers import (messages, numbers_of, record_numbers, start_ticking, tick, upload,
                                  wait_for_message)

BAD_URL = "ERROR Error uploading metrics: refusing to send to a bad URL"


@pytest.mark.movable_clocks
def test_a_token_with_line_breaks_cannot_add_a_header(device: Device) -> None:
    device.cloud.answer(Endpoint.REFRESH, body={"access_token": "access-9\r\nx-evil: 1"}, times=1)
    start_ticking(device)
    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    record_numbers(device, 1)
    refused = upload(device)
    assert refused.headers["authorization"] == "Bearer access-9  x-evil: 1"
    assert "x-evil" not in refused.headers
    # The refresh that follows returns the usual token.
    device.wait_for_access_token(after=refused.event)
    record_numbers(device, 2)
    accepted = upload(device)
    assert accepted.headers["authorization"] == "Bearer access-1"
    assert numbers_of(accepted) == [1, 2]


def with_upper_case_escapes(path: str) -> str:
    """As newer versions of libcurl write them; they are equal by RFC 3986, section 6.2.2.1."""
    return re.sub("%[0-9a-f]{2}", lambda escape: escape[0].upper(), path)


# The id is part of the URL, unescaped. Whatever it is, a request goes only to the configured host.
@pytest.mark.parametrize(("device_id", "path"), [
    ("a?b", "/v1/devices/a?b/metrics:batchCreatePoints"),
    ("a#b", "/v1/devices/a"),
    ("a/b", "/v1/devices/a/b/metrics:batchCreatePoints"),
    ("../../x", "/x/metrics:batchCreatePoints"),
    ("../../../../..", "/metrics:batchCreatePoints"),
    ("//other.example", "/v1/devices/other.example/metrics:batchCreatePoints"),
    ("@other.example:1", "/v1/devices/@other.example:1/metrics:batchCreatePoints"),
    ("%0d%0ax-evil:1", "/v1/devices/%0D%0Ax-evil:1/metrics:batchCreatePoints"),
])
@pytest.mark.movable_clocks
def test_an_odd_device_id_stays_in_the_path_on_the_configured_host(
        device: Device, device_id: str, path: str) -> None:
    # Not all of these paths are allowed by docs/cloud-api.yaml; the check for secrets remains.
    device.cloud.takes_anything = True
    start_ticking(device)
    device.larder.register(device_id)
    record_numbers(device, 1)
    before = tick(device)
    request = Request.of(device.wait_for("cloud.request", after=before))
    assert (request.host, with_upper_case_escapes(request.path)) == (Host.MONITORING, path)
    assert "x-evil" not in request.headers
    device.secrets.check()


@pytest.mark.parametrize("device_id", ["a\r\nx-evil: 1", "a b", "a\x7f", "\x01"])
@pytest.mark.movable_clocks
def test_a_device_id_that_is_invalid_in_a_url_sends_no_request(
        device: Device, device_id: str) -> None:
    start_ticking(device)
    device.larder.register(device_id)
    record_numbers(device, 1)
    before = tick(device)
    assert [text for text in messages(device, after=before) if text.startswith(BAD_URL)]
    assert not device.cloud.requests(Endpoint.METRICS) + device.cloud.requests(Endpoint.UNKNOWN)
    device.larder.register("device-1")
    assert numbers_of(upload(device)) == [1]


# Appended to these, the device id would be the host.
@pytest.mark.parametrize("url", ["", "/", "//", "https:", "https://"])
@pytest.mark.movable_clocks
def test_without_a_host_in_the_configured_url_no_token_is_sent(device: Device, url: str) -> None:
    device.write_file(names.OVERRIDE, f"PELMOR_URL={url}\n")
    device.cloud.takes_anything = True
    start_ticking(device)
    device.larder.register(Host.MONITORING)
    record_numbers(device, 1)
    device.record_structured("type", b"data")
    before = tick(device)
    wait_for_refusal(device, "metrics", before)
    wait_for_refusal(device, "log", before)
    # Both records are kept.
    again = tick(device)
    wait_for_refusal(device, "metrics", again)
    wait_for_refusal(device, "log", again)
    assert not device.event_log.events("cloud.request", before)
    check = device.run(names.TOOL_PROGRAM, "check-config")
    assert "PELMOR_URL: refusing to send to a bad URL" in check.output
    assert "nothing will be uploaded" in check.output


def wait_for_refusal(device: Device, what: str, after: Event | None) -> None:
    device.wait_for_log(f"Error uploading {what}: refusing to send to a bad URL", after=after)


# The part of a body that is kept, in bytes.
MAX_BODY = 1024 * 1024


# Parsing in quadratic time took a minute.
@pytest.mark.parametrize("part", ["{},", "[],", "[[]],", '"a",', "0,"])
def test_a_token_response_of_many_small_parts_does_not_block_the_daemon(
        device: Device, part: str) -> None:
    token = '{"access_token":"access-1","more":['
    parts = part * ((MAX_BODY - len(token) - 2) // len(part))
    device.provision()
    device.cloud.answer(Endpoint.REFRESH, body=token + parts[:-1] + "]}")
    device.start_daemon()
    device.wait_for_access_token()
    device.record_metric("ap/after", {}, 1)
    assert device.stop_daemon() == 0


# Name servers.

HOSTS = "/etc/hosts"
UNKNOWN_HOST = "ERROR Error uploading metrics: Could not resolve host: " + Host.MONITORING
# The message of libcurl, or of the transport where libcurl has no time limit.
RESOLVING_TIMED_OUT = re.compile(
    "Error uploading metrics: (Resolving|Operation) timed out after 10")
# In seconds: the resolver's time limit for an answer, longer than any test.
RESOLVER_PATIENCE = 30
# The longest shutdown while a name is being resolved, in seconds.
PROMPT = 5.0

SILENT_NAME_SERVER = """
import os, signal, socket
server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
server.bind(("127.0.0.1", 53))
if os.fork() == 0:
    for stream in range(3):
        os.close(stream)
    signal.pause()
"""


def forget_the_service(device: Device) -> str:
    """Removes the service's host from /etc/hosts; returns the former content."""
    known = device.read_file(HOSTS).decode()
    lines = [line for line in known.splitlines(keepends=True) if Host.MONITORING not in line]
    device.write_file(HOSTS, "".join(lines))
    return known


def have_a_silent_name_server(device: Device) -> None:
    device.write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n")
    device.write_file("/etc/resolv.conf", "nameserver 127.0.0.1\n"
                      f"options timeout:{RESOLVER_PATIENCE} attempts:5\n")
    started = device.run("/usr/bin/python3", "-c", SILENT_NAME_SERVER)
    assert started.code == 0, started


def threads_of(device: Device) -> int:
    process = device.wait_for("daemon.started")["pid"]
    threads = len(device.run("ls", f"/proc/{process}/task").output.split())
    return threads - emulation.threads_of_its_own(find_daemon())


@pytest.mark.movable_clocks
def test_points_are_kept_while_the_host_name_cannot_be_resolved(device: Device) -> None:
    known = forget_the_service(device)
    start_ticking(device)
    record_numbers(device, 1)
    before = tick(device)
    wait_for_message(device, UNKNOWN_HOST, after=before)
    device.write_file(HOSTS, known)
    record_numbers(device, 2)
    assert numbers_of(upload(device)) == [1, 2]
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"


@pytest.mark.movable_clocks
def test_a_name_server_that_never_answers_does_not_block_the_daemon(device: Device) -> None:
    known = forget_the_service(device)
    have_a_silent_name_server(device)
    start_ticking(device)
    record_numbers(device, 1)
    before = tick(device)
    # The resolver's own thread waits; the event loop handles calls.
    assert threads_of(device) > 1
    record_numbers(device, 2)
    device.move_clocks(monotonic=10)
    device.wait_for(lambda event: event.kind == "daemon.log"
                    and RESOLVING_TIMED_OUT.search(event["text"]), after=before)
    device.write_file(HOSTS, known)
    record_numbers(device, 3)
    assert numbers_of(upload(device)) == [1, 2, 3]


@pytest.mark.movable_clocks
def test_shutdown_does_not_wait_for_a_name_server(device: Device) -> None:
    forget_the_service(device)
    have_a_silent_name_server(device)
    start_ticking(device)
    record_numbers(device, 1)
    tick(device)
    assert threads_of(device) > 1
    start = time.monotonic()
    assert device.stop_daemon() == 0
    assert time.monotonic() - start < PROMPT
