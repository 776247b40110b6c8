"""The console as a command: its start, its output, and its complete end."""

import json
import os
import signal
import socket
import subprocess
import sys
import urllib.error
import urllib.request
from collections.abc import Iterator
from pathlib import Path
from types import SimpleNamespace

import pytest

from lab.common import names
from lab.common.tree import ROOT
from lab.console.__main__ import _print, _print_addresses
from tests.console.command import DEADLINE, Command

SECRETS = ("access-1", "refresh-1", "secret-1", "a-very-secret-code")


def runs(pid: int) -> bool:
    try:
        stat = Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return False
    # A zombie may still wait to be reaped by the first process.
    return stat.rpartition(")")[2].split()[0] != "Z"


@pytest.fixture
def command(request: pytest.FixtureRequest) -> Iterator[Command]:
    with Command(*getattr(request, "param", ())) as one:
        yield one


@pytest.mark.parametrize("how", [signal.SIGINT, signal.SIGTERM])
def test_it_ends_with_all_its_processes(command: Command, how: signal.Signals) -> None:
    family = command.family()
    folder = Path(command.bus.removeprefix("unix:path=")).parent
    assert len(family) > 3
    assert folder.is_dir()
    assert command.end(how) == 0
    assert {pid for pid in family if runs(pid)} == set()
    assert not folder.exists()
    assert command.process.stderr.read() == ""


def test_it_ends_while_a_page_is_connected(command: Command) -> None:
    with urllib.request.urlopen(f"{command.address}api/events") as events:
        assert events.readline().startswith(b"retry: ")
        assert command.end(signal.SIGINT) == 0


@pytest.mark.parametrize("command", [("--log", "--provisioned")], indirect=True)
def test_the_log_shows_events_without_secrets(command: Command) -> None:
    command.wait_for("(The system bus has started)")
    command.wait_for("(← 200 for token refresh)")
    command.press("deliver_code", code="a-very-secret-code")
    command.wait_for("(← 200 for code exchange)")
    command.wait_for("(Successfully fetched refresh token)")
    subprocess.run(
        ["busctl", "call", names.DAEMON_SERVICE, names.DAEMON_PATH, names.DAEMON_INTERFACE,
         "RecordMetric", "sa{ss}v", "ap/clients", "1", "band", "5g", "d", "0.25"],
        env=os.environ | {"DBUS_SYSTEM_BUS_ADDRESS": command.bus}, check=True)
    command.wait_for(r"(\d\d:\d\d:\d\d\.\d{3}   bus     RecordMetric ap/clients\{band=5g\} 0\.25)")
    command.wait_for("https   → (metrics: 1 point of 1 metric)")
    assert command.end(signal.SIGINT) == 0
    assert [secret for secret in SECRETS if secret in command.output] == []


def test_it_ends_when_the_log_reader_closes_the_pipe() -> None:
    with subprocess.Popen([sys.executable, "-m", "lab.console", "--port", "0", "--log"], cwd=ROOT,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        process.stdout.readline()
        process.stdout.close()
        assert process.wait(DEADLINE) == 0
        assert process.stderr.read() == ""


def test_without_credentials_it_waits_for_a_code(command: Command) -> None:
    with urllib.request.urlopen(f"{command.address}api/events", timeout=DEADLINE) as events:
        news = (json.loads(line.removeprefix(b"data: ")) for line in events
                if line.startswith(b"data: "))
        state = next(one["state"] for one in news if one["state"]["next"])
    assert state["next"]["press"] == "Deliver a code"
    assert state["token"] == "none"


def test_invalid_requests_are_rejected_with_a_reason(command: Command) -> None:
    for path, body, kind, code, text in (
        ("interval", b'{"seconds": 0}', "application/json", 400,
         "seconds: a whole number from 1 to 3600 is required"),
        ("interval", b"{", "application/json", 400, "the fields are not JSON"),
        ("nothing", b"{}", "application/json", 400, "no control 'nothing'; there are "),
        ("stop_load", b"{}", "text/plain", 415, "the fields must be application/json"),
        ("program", b'{"program": "bus", "action": "start"}', "application/json", 409,
         "bus is already running"),
    ):
        request = urllib.request.Request(f"{command.address}api/controls/{path}", body,
                                         {"Content-Type": kind})
        with pytest.raises(urllib.error.HTTPError) as refused:
            urllib.request.urlopen(request)
        with refused.value as reply:
            assert reply.code == code
            assert text in json.load(reply)["error"]


def test_a_port_in_use_is_named_at_once() -> None:
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
        run = subprocess.run([sys.executable, "-m", "lab.console", "--port", str(port)], cwd=ROOT,
                             capture_output=True, text=True, timeout=DEADLINE, check=False)
    assert run.returncode == 1
    assert run.stderr == f"lab: Port {port} is in use: choose another with --port\n"
    assert run.stdout == ""


def test_a_port_out_of_range_is_named() -> None:
    run = subprocess.run([sys.executable, "-m", "lab.console", "--port", "70000"], cwd=ROOT,
                         capture_output=True, text=True, timeout=DEADLINE, check=False)
    assert run.returncode == 1
    assert run.stderr.startswith("lab: Port 70000 can't be used")


def test_output_is_written_in_whole_lines(monkeypatch: pytest.MonkeyPatch) -> None:
    # The timeline is printed on another thread, and would come in between.
    pieces: list[str] = []
    monkeypatch.setattr(sys, "stdout", SimpleNamespace(write=pieces.append, flush=lambda: None))
    line = {"at": 1.25, "severity": "warning", "category": "https", "text": "← 503"}
    cloud = SimpleNamespace(query_url="q", service_url="s", data="d")
    for reference in (None, cloud):
        _print_addresses(SimpleNamespace(address="a", bus_address="b"), reference)
        _print([line, line])
    assert len([piece for piece in pieces if "← 503" in piece]) == 4
    assert [piece for piece in pieces if piece and not piece.endswith("\n")] == []
    assert len([piece for piece in pieces if "is up." in piece and "ends it." in piece]) == 2
