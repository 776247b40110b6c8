"""Each fault that the page can inject, in a real browser."""

import pytest

from lab.console.console import Console
from tests.console.browser import Browser

POST_OF_ANOTHER_PROGRAM = """
import ssl, urllib.request
urllib.request.urlopen(urllib.request.Request(
    "https://pelmor.quintara.example/v1/devices/device-0001/metrics:batchCreatePoints",
    b'{"metricPoints": []}',
    {"Authorization": "Bearer not-a-known-one", "Content-Type": "application/json"}))
"""


@pytest.mark.parametrize("endpoint", ["metrics", "structured_logs", "offline_logs"])
def test_the_cloud_rejects_the_next_request_to_an_endpoint(
        page: Browser, console: Console, endpoint: str) -> None:
    page.press("answer", endpoint=endpoint, times="1", act="answer", status="503", delay="0")
    before = console.device.mark()
    record(console, endpoint)
    assert console.device.cloud.wait_for_answer(endpoint, after=before)["status"] == 503
    page.wait_for_line(f"← 503 for {title(endpoint)}")
    if endpoint == "metrics":
        record(console, endpoint)
    again = console.device.cloud.wait_for_answer(endpoint, after=before, count=2)
    assert again["status"] == 200


@pytest.mark.parametrize("act, line", [
    ("cut", "The connection was cut instead of an answer to metrics"),
    ("garbage", "Bytes that are not HTTP were sent in answer to metrics"),
])
def test_the_cloud_misbehaves_until_a_reset(
        page: Browser, console: Console, act: str, line: str) -> None:
    page.press("answer", endpoint="metrics", times="0", act=act)
    before = console.device.mark()
    record(console, "metrics")
    console.device.wait_for("cloud.misbehaved", after=before, count=2, act=act)
    page.wait_for_line(line)
    page.wait_for_text("#answers", f"metrics: {act}")
    page.press("behave")
    console.device.cloud.wait_for_answer("metrics", after=before)
    page.wait_for_text("#answers", "All requests are accepted.")


def test_the_cloud_does_not_answer(page: Browser, console: Console) -> None:
    page.press("answer", endpoint="structured_logs", times="1", act="silence")
    before = console.device.mark()
    record(console, "structured_logs")
    console.device.wait_for("cloud.misbehaved", after=before, act="silence")
    page.wait_for_line("No answer was sent to structured log")
    # A new daemon does not wait for an earlier request.
    page.press("interval", seconds="1")
    console.device.wait_for_access_token(after=before)


def test_the_cloud_answers_late(page: Browser, console: Console) -> None:
    page.press("answer", endpoint="metrics", times="1", act="answer", status="200", delay="1.5")
    before = console.device.mark()
    record(console, "metrics")
    request = console.device.cloud.wait_for_request("metrics", after=before)
    answer = console.device.wait_for("cloud.answer", after=before, number=request.number)
    assert answer.time - request.event.time >= 1.5
    page.wait_for_line("The cloud answers 200 after 1.5 s: the next metrics")


def test_a_rejected_refresh_removes_the_credentials(page: Browser, console: Console) -> None:
    page.press("answer", endpoint="refresh", times="1", act="answer", status="400", delay="0")
    page.click("[data-program=daemon] button")
    page.wait_for_text("[data-program=daemon]", "down")
    page.click("[data-program=daemon] button")
    page.wait_for_line("← 400 for token refresh")
    page.wait_for_text("#next", "The device has no credentials yet.")
    before = console.device.mark()
    page.press("answer", endpoint="exchange", times="1", act="answer", status="500", delay="0")
    page.click("#next button")
    console.device.larder.wait_for_call("Abort", after=before)
    page.wait_for_line("← 500 for code exchange")
    page.wait_for_text("[data-tile=cycle][data-level=bad]", "no refresh token")
    page.click("[data-program=larder] button")
    page.wait_for_text("#next", "Larder, which delivers the cloud’s code, is not on the bus.")
    page.click("#next button")
    page.wait_for_text("#next", "The device has no credentials yet.")
    page.click("#next button")
    console.device.larder.wait_for_call("Complete", after=before)
    page.wait_for_text("[data-tile=token]", "held")


@pytest.mark.parametrize("kind", ["stranger", "name"])
def test_a_bad_certificate_is_not_trusted(page: Browser, console: Console, kind: str) -> None:
    page.press("certificate", host="monitoring", kind=kind)
    page.wait_for_text("[data-program=monitoring]", "bad certificate")
    before = console.device.mark()
    record(console, "metrics")
    console.device.wait_for_log("Error uploading metrics", after=before)
    page.wait_for_line("Error uploading metrics")
    assert not console.device.cloud.requests("metrics", after=before)
    page.wait_for_text("[data-tile=cycle][data-level=bad]", ", 1 pending")
    page.wait_for_text("[data-tile=points][data-level=warning]", "1 pending: no answer, SSL")
    page.wait_for_text("#next", "The daemon rejects the certificate of the monitoring service.")
    page.click("#next button")
    console.device.cloud.wait_for_answer("metrics", after=before)
    # The tile of the cycle shows this one for a second only.
    page.wait_for_text("[data-tile=points][data-level=good]", "0 pending")
    page.wait(lambda: not page.find("#next").is_displayed(), "no next step")


def test_a_request_of_another_program_is_flagged(page: Browser, console: Console) -> None:
    run = console.device.run("python3", "-c", POST_OF_ANOTHER_PROGRAM)
    assert run.code == 0, run.errors
    page.wait_for_line("INVALID")
    page.wait_for_text("[data-tile=requests]", "1 invalid")


def record(console: Console, endpoint: str) -> None:
    device = console.device
    if endpoint == "metrics":
        device.record_metric("ap/x", {}, 1)
    elif endpoint == "structured_logs":
        device.record_structured("t", b"x")
    else:
        device.record_offline("t", b"x")


def title(endpoint: str) -> str:
    return endpoint.replace("_logs", " log")
