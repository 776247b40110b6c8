"""The refresh token on disk, and the access tokens that the daemon gets for it."""

from typing import Any

import pytest

from lab.common import names
from lab.common.names import Endpoint, Host
from lab.device.device import DEFAULT_CONFIGURATION, Device
from lab.device.events import Event
from lab.device.values import plain
from tests.device.helpers import (COMMAND, messages, numbers_of, record_numbers, start,
                                  start_ticking, tick, upload, wait_for_message)

pytestmark = pytest.mark.movable_clocks

REFRESHING = "INFO Refreshing access token."


def provisioned_states(device: Device, after: Event | None = None) -> list[bool]:
    """The states of the credentials that Larder received."""
    return [plain(call["arguments"][0])[names.CREDENTIALS_STATE]["_provisioned"]
            for call in device.larder.calls("UpdateState", after)]


def lines_on_tokens(device: Device) -> list[str]:
    return [line for line in messages(device) if "token" in line or "oauth2" in line]


def test_a_saved_refresh_token_is_used_at_the_start_unchanged(device: Device) -> None:
    token = " re+fresh/&=%é\x01\n\n"
    device.provision(token)
    start(device)
    device.wait_for_access_token()

    [refresh] = device.cloud.requests()
    assert (refresh.method, refresh.host, refresh.path) == (
        "POST", "oauth2.quintara.example", "/token")
    assert refresh.form == [
        ("refresh_token", token),
        ("client_id", DEFAULT_CONFIGURATION["PELMOR_CLIENT_ID"]),
        ("client_secret", DEFAULT_CONFIGURATION["PELMOR_CLIENT_SECRET"]),
        ("grant_type", "refresh_token")]
    types = [value for name, value in refresh.event["headers"] if name.lower() == "content-type"]
    assert types == ["application/x-www-form-urlencoded"]
    assert "authorization" not in refresh.headers
    assert device.read_file(names.REFRESH_TOKEN) == token.encode()
    assert lines_on_tokens(device) == [REFRESHING, "INFO Successfully fetched access token: 200"]
    assert provisioned_states(device) == [True]


@pytest.mark.parametrize("kept", [None, ""])
def test_without_a_refresh_token_no_access_token_is_requested(
        device: Device, kept: str | None) -> None:
    if kept is not None:
        device.provision(kept)
    start(device)
    record_numbers(device, 1)
    before = tick(device)
    assert provisioned_states(device, before) == [False]
    # The exchange is the daemon's first request.
    device.larder.add_credentials_command(COMMAND)
    device.larder.wait_for_call("Complete")
    assert [request.endpoint for request in device.cloud.requests()] == [Endpoint.EXCHANGE]
    assert lines_on_tokens(device)[0] == "INFO Fetching refresh token"
    # The point that preceded the access token was dropped.
    record_numbers(device, 2)
    assert numbers_of(upload(device)) == [2]


ELSEWHERE = {"Location": "https://oauth2.quintara.example/elsewhere"}
PARSE_ERROR = "ERROR Error parsing oauth2 response: "


@pytest.mark.parametrize("status, body, complaints", [
    (400, {"error": "invalid_grant"}, [f"{PARSE_ERROR}invalid_grant - 400"]),
    (400, {}, [f"{PARSE_ERROR}unexpected_response - 400"]),
    (401, {"error": 5}, [f"{PARSE_ERROR}unexpected_response - 401"]),
    (400, {"access_token": "access-9"}, [f"{PARSE_ERROR}unexpected_response - 400"]),
    (503, {"error": "busy\nnow"}, [f"{PARSE_ERROR}busy\\nnow - 503"]),
    (500, "out of order", []),
    (400, "[]", []),
    (200, "no JSON", []),
    (200, "", []),
    (200, [{"access_token": "access-9"}], []),
    (200, {}, []),
    (200, {"access_token": ""}, []),
    (200, {"access_token": 5}, []),
    (200, {"access_token": None}, []),
    (302, "", [])])
def test_an_unusable_token_response_makes_the_device_unprovisioned(
        device: Device, status: int, body: Any, complaints: list[str]) -> None:
    device.cloud.answer(Endpoint.REFRESH, status, body, headers=ELSEWHERE, held=True)
    device.provision()
    start(device)
    assert provisioned_states(device) == [True]
    device.cloud.wait_for_request(Endpoint.REFRESH)
    device.cloud.release(Endpoint.REFRESH)
    device.wait_for("file.deleted", path=names.REFRESH_TOKEN)

    before = tick(device)

    assert device.read_file(names.REFRESH_TOKEN) is None
    assert lines_on_tokens(device) == [
        REFRESHING, f"INFO Successfully fetched access token: {status}", *complaints]
    assert provisioned_states(device, before) == [False]
    # Without a refresh token the next tick checks no registration and requests no token.
    before = tick(device)
    assert [call["method"] for call in device.larder.calls(after=before)] == ["UpdateState"]
    assert [request.endpoint for request in device.cloud.requests()] == [Endpoint.REFRESH]


