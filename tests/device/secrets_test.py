"""A secret is only in the daemon's memory until it is replaced, in its file, and in requests to its
host."""

import base64

import pytest

from lab.common import names
from lab.common.errors import LabError
from lab.common.names import Endpoint, Host
from lab.device.device import Device
from tests.device import memory
from tests.device.helpers import (COMMAND, METRICS_STATUS, catch_up, record_numbers, settle,
                                  start_ticking, tick, upload, wait_for_message, wait_for_status)

# Long enough to be on the heap, as real secrets are.
REFRESH = {name: f"refresh-{name}-{'r' * 60}" for name in ("old", "new")}
ACCESS = {name: f"access-{name}-{'a' * 150}" for name in ("first", "second", "third")}
CODE = f"code-{'c' * 60}"
CLIENT_SECRET = f"client-secret-{'s' * 40}"


def start(device: Device) -> None:
    """A working daemon with secrets as long as real ones."""
    device.configure(client_secret=CLIENT_SECRET, upload_interval_in_seconds="60")
    device.provision(REFRESH["old"])
    device.cloud.answer(Endpoint.REFRESH, body={"access_token": ACCESS["first"]}, times=1)
    device.start_daemon()
    device.wait_for_access_token()


def provision_anew(device: Device) -> None:
    """The answer is longer than those before, and overwrites them in the TLS library's buffer."""
    device.cloud.answer(Endpoint.EXCHANGE, times=1, body={
        "access_token": ACCESS["third"], "refresh_token": REFRESH["new"], "more": "x" * 2000})
    before = device.mark()
    device.larder.add_credentials_command(COMMAND, CODE)
    device.larder.wait_for_call("Complete", after=before)
    device.larder.remove_command(COMMAND)
    device.wait_for_file(names.REFRESH_TOKEN, after=before)


# In memory.

@pytest.mark.plain_build("AddressSanitizer's heap keeps, unwiped, what the TLS library frees")
@pytest.mark.movable_clocks
def test_a_replaced_secret_is_erased_from_memory(device: Device) -> None:
    secrets = {"client secret": CLIENT_SECRET, "code": CODE, **REFRESH, **ACCESS}
    start(device)
    assert memory.found_in(device, secrets) == {"client secret", "old", "first"}

    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    device.cloud.answer(Endpoint.REFRESH, times=1, body={
        "access_token": ACCESS["second"], "more": "x" * 1000})
    before = device.mark()
    record_numbers(device, 1)
    upload(device)
    device.wait_for_access_token(after=before)
    before = tick(device)
    wait_for_status(device, METRICS_STATUS, after=before)
    assert memory.found_in(device, secrets) == {"client secret", "old", "second"}

    provision_anew(device)
    record_numbers(device, 2)
    upload(device)
    catch_up(device)
    assert memory.found_in(device, secrets) == {"client secret", "new", "third"}


@pytest.mark.plain_build("AddressSanitizer's heap keeps, unwiped, what the TLS library frees")
@pytest.mark.movable_clocks
def test_a_code_of_a_removed_command_is_erased_from_memory(device: Device) -> None:
    start(device)
    # In a command that the daemon does not execute, and in a message longer than later ones.
    code = "x" * 3000 + CODE + "x" * 3000
    device.larder.add_credentials_command(COMMAND, code, state="done")
    device.larder.invalidate_property(COMMAND, "Parameters")
    device.larder.wait_for_call("Get")
    catch_up(device)
    assert memory.found_in(device, {"code": CODE}) == {"code"}
    device.larder.remove_command(COMMAND)
    catch_up(device)
    assert memory.found_in(device, {"code": CODE}) == set()


def test_other_programs_of_its_user_cannot_inspect_the_daemon(device: Device) -> None:
    device.start_daemon()
    daemon = device.event_log.events("daemon.started")[-1]["pid"]
    parent = device.run("sh", "-c", "echo $PPID").output.strip()
    for file in ("maps", "environ", "auxv"):
        assert device.run("cat", f"/proc/{parent}/{file}").code == 0, "that of another program"
        refused = device.run("cat", f"/proc/{daemon}/{file}")
        assert refused.code == 1 and "denied" in refused.errors, refused


def test_a_failed_check_aborts(device: Device) -> None:
    device.configure(client_secret=None)
    device.start_daemon(wait=False)
    assert device.wait_for_exit() == -6


@pytest.mark.movable_clocks
def test_its_command_line_and_environment_have_no_secret(device: Device) -> None:
    start(device)
    provision_anew(device)
    process = memory.process_of(device)
    for file in ("cmdline", "environ", "comm", "maps"):
        content = (process / file).read_text()
        assert content
        for secret in (CLIENT_SECRET, CODE, *REFRESH.values(), *ACCESS.values()):
            assert secret not in content, file


# On disk.

@pytest.mark.movable_clocks
def test_the_refresh_token_is_only_in_its_file_and_private(device: Device) -> None:
    device.write_file(f"{names.REFRESH_TOKEN}.new", "left by a crash", mode=0o666)
    start(device)
    provision_anew(device)
    listed = device.run("find", names.STATE_FOLDER, "-type", "f", "-printf", "%f %m\n")
    assert listed.output == "refresh_token 600\n"
    found = device.run("grep", "--recursive", "--files-with-matches", REFRESH["new"],
                       "/etc", "/run", "/tmp", "/var")
    assert found.output == f"{names.REFRESH_TOKEN}\n"


