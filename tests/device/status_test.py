"""The status that the daemon sends to its supervisor, and `pelmorctl status`, which prints it."""

import json
import re
import signal
import subprocess
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

from lab.common import deadlines, names
from lab.common.names import Endpoint
from lab.device.device import Device, Run, find_daemon
from lab.device.status import PREFIX, parse
from lab.device.values import string
from tests.device.helpers import BUS_SOCKET, EX_UNAVAILABLE, register, start_ready
from tests.device.pelmorctl import OK, ctl

COUNTS = ["recorded", "accepted", "pending", "in_flight", "no_token", "no_network_time", "too_old",
          "over_limit", "rejected", "pushed_out"]


def published(device: Device) -> list[str]:
    device.run("true")
    return [event["text"].removeprefix(PREFIX) for event in device.event_log.events("daemon.notify")
            if event["text"].startswith(PREFIX)]


def test_the_first_status_is_published_at_the_start(device: Device) -> None:
    device.start_daemon()
    status = device.wait_for_status("ticks count=0")
    assert status == {"points": dict.fromkeys(COUNTS, 0), "logs": dict.fromkeys(COUNTS, 0),
                      "gates": {"refresh_token": False, "access_token": False,
                                "network_time": False, "registered": "unknown"},
                      "ticks": {"count": 0}}


def test_every_status_adds_up_and_follows_the_grammar(device: Device) -> None:
    device.cloud.answer(Endpoint.REFRESH, held=True, body={"access_token": "access-1"})
    device.provision()
    device.larder.refuse("CheckDeviceRegistered")
    device.start_daemon()
    device.record_metric("ap/early", {}, 1)
    device.cloud.wait_for_request(Endpoint.REFRESH)
    device.cloud.release(Endpoint.REFRESH)
    device.wait_for_access_token()
    for number in range(25):
        device.record_metric("ap/clients", {}, number)
        device.record_offline("type.example/ap.Event", b"data")
    register(device)
    device.wait_for_status("points recorded=26 accepted=25 pending=0 in_flight=0 no_token=1 ",
                           "logs recorded=25 accepted=20 ", "pushed_out=5")
    for line in published(device):
        status = parse(line)
        for kind in ("points", "logs"):
            counts = {key: int(value) for key, value in status[kind].items()}
            assert counts["recorded"] == sum(counts[key] for key in COUNTS[1:]), line


def test_the_gates_are_shown_when_they_open(device: Device) -> None:
    device.provision()
    device.configure(upload_interval_in_seconds="3600")
    device.start_daemon()
    gates = device.wait_for_status("access_token=yes")["gates"]
    assert (gates["refresh_token"], gates["network_time"]) == (True, False)
    # The record made the daemon ask for the time, before the first tick.
    device.record_metric("ap/clients", {}, 1)
    assert device.wait_for_status("network_time=yes")["ticks"] == {"count": 0}


def test_an_unchanged_status_is_not_published(device: Device) -> None:
    device.provision()
    device.start_daemon()
    device.wait_for_status("ticks count=3")
    lines = published(device)
    assert all(one != other for one, other in zip(lines, lines[1:]))


def test_an_exchange_shows_that_the_old_tokens_are_dropped(device: Device) -> None:
    device.provision()
    device.start_daemon()
    device.wait_for_access_token()
    device.cloud.answer(Endpoint.EXCHANGE, held=True,
                        body={"access_token": "access-2", "refresh_token": "refresh-2"})
    before = device.mark()
    device.larder.add_credentials_command("/c/1", "code-1")
    device.wait_for_status("refresh_token=no access_token=no", after=before)
    request = device.cloud.wait_for_request(Endpoint.EXCHANGE)
    device.cloud.release(Endpoint.EXCHANGE, request.number)
    device.wait_for_status("refresh_token=yes access_token=yes", after=before)


def test_the_status_has_no_text_of_a_response(device: Device) -> None:
    device.provision("refresh-9")
    device.cloud.answer(Endpoint.REFRESH, status=400, body='{"error": "refresh-9\\n; x=\\"1\\""}')
    device.cloud.takes_anything = True  # The text is in the log.
    device.start_daemon()
    status = device.wait_for_status("token time=")
    assert status["token"]["error"] == "an error that RFC 6749 does not name"
    assert "refresh-9" not in "".join(published(device))