def test_a_token_response_below_400_is_used_whatever_its_status(device: Device) -> None:
    device.cloud.answer(Endpoint.REFRESH, 302, {"access_token": "access-3"}, headers=ELSEWHERE)
    device.provision()
    start(device)
    device.wait_for_log("Successfully fetched access token: 302")
    record_numbers(device, 1)
    assert upload(device).headers["authorization"] == "Bearer access-3"
    assert not device.cloud.requests(Endpoint.UNKNOWN)


def test_only_the_access_token_of_a_refresh_response_is_used(device: Device) -> None:
    device.cloud.answer(Endpoint.REFRESH, body={
        "access_token": " a b/+=", "refresh_token": "refresh-9", "error": "none", "expires_in": 1})
    start_ticking(device)
    # "expires_in" is ignored.
    device.move_clocks(wall=3600)
    record_numbers(device, 1)
    assert ["Authorization", "Bearer  a b/+="] in upload(device).event["headers"]
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    assert len(device.cloud.requests(Endpoint.REFRESH)) == 1

    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    record_numbers(device, 2)
    upload(device)
    second = device.cloud.wait_for_request(Endpoint.REFRESH, count=2)
    assert second.form[0] == ("refresh_token", "refresh-1")


def test_a_refresh_without_a_response_is_retried_after_half_a_minute(device: Device) -> None:
    device.cloud.cut_connection(Endpoint.REFRESH, times=1)
    device.provision()
    start(device, period=10)
    warning = device.wait_for_log("Error fetching access token: ")
    assert "] Error fetching access token: " in warning["text"]
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"

    # Records, logs and cycles do not start an earlier refresh.
    for _ in range(2):
        record_numbers(device, 1, 2, 3)
        device.record_structured("type", b"data")
        before = tick(device, 10)
        assert [call["method"] for call in device.larder.calls(after=before)] == [
            "CheckDeviceRegistered"]
    assert messages(device).count(REFRESHING) == 1

    tick(device, 10)
    device.wait_for_access_token()
    assert len(device.cloud.requests(Endpoint.REFRESH)) == 2
    assert messages(device).count(REFRESHING) == 2
    kinds = [line.partition(" ")[0] for line in lines_on_tokens(device)]
    assert kinds == ["INFO", "WARNING", "INFO", "INFO"]
    # The records before were dropped.
    record_numbers(device, 4)
    assert numbers_of(upload(device, 10)) == [4]


# libcurl would resend a request without an answer on a connection that it has used before.
def test_a_request_for_a_token_is_never_sent_twice(device: Device) -> None:
    device.provision()
    start(device, period=10)
    device.wait_for_access_token()
    for _ in range(3):
        tick(device, 10)
    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    device.cloud.cut_connection(Endpoint.REFRESH, times=1)
    record_numbers(device, 1)
    upload(device, 10)
    device.wait_for_log("Error fetching access token: ")
    assert len(device.cloud.requests(Endpoint.REFRESH)) == 2


@pytest.mark.parametrize("failure", ["away", "stranger", "garbage", "half", "headers alone",
                                     "no length", "silence"])
def test_no_transport_error_drops_the_refresh_token(device: Device, failure: str) -> None:
    if failure == "away":
        device.cloud.go_away(Host.IDENTITY)
    elif failure == "stranger":
        device.cloud.refuse_tls(Host.IDENTITY)
    elif failure == "garbage":
        device.cloud.send_garbage(Endpoint.REFRESH)
    elif failure == "half":
        device.cloud.cut_connection(Endpoint.REFRESH, after="HTTP/1.1 200 OK\r\nContent-Type: app")
    elif failure == "headers alone":
        device.cloud.cut_connection(Endpoint.REFRESH, after="HTTP/1.1 200 OK\r\n\r\n")
    elif failure == "no length":
        device.cloud.cut_connection(Endpoint.REFRESH, after="HTTP/1.1 200 OK\r\n\r\n{}")
    else:
        device.cloud.never_answer(Endpoint.REFRESH)
    device.provision()
    start(device)
    if failure == "silence":
        device.cloud.wait_for_request(Endpoint.REFRESH)
        device.move_clocks(monotonic=10)
    device.wait_for_log("] Error fetching access token: ")
    assert [line.partition(" ")[0] for line in lines_on_tokens(device)] == ["INFO", "WARNING"]
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"
    before = tick(device)
    assert [call["method"] for call in device.larder.calls(after=before)] == [
        "CheckDeviceRegistered"]


