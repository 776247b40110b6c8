"""Provisioning by commands of the cloud, and the results that the daemon reports."""

from collections.abc import Callable
from typing import Any

import pytest

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import DEFAULT_CONFIGURATION, Device
from lab.device.programs import Larder
from lab.device.values import Variant, int32
from tests.device.helpers import (COMMAND, OTHER_COMMAND, calls_of_larder, catch_up, messages,
                                  numbers_of, record_numbers, settled_mark, start, start_ticking,
                                  tick, upload, wait_for_message)

pytestmark = pytest.mark.movable_clocks

BOTH_TOKENS = {"access_token": "access-1", "refresh_token": "refresh-1"}
PARSE_ERROR = "ERROR Error parsing oauth2 response: "
GONE = "WARNING QTD command is no longer present"


def add_held_command(device: Device, status: int = 200) -> None:
    """A command whose exchange is in flight when this returns."""
    device.cloud.answer(Endpoint.EXCHANGE, status, BOTH_TOKENS, held=True, times=1)
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.cloud.wait_for_request(Endpoint.EXCHANGE)


@pytest.mark.parametrize("state", ["queued", "inProgress"])
def test_a_pending_command_is_executed(device: Device, state: str) -> None:
    start(device)
    before = settled_mark(device)
    device.larder.add_credentials_command(COMMAND, "code-1", state)
    written = device.wait_for("file.written", path=names.REFRESH_TOKEN)
    assert calls_of_larder(device, before) == [
        ("SetProgress", COMMAND, {}), ("state", True), ("Complete", COMMAND, {})]
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    [exchange] = device.cloud.requests()
    assert exchange.endpoint == Endpoint.EXCHANGE
    assert exchange.form == [
        ("code", "code-1"), ("client_id", DEFAULT_CONFIGURATION["PELMOR_CLIENT_ID"]),
        ("client_secret", DEFAULT_CONFIGURATION["PELMOR_CLIENT_SECRET"]), ("redirect_uri", "oob"),
        ("scope", DEFAULT_CONFIGURATION["PELMOR_SCOPE"]), ("grant_type", "authorization_code")]
    assert exchange.headers["content-type"] == "application/x-www-form-urlencoded"
    # The progress precedes the exchange; the state, the end and the file follow it, in this order.
    progress, _, complete = device.larder.calls(after=before)
    assert progress.number < exchange.event.number < complete.number < written.number
    assert messages(device, before) == [
        "INFO Fetching refresh token", "INFO Successfully fetched refresh token: 200"]

    # A provisioned daemon uploads at a tick, and publishes no state.
    record_numbers(device, 1)
    before = settled_mark(device)
    assert numbers_of(upload(device)) == [1]
    assert calls_of_larder(device, before) == [("CheckDeviceRegistered",)] * 2


@pytest.mark.parametrize("state", [
    "paused", "done", "cancelled", "aborted", "error", "expired", "Queued", ""])
def test_a_command_in_any_other_state_is_ignored(device: Device, state: str) -> None:
    start(device)
    before = settled_mark(device)
    device.larder.add_credentials_command(COMMAND, "code-1", state)
    device.larder.add_command(OTHER_COMMAND, names.CREDENTIALS_COMMAND, state)
    catch_up(device)
    # A later change of its state does not start a command.
    device.larder.change_property(COMMAND, "State", "queued")
    catch_up(device)
    device.larder.add_credentials_command("/c/3", "code-3")
    device.larder.wait_for_call("Complete")
    assert calls_of_larder(device, before) == [
        ("SetProgress", "/c/3", {}), ("state", True), ("Complete", "/c/3", {})]
    assert [dict(request.form)["code"] for request in device.cloud.requests()] == ["code-3"]
    assert [line for line in messages(device, before) if not line.startswith("INFO ")] == []


@pytest.mark.parametrize("name", [
    "base.reboot", "_setPelmorCredentials", "_apCredentials._setpelmorcredentials",
    "_apCredentials._setPelmorCredentials.x", ""])
def test_a_command_of_another_name_is_ignored(device: Device, name: str) -> None:
    start(device)
    before = settled_mark(device)
    device.larder.add_command(COMMAND, name, "queued", {"_authorizationCode": "code-1"})
    device.larder.add_command(OTHER_COMMAND, names.CREDENTIALS_COMMAND, "queued")
    device.larder.wait_for_call("Abort")
    assert calls_of_larder(device, before) == [("Abort", OTHER_COMMAND, "", "")]
    assert not device.cloud.requests()


@pytest.mark.parametrize("parameters", [
    {}, {"_authorizationCode": ""}, {"_authorizationCode": int32(5)},
    {"_authorizationCode": b"code-1"}, {"_authorizationCode": Variant("o", "/code")},
    {"_authorizationCode": Variant("v", Variant("i", 1))}, {"_authorizationcode": "code-1"}])