@pytest.mark.movable_clocks
def test_no_record_is_written_to_a_file(device: Device) -> None:
    point, log = "the text of a point", "the data of a log"
    start(device)
    device.write_file("/run/known", point)
    device.record_metric("ap/text", {}, point)
    device.record_offline("type.example/ap.Event", log.encode())
    assert point in upload(device).body
    device.cloud.wait_for_request(Endpoint.OFFLINE_LOGS)
    patterns = (point, log, base64.b64encode(log.encode()).decode())
    found = device.run("grep", "--recursive", "--files-with-matches",
                       *(f"--regexp={text}" for text in patterns), "/etc", "/run", "/tmp", "/var")
    assert found.output == "/run/known\n"


# In requests.

@pytest.mark.parametrize("status", [301, 302, 303, 307, 308])
@pytest.mark.movable_clocks
def test_no_redirect_sends_a_token_to_another_host(device: Device, status: int) -> None:
    start_ticking(device)
    record_numbers(device, 1)
    device.cloud.answer(Endpoint.METRICS, status, times=1,
                        headers={"Location": f"https://{Host.IDENTITY}/token"})
    upload(device)
    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    device.cloud.answer(Endpoint.REFRESH, status, times=1,
                        headers={"Location": f"https://{Host.MONITORING}/v1/metrics"})
    record_numbers(device, 2)
    upload(device)
    wait_for_message(device, f"INFO Successfully fetched access token: {status}")
    assert [request.endpoint for request in device.cloud.requests()] == [
        Endpoint.REFRESH, Endpoint.METRICS, Endpoint.METRICS, Endpoint.REFRESH]


# The lab's own check at the end of every device.

of_the_lab = pytest.mark.plain_build("a test of the lab: a sanitized daemon adds nothing")


@pytest.fixture
def world():
    """A device without a daemon, with secrets to detect."""
    with Device("/usr/bin/false") as device:
        device.cloud.takes_anything = True
        device.configure(client_secret="secret-zeta")
        device.provision("refresh-alpha")
        yield device


@of_the_lab
@pytest.mark.parametrize("secret", ["secret-zeta", "refresh-alpha"])
def test_a_secret_in_an_output_is_detected(world: Device, secret: str) -> None:
    world.secrets.check()
    world.run("logger", "--socket", "/dev/log", f"the token is {secret}!")
    world.wait_for("syslog.line")
    with pytest.raises(LabError, match="revealed by syslog.line: .*the token is …!") as raised:
        world.secrets.check()
    assert secret not in str(raised.value)


@of_the_lab
def test_a_secret_in_a_programs_output_is_detected(world: Device) -> None:
    world.run("sh", "-c", "echo secret-zeta >&2")
    with pytest.raises(LabError, match="A secret was revealed by sh: …"):
        world.secrets.check()


@of_the_lab
def test_a_secret_in_the_daemons_log_is_detected(tmp_path) -> None:
    printer = tmp_path / "printer"
    printer.write_text("#!/bin/sh\nexec cat /etc/ap/pelmor.conf\n")
    printer.chmod(0o755)
    with pytest.raises(LabError, match="revealed by daemon.log: PELMOR_CLIENT_SECRET=…"):
        with Device(printer) as device:
            device.start_daemon(wait=False)
            device.wait_for_exit()


@of_the_lab
@pytest.mark.parametrize("url, headers, body, fault", [
    (f"https://{Host.MONITORING}/v1/metrics:batchCreatePoints", ["Authorization: Bearer access-1"],
     "{}", None),
    (f"https://{Host.MONITORING}/v1/metrics:batchCreatePoints?token=access-1", [], "{}",
     "carries its token outside the header"),
    (f"https://{Host.MONITORING}/v1/metrics:batchCreatePoints", ["X-Key: code-iota"], "{}",
     f"carries a secret that is not for {Host.MONITORING}"),
    (f"https://{Host.IDENTITY}/token", ["Authorization: Bearer access-1"], "{}",
     f"carries a secret that is not for {Host.IDENTITY}"),
], ids=["allowed", "in the URL", "the provider's", "the service's"])
def test_a_secret_in_the_wrong_request_is_detected(
        world: Device, url: str, headers: list[str], body: str, fault: str | None) -> None:
    post(world, f"https://{Host.MONITORING}/", ["Authorization: Bearer access-1"], "")
    post(world, f"https://{Host.IDENTITY}/token", [], "code=code-iota")
    post(world, url, headers, body)
    world.cloud.wait_for_answer(Endpoint.UNKNOWN, count=2)
    settle(world)
    if fault:
        with pytest.raises(LabError, match=fault):
            world.secrets.check()
    else:
        world.secrets.check()


POST = """
import sys, urllib.error, urllib.request
url, body, *headers = sys.argv[1:]
try:
    urllib.request.urlopen(urllib.request.Request(
        url, body.encode(), dict(header.split(": ") for header in headers)))
except urllib.error.HTTPError:
    pass
"""


def post(device: Device, url: str, headers: list[str], body: str) -> None:
    assert device.run("python3", "-c", POST, url, body, *headers).code == 0