def test_a_transport_error_is_shown_in_one_bounded_line(device: Device) -> None:
    start_ready(device)
    device.record_metric("ap/clients", {}, 1)
    device.cloud.send_garbage(Endpoint.METRICS, times=1)
    register(device)
    status = device.wait_for_status("metrics time=", "error=")
    assert "status" not in status["metrics"] and status["metrics"]["error"]
    assert all(len(line) < 2000 and line.isprintable() for line in published(device))


# pelmorctl status.

def test_the_status_is_printed_as_a_table(device: Device) -> None:
    device.provision()
    device.start_daemon()
    device.wait_for_access_token()
    device.record_metric("ap/clients", {}, 12)
    device.wait_for_status("accepted=1 ")
    run = ctl(device, "status")
    assert (run.code, run.errors) == (OK, "")
    assert re.search(r"^recorded +1 +0$", run.output, re.MULTILINE)
    assert re.search(r"^accepted +1 +0$", run.output, re.MULTILINE)
    assert re.search(r"^access token +yes$", run.output, re.MULTILINE)
    assert re.search(r"^last metrics +HTTP 200 at \d{4}-\d\d-\d\d [\d:]+ UTC$", run.output,
                     re.MULTILINE)
    assert re.search(r"^last log +none yet$", run.output, re.MULTILINE)


def test_the_status_is_printed_as_one_json_object(device: Device) -> None:
    device.provision()
    device.configure(upload_interval_in_seconds="3600")
    device.start_daemon()
    status = device.wait_for_status("access_token=yes")
    run = ctl(device, "status", "--json")
    assert (run.code, run.errors, run.output.count("\n")) == (OK, "", 1)
    assert json.loads(run.output) == status


def test_without_a_daemon_a_supervisor_or_a_bus_there_is_no_status(device: Device) -> None:
    assert ctl(device, "status") == Run(
        EX_UNAVAILABLE, "", "pelmorctl: org.quintara.ap.Pelmor is not on the bus\n")
    device.start_daemon()
    device.systemd.answer_with("Get", "v", string("Serving"), times=1)
    assert ctl(device, "status") == Run(
        EX_UNAVAILABLE, "",
        "pelmorctl: the status of ap-pelmor.service is not one of this daemon\n")
    device.systemd.stop()
    run = ctl(device, "status")
    assert run.code == EX_UNAVAILABLE and "systemd does not answer: " in run.errors
    device.delete_file(BUS_SOCKET)
    run = ctl(device, "status")
    assert run.code == EX_UNAVAILABLE
    assert run.errors == "pelmorctl: the system bus can't be reached: No such file or directory\n"


def test_a_daemon_that_has_just_started_is_given_time_for_its_first_status(device: Device) -> None:
    device.start_daemon()
    device.wait_for_status("ticks count=0")
    device.systemd.answer_with("Get", "v", string(""), times=3)
    run = ctl(device, "status")
    assert (run.code, run.errors) == (OK, "")


@contextmanager
def watching(bus: Path) -> Iterator[subprocess.Popen[str]]:
    """`pelmorctl status --watch` on the host. Its output ends when it is late."""
    tool = find_daemon().parent.parent.parent / "pelmorctl/pelmorctl"
    with subprocess.Popen(
            [tool, "status", "--json", "--watch"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            env={"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={bus}"}, text=True) as watch:
        deadline = threading.Timer(deadlines.scaled(60), watch.kill)
        deadline.start()
        try:
            yield watch
        finally:
            deadline.cancel()
            watch.kill()


@pytest.mark.not_emulated("it runs pelmorctl outside of the sandbox, where no emulator is set up")
def test_watching_shows_each_change_and_continues_after_a_restart(tmp_path: Path) -> None:
    with Device(shared_folder=tmp_path) as shared, watching(tmp_path / names.HOST_BUS) as watch:
        assert watch.stdout and watch.stderr
        assert "is not on the bus" in watch.stderr.readline()
        shared.start_daemon()
        shown = map(json.loads, watch.stdout)
        # Not only the ticks change.
        first, second = next(shown), next(shown)
        assert first != second
        next(one for one in shown if one["ticks"]["count"] > second["ticks"]["count"])
        shared.record_metric("ap/clients", {}, 1)
        next(one for one in shown if one["points"]["recorded"] == 1)
        shared.stop_daemon()
        next(line for line in watch.stderr if "is not on the bus" in line)
        shared.start_daemon()
        # What was printed before the stop may still be unread.
        next(one for one in shown if one["points"]["recorded"] == 0)
        watch.send_signal(signal.SIGINT)
        assert watch.wait() == -signal.SIGINT