def test_a_401_soon_after_a_refresh_drops_the_token_and_delays_the_next_refresh(
        device: Device) -> None:
    start_ticking(device, period=10)
    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    record_numbers(device, 1)
    upload(device, 10)
    wait_for_message(device, "INFO Upload failed due to expired access token")
    # Without a token records are dropped, and a cycle ends at once.
    record_numbers(device, 2)
    before = tick(device, 10)
    assert len(device.larder.calls("CheckDeviceRegistered", before)) == 1
    assert messages(device).count("INFO Access token invalidated") == 1
    assert messages(device).count(REFRESHING) == 1

    before = tick(device, 10)
    device.wait_for_access_token(after=before)
    assert messages(device).count(REFRESHING) == 2
    assert numbers_of(upload(device, 10)) == [1]
    assert len(device.cloud.requests(Endpoint.METRICS)) == 2


def test_a_401_late_after_a_refresh_starts_another_at_once(device: Device) -> None:
    start_ticking(device, period=30)
    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    record_numbers(device, 1)
    upload(device, 30)
    device.cloud.wait_for_request(Endpoint.REFRESH, count=2)
    assert len(device.larder.calls("CheckDeviceRegistered")) == 2


def test_a_401_for_a_log_drops_the_shared_token(device: Device) -> None:
    start_ticking(device, period=10)
    device.cloud.answer(Endpoint.STRUCTURED_LOGS, 401, times=1)
    device.record_structured("type", b"data")
    tick(device, 10)
    wait_for_message(device, "INFO Access token invalidated")
    record_numbers(device, 1)
    before = tick(device, 10)
    tick(device, 10)
    device.wait_for_access_token(after=before)
    record_numbers(device, 2)
    assert numbers_of(upload(device, 10)) == [2]


def test_a_token_file_that_cannot_be_deleted_is_logged(device: Device) -> None:
    device.cloud.answer(Endpoint.REFRESH, 400, {"error": "invalid_grant"})
    device.provision()
    device.make_folder(names.STATE_FOLDER, mode=0o555)
    start(device)
    wait_for_message(device, "ERROR Unable to delete saved refresh token")
    assert lines_on_tokens(device)[2:] == [
        f"{PARSE_ERROR}invalid_grant - 400", "ERROR Unable to delete saved refresh token"]
    # In memory the token is dropped nevertheless.
    before = tick(device)
    assert provisioned_states(device, before) == [False]
    assert device.read_file(names.REFRESH_TOKEN) == b"refresh-1"


def test_no_secret_is_logged(device: Device) -> None:
    secrets = ["refresh-alpha", "refresh-beta", "access-gamma", "access-delta", "code-epsilon",
               "secret-zeta"]
    device.configure(client_secret="secret-zeta", upload_interval_in_seconds="60")
    device.provision("refresh-alpha")
    device.cloud.answer(Endpoint.REFRESH, body={"access_token": "access-gamma"}, times=1)
    device.cloud.answer(Endpoint.REFRESH, 400, times=1, body={
        "access_token": "access-gamma", "refresh_token": "refresh-alpha"})
    device.cloud.answer(Endpoint.EXCHANGE, body='{"access_token": "access-delta", ', times=1)
    device.cloud.answer(Endpoint.EXCHANGE, body={
        "access_token": "access-delta", "refresh_token": "refresh-beta"})
    device.cloud.answer(Endpoint.METRICS, 401, times=1)
    device.cloud.send_garbage(Endpoint.METRICS, times=1)
    device.start_daemon()
    device.wait_for_access_token()
    record_numbers(device, 1)
    upload(device)
    device.wait_for("file.deleted", path=names.REFRESH_TOKEN)
    device.larder.add_credentials_command("/c/1", "code-epsilon")
    device.larder.wait_for_call("Abort")
    device.larder.add_credentials_command("/c/2", "code-epsilon")
    device.larder.wait_for_call("Complete")
    tick(device)
    device.wait_for_log("ERROR")
    device.wait_for_log("Error uploading metrics: ")
    assert device.stop_daemon() == 0

    seen = [event["text"] for event in device.event_log.events()
            if event.kind in ("daemon.log", "syslog.line", "daemon.notify", "statsd.sample")]
    leaks = [text for text in seen if any(secret in text for secret in secrets)]
    assert leaks == []
    sent = " ".join(request.body + str(request.headers) for request in device.cloud.requests())
    kept = (device.read_file(names.REFRESH_TOKEN) or b"").decode()
    assert [secret for secret in secrets if secret not in sent + kept] == [], "some were not used"
