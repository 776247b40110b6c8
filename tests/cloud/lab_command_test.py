"""The lab with a real cloud, as a command and as a library."""

import dataclasses
import json
import os
import signal
import subprocess
import sys
import urllib.request
from collections.abc import Callable
from pathlib import Path
from urllib.parse import quote, urlsplit

import pytest

from cloud.process import Cloud
from lab.common import names
from lab.common.errors import LabError
from lab.common.names import Host
from lab.console.__main__ import DEVICE_ID
from lab.console.timeline import Timeline
from lab.device.device import Device, find_daemon
from lab.device.events import Event
from lab.device.external import of_the_reference
from tests.cloud.client import wait_until
from tests.console.command import Command

pytestmark = pytest.mark.xdist_group("cloud")


def report(command: Command, metric: str) -> None:
    """As a program of the machine does."""
    subprocess.run(
        ["busctl", "call", names.DAEMON_SERVICE, names.DAEMON_PATH, names.DAEMON_INTERFACE,
         "RecordMetric", "sa{ss}v", metric, "1", "band", "5g", "d", "0.25"], check=True,
        env=os.environ | {"DBUS_SYSTEM_BUS_ADDRESS": command.bus})


def stored(query_url: str, metric: str) -> list[tuple[str, str, str]]:
    """The device, the label and the value of the latest sample of each series."""
    query = quote(f'{{__name__="{metric}"}}')
    with urllib.request.urlopen(f"{query_url}/api/v1/query?query={query}") as answer:
        found = json.load(answer)["data"]["result"]
    return [(one["metric"]["pelmor_device"], one["metric"]["band"], one["value"][1])
            for one in found]


def reported_until_stored(command: Command, query_url: str) -> list[tuple[str, str, str]]:
    """The daemon drops what is reported before it has a token."""
    metric = f"ap/lab/{os.urandom(4).hex()}"

    def find() -> list[tuple[str, str, str]]:
        report(command, metric)
        return stored(query_url, metric)

    return wait_until(find, f"a sample of {metric}")


@pytest.fixture
def token_url(cloud: Cloud) -> str:
    """The cloud's, as long as that of the release build."""
    length = len(of_the_reference(cloud).token_url)
    return f"{cloud.token_url}?".ljust(length, "-")


@pytest.fixture
def daemon(cloud: Cloud, token_url: str, tmp_path: Path) -> Path:
    """The release build for another token endpoint, without the minute of linking it."""
    own = of_the_reference(cloud).token_url.encode()
    program = find_daemon().read_bytes()
    assert own in program
    path = tmp_path / "ap-pelmor"
    path.write_bytes(program.replace(own, token_url.encode()))
    path.chmod(0o755)
    return path


@pytest.fixture
def options(cloud: Cloud, daemon: Path, token_url: str, tmp_path: Path) -> list[str]:
    secret = tmp_path / "secret"
    secret.write_text(cloud.client_secret_file.read_text() + "\n")
    return ["--cloud", cloud.service_url, "--token-url", token_url, "--ca", str(cloud.authority),
            "--client-id", cloud.client_id, "--client-secret-file", str(secret),
            "--daemon", str(daemon)]


def test_a_device_uses_the_cloud_of_the_options(cloud: Cloud, options: list[str]) -> None:
    host = urlsplit(cloud.service_url).netloc
    code = cloud.provision(DEVICE_ID)
    with Command("--log", *options) as command:
        command.press("deliver_code", code=code)
        assert reported_until_stored(command, cloud.query_url) == [(DEVICE_ID, "5g", "0.25")]
        command.wait_for(f"(A connection to {host})")
        os.kill(cloud.pid("service"), signal.SIGKILL)
        command.wait_for(f"(The connection to {host} has ended: [1-9][0-9]* bytes sent,"
                         " [1-9][0-9]* received)")
        for secret in (code, cloud.client_secret_file.read_text()):
            assert secret not in command.output


@pytest.mark.xdist_group("own cloud")
def test_the_command_starts_the_reference_cloud_too() -> None:
    with Command("--cloud", "reference", "--provisioned") as command:
        query_url = command.wait_for(r"Points: +(\S+)\n")
        data = Path(command.wait_for(r"Data: +(\S+)\n"))
        assert reported_until_stored(command, query_url) == [(DEVICE_ID, "5g", "0.25")]
        assert command.end(signal.SIGINT) == 0
    assert not data.exists()


@pytest.mark.parametrize(("change", "complaint"), [
    (lambda options: options[:2], "--cloud needs --token-url, --ca, --client-id and"),
    (lambda options: [*options, "--provisioned"], "deliver it on the page"),
    (lambda options: [*options, "--ca", "/nowhere"], "lab: cannot read /nowhere"),
    (lambda options: [*options, "--cloud", "http://localhost/v1"], "lab: not an https URL"),
    (lambda options: [*options, "--token-url", "https://localhost/"],
     "is built for another token endpoint: build it with -DPELMOR_TOKEN_ENDPOINT_URL=https://loc")])
def test_unusable_options_are_reported(options: list[str], complaint: str,
                                       change: Callable[[list[str]], list[str]]) -> None:
    command = [sys.executable, "-m", "lab.console", "--port", "0", *change(options)]
    # A lab that takes them would run on.
    run = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    assert run.returncode in (1, 2)
    assert complaint in run.stderr


def test_a_cloud_that_cannot_be_reached_is_an_event(cloud: Cloud) -> None:
    # Port 1 of the loopback address has no server.
    place = {(Host.IDENTITY.value, 443): ("127.0.0.1", 1)}
    with Device(cloud=dataclasses.replace(of_the_reference(cloud), places=place)) as device:
        device.start_daemon()
        device.larder.add_credentials_command(code="any")
        failed = device.wait_for("relay.failed", host=f"{Host.IDENTITY}:443")
        assert "Connect call failed" in failed["error"]
        device.larder.wait_for_call("Abort")


def test_connections_are_lines_of_the_console() -> None:
    host, timeline = "cloud.example:443", Timeline()
    events = [Event(1, 0, "relay.opened", {"host": host}),
              Event(2, 0, "relay.closed", {"host": host, "sent": 12, "received": 34}),
              Event(3, 0, "relay.failed", {"host": host, "error": "refused"})]
    lines = [line for one in events for line in timeline.lines(one, [])]
    assert [(line.category, line.text, line.severity) for line in lines] == [
        ("https", f"A connection to {host}", "info"),
        ("https", f"The connection to {host} has ended: 12 bytes sent, 34 received", "info"),
        ("https", f"No connection to {host}: refused", "error")]


def test_a_daemon_for_another_token_endpoint_is_rejected(cloud: Cloud) -> None:
    other = dataclasses.replace(of_the_reference(cloud), token_url="https://id.example.com/token")
    with pytest.raises(LabError, match="is built for another token endpoint"):
        with Device(cloud=other):
            pass