def test_a_command_without_a_code_is_aborted(device: Device, parameters: dict[str, Any]) -> None:
    start(device)
    before = settled_mark(device)
    device.larder.add_command(COMMAND, names.CREDENTIALS_COMMAND, "queued", parameters)
    device.larder.wait_for_call("Abort")
    wait_for_message(device, "ERROR No pelmor authorization code provided")
    after = tick(device)
    # There is no progress, and no state but that of the tick.
    assert calls_of_larder(device, before) == [("Abort", COMMAND, "", ""), ("state", False)]
    assert calls_of_larder(device, after) == [("state", False)]
    assert messages(device, before) == ["ERROR No pelmor authorization code provided"]
    assert not device.cloud.requests()


def fetched(status: int) -> str:
    return f"INFO Successfully fetched refresh token: {status}"


UNABLE = "ERROR Unable to fetch refresh token"


@pytest.mark.parametrize("status, body, lines", [
    (400, {"error": "invalid_grant"}, [fetched(400), f"{PARSE_ERROR}invalid_grant - 400", UNABLE]),
    (500, BOTH_TOKENS, [fetched(500), f"{PARSE_ERROR}unexpected_response - 500", UNABLE]),
    (500, "oh", [fetched(500), UNABLE]),
    (200, "oh", [fetched(200), UNABLE]),
    (200, {}, [fetched(200), UNABLE]),
    (200, {"refresh_token": "refresh-2"}, [fetched(200), UNABLE]),
    (200, BOTH_TOKENS | {"refresh_token": ""}, [fetched(200), UNABLE]),
    (200, BOTH_TOKENS | {"refresh_token": 5}, [fetched(200), UNABLE]),
    (302, "", [fetched(302), UNABLE])])
def test_an_exchange_that_fails_aborts_the_command(
        device: Device, status: int, body: Any, lines: list[str]) -> None:
    start_ticking(device)
    before = settled_mark(device)
    device.cloud.answer(Endpoint.EXCHANGE, status, body, headers={
        "Location": "https://oauth2.quintara.example/elsewhere"})
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.larder.wait_for_call("Abort")
    wait_for_message(device, UNABLE)
    assert calls_of_larder(device, before) == [
        ("SetProgress", COMMAND, {}), ("state", False), ("Abort", COMMAND, "", "")]
    assert messages(device, before) == ["INFO Fetching refresh token", *lines]
    # The old token is dropped from memory, and still in its file.
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    before = tick(device)
    assert calls_of_larder(device, before) == [("state", False)]
    assert len(device.cloud.requests(Endpoint.REFRESH)) == 1
    assert not device.cloud.requests(Endpoint.UNKNOWN)


def test_an_exchange_without_a_response_aborts_the_command(device: Device) -> None:
    start(device)
    before = settled_mark(device)
    device.cloud.cut_connection(Endpoint.EXCHANGE)
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.larder.wait_for_call("Abort")
    assert calls_of_larder(device, before) == [
        ("SetProgress", COMMAND, {}), ("state", False), ("Abort", COMMAND, "", "")]
    first, second = messages(device, before)
    assert first == "INFO Fetching refresh token"
    assert second.startswith("WARNING Error fetching refresh token: ") and len(second) > 40, second
    assert device.read_file(names.REFRESH_TOKEN) is None

    # The next command succeeds.
    device.cloud.behave(Endpoint.EXCHANGE)
    device.larder.add_credentials_command(OTHER_COMMAND, "code-2")
    device.larder.wait_for_call("Complete", path=OTHER_COMMAND)


def test_an_access_token_alone_allows_recording_but_no_upload(device: Device) -> None:
    start(device)
    device.cloud.answer(Endpoint.EXCHANGE, body={"access_token": "access-7"}, times=1)
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.larder.wait_for_call("Abort")
    record_numbers(device, 1)
    assert len(device.clock.calls("LastSyncInfo")) == 1, "a point is taken: the time is asked for"
    before = tick(device)
    assert calls_of_larder(device, before) == [("state", False)]

    # The point was kept, and is sent once there is a refresh token.
    device.larder.add_credentials_command(OTHER_COMMAND, "code-2")
    device.larder.wait_for_call("Complete")
    record_numbers(device, 2)
    request = upload(device)
    assert numbers_of(request) == [1, 2]
    assert request.headers["authorization"] == "Bearer access-1"
    assert not device.cloud.requests(Endpoint.REFRESH)


def test_a_refresh_token_with_an_empty_access_token_is_used_from_memory(device: Device) -> None:
    start(device)
    device.cloud.answer(Endpoint.EXCHANGE, body={"access_token": "", "refresh_token": "refresh-2"})
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.larder.wait_for_call("Abort")
    before = tick(device)
    assert calls_of_larder(device, before) == [("CheckDeviceRegistered",)]
    refresh = device.cloud.wait_for_request(Endpoint.REFRESH)
    assert refresh.form[0] == ("refresh_token", "refresh-2")
    assert device.read_file(names.REFRESH_TOKEN) is None


def test_a_second_command_is_aborted_during_an_exchange(device: Device) -> None:
    start(device)
    before = settled_mark(device)
    add_held_command(device)
    device.larder.add_credentials_command(OTHER_COMMAND, "code-2")
    device.larder.wait_for_call("Abort")
    wait_for_message(device, "WARNING Request already outstanding: rejecting new request")
    assert calls_of_larder(device, before) == [
        ("SetProgress", COMMAND, {}), ("SetProgress", OTHER_COMMAND, {}), ("state", False),
        ("Abort", OTHER_COMMAND, "", "")]

    end = device.mark()
    device.cloud.release(Endpoint.EXCHANGE)
    device.wait_for("file.written", path=names.REFRESH_TOKEN)
    assert calls_of_larder(device, end) == [("state", True), ("Complete", COMMAND, {})]
    assert [dict(request.form)["code"] for request in device.cloud.requests()] == ["code-1"]

    # A third command is executed.
    device.larder.add_credentials_command("/c/3", "code-3")
    device.larder.wait_for_call("Complete", path="/c/3")


def replace_by(name: str) -> Callable[[Larder], None]:
    return lambda larder: larder.replace_command(COMMAND, name, "done",
                                                 {"_authorizationCode": "code-2"})


@pytest.mark.parametrize("change", [
    lambda larder: larder.remove_command(COMMAND), replace_by(names.CREDENTIALS_COMMAND),
    replace_by("base.reboot")], ids=["removed", "replaced", "replaced by another kind"])
@pytest.mark.parametrize("status, provisioned", [(200, True), (400, False)])
def test_after_its_command_is_gone_an_exchange_only_publishes_the_state(
        device: Device, change: Callable[[Larder], None], status: int, provisioned: bool) -> None:
    start(device)
    add_held_command(device, status)
    change(device.larder)
    catch_up(device)
    before = settled_mark(device)
    device.cloud.release(Endpoint.EXCHANGE)
    wait_for_message(device, GONE)
    catch_up(device)
    assert calls_of_larder(device, before) == [("state", provisioned)]


def test_a_command_older_than_the_daemon_is_executed(device: Device) -> None:
    device.larder.add_command(OTHER_COMMAND, "base.reboot", "queued")
    device.larder.add_credentials_command(COMMAND, "code-1")
    start(device)
    device.larder.wait_for_call("Complete", path=COMMAND)
    assert device.wait_for_file(names.REFRESH_TOKEN) == b"refresh-1"
    assert [call[1] for call in calls_of_larder(device) if len(call) > 2] == [COMMAND, COMMAND]


def test_a_new_provisioning_replaces_the_old_one(device: Device) -> None:
    device.provision("an older and longer token")
    start(device)
    device.wait_for_access_token()
    device.cloud.answer(Endpoint.EXCHANGE, body={
        "access_token": "access-2", "refresh_token": "refresh-2"})
    before = settled_mark(device)
    device.larder.add_credentials_command(COMMAND, "code-1")
    assert device.wait_for_file(names.REFRESH_TOKEN, after=before) == b"refresh-2"
    assert calls_of_larder(device, before) == [
        ("SetProgress", COMMAND, {}), ("state", True), ("Complete", COMMAND, {})]
    record_numbers(device, 1)
    assert upload(device).headers["authorization"] == "Bearer access-2"


def test_during_an_exchange_the_device_is_unprovisioned(device: Device) -> None:
    start_ticking(device, period=4)
    add_held_command(device)
    record_numbers(device, 1)
    before = tick(device, 4)
    assert calls_of_larder(device, before) == [("state", False)]
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    device.cloud.release(Endpoint.EXCHANGE)
    device.larder.wait_for_call("Complete")
    record_numbers(device, 2)
    assert numbers_of(upload(device, 4)) == [2]


def test_a_token_that_cannot_be_saved_is_used_until_the_daemon_ends(device: Device) -> None:
    device.make_folder(names.STATE_FOLDER, mode=0o555)
    start(device)
    before = settled_mark(device)
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.larder.wait_for_call("Complete")
    record_numbers(device, 1)
    assert numbers_of(upload(device)) == [1]
    assert device.read_file(names.REFRESH_TOKEN) is None
    assert [line for line in messages(device, before) if not line.startswith("INFO ")] == []


def test_an_exchange_ignores_errors_of_larder(device: Device) -> None:
    start(device)
    for method in ("SetProgress", "Complete"):
        device.larder.refuse(method)
    before = settled_mark(device)
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.wait_for("file.written", path=names.REFRESH_TOKEN)
    assert calls_of_larder(device, before) == [
        ("SetProgress", COMMAND, {}), ("state", True), ("Complete", COMMAND, {})]
    assert [line for line in messages(device, before) if not line.startswith("INFO ")] == []
