"""Each control of the page in a real browser: its effect on the device and on the page."""

import json

import pytest
from selenium.webdriver.common.keys import Keys

from lab.common import names
from lab.console.console import Console
from lab.device.values import plain
from tests.console.browser import Browser

# Seconds from the upload until the page shows the point.
MOST_SECONDS = 2.0
SEEN_AT = """
const [wanted, done] = arguments;
const panel = document.getElementById("metrics");
const look = () => panel.textContent.includes(wanted) &&
  done((performance.timeOrigin + performance.now()) / 1000);
new MutationObserver(look).observe(panel, {childList: true, subtree: true});
look();
"""

# The result of a control, if it is on the screen and at most so many pixels below the button.
SHOWN_BELOW = """
const form = document.querySelector(arguments[0]);
const [button, result] = [form.querySelector("button"), form.querySelector("output")];
const box = result.getBoundingClientRect();
const middle = document.elementFromPoint(box.x + box.width / 2, box.y + box.height / 2);
return middle === result && box.top - button.getBoundingClientRect().bottom < 20 &&
  result.textContent;
"""


def test_a_point_is_shown_within_two_seconds_of_its_upload(
        page: Browser, console: Console) -> None:
    device, took = console.device, []
    page.driver.set_script_timeout(30)
    # The fastest of three, to exclude delays by a busy machine.
    for value in ("7001.25", "7002.25", "7003.25"):
        before = device.mark()
        device.record_metric("ap/timed", {}, float(value))
        answer = device.cloud.wait_for_answer("metrics", after=before)
        seen = page.driver.execute_async_script(SEEN_AT, f"{float(value):,}")
        took.append(seen - device.event_log.began - answer.time)
    assert 0 < min(took) < MOST_SECONDS


def test_the_address_of_the_bus_can_be_copied(page: Browser, console: Console) -> None:
    shown = page.find("#bus-address").get_attribute("value")
    assert shown == f"export DBUS_SYSTEM_BUS_ADDRESS={console.bus_address}"


def test_a_point_is_recorded_and_charted(page: Browser, console: Console) -> None:
    page.press("record_metric", name="ap/by-hand", labels="band=6g site=a", type="integer",
               value="42")
    request = console.device.wait_for(
        lambda event: event.kind == "cloud.request" and "ap/by-hand" in event["body"],
        what="the point at the cloud")
    metric, = [metric for metric in json.loads(request["body"])["metricPoints"]
               if metric["metricName"] == "ap/by-hand"]
    assert metric["points"][0]["labels"] == {"band": "6g", "site": "a"}
    assert metric["points"][0]["int64Value"] == "42"
    page.wait_for_text("#metrics", "ap/by-hand")
    page.wait_for_text("#metrics", "band=6g site=a 42")
    assert page.run("return document.querySelectorAll('#metrics canvas').length") > 0
    page.wait_for_line("RecordMetric ap/by-hand{band=6g,site=a} 42")


def test_a_dropped_point_is_shown_with_its_reason(page: Browser, console: Console) -> None:
    console.device.cloud.answer("metrics", status=503, times=1)
    page.press("record_metric", name="ap/dropped", labels="", value="1", type="integer")
    page.wait_for_text("[data-tile=points]", "1 dropped: rejected")


def test_a_log_is_recorded_and_shown(page: Browser, console: Console) -> None:
    page.press("record_log", kind="offline", type_url="type.example/ap.Roam", data="to 5g")
    console.device.cloud.wait_for_answer("offline_logs")
    page.click("#tab-logs")
    page.wait_for_text("#logs", "offline type.example/ap.Roam")
    page.wait_for_text("#logs", "to 5g")
    page.wait_for_line("← 200 for offline log")


def test_a_code_is_exchanged_for_tokens_and_never_shown(page: Browser, console: Console) -> None:
    before = console.device.mark()
    page.press("deliver_code", code="a-very-secret-code")
    form = dict(console.device.cloud.wait_for_request("exchange", after=before).form)
    assert form["code"] == "a-very-secret-code"
    console.device.larder.wait_for_call("Complete", after=before)
    page.wait_for_line("Deliver an authorization code")
    page.wait_for_line("← 200 for code exchange")
    page.wait_for_text("[data-tile=token]", "held")
    page.open(console.address)
    assert "a-very-secret-code" not in page.run("return document.documentElement.outerHTML")


def test_an_unregistered_device_uploads_nothing(page: Browser, console: Console) -> None:
    page.press("unregister")
    page.wait_for_line("not registered, nothing is uploaded")
    page.wait_for_text("#next", "The device is not registered with the cloud: each cycle ends.")
    page.wait_for_text("[data-tile=registered]", "not registered")
    page.press("register", device_id="device-0042")
    page.wait_for_text("[data-tile=registered]", "device-0042")
    before = console.device.mark()
    console.device.record_metric("ap/x", {}, 1)
    request = console.device.cloud.wait_for_request("metrics", after=before)
    assert request.path == "/v1/devices/device-0042/metrics:batchCreatePoints"
    page.press("register", device_id="device-0001")


@pytest.mark.parametrize("program, line, level", [
    ("larder", "Larder has left the bus", "Larder is on the bus"),
    ("tlsdate", "tlsdate has left the bus", "tlsdate is on the bus"),
    ("daemon", "The daemon has exited, code 0", "The daemon has started"),
    ("identity", "Stop the identity provider", "Start the identity provider"),
    ("monitoring", "Stop the monitoring service", "Start the monitoring service"),
])
def test_a_program_stops_and_starts(
        page: Browser, console: Console, program: str, line: str, level: str) -> None:
    before = console.device.mark()
    row = f"[data-program={program}]"
    page.click(f"{row} button")
    page.wait_for_text(row, "down")
    page.wait_for_line(line)
    page.wait_for_text(f"{row} button", "Start")
    page.click(f"{row} button")
    page.wait_for_text(row, "up")
    page.wait_for_line(level)
    if program == "daemon":
        console.device.wait_for_access_token(after=before)


def test_the_bus_stops_and_starts_and_then_the_daemon(page: Browser, console: Console) -> None:
    before = console.device.mark()
    page.click("[data-program=bus] button")
    page.wait_for_text("#next", "The system bus is down.")
    page.wait_for_text("[data-tile=daemon]", "stopped, code 69")
    page.click("#next button")
    page.wait_for_text("#next", "The daemon is not running.")
    page.click("#next button")
    console.device.wait_for_access_token(after=before)
    page.wait_for_text("[data-tile=daemon]", "running")
    page.wait_for_text("[data-program=larder]", "up")


def test_the_interval_changes_with_a_restart(page: Browser, console: Console) -> None:
    before = console.device.mark()
    page.press("interval", seconds="2")
    assert console.device.read_file(names.OVERRIDE) == b"PELMOR_UPLOAD_INTERVAL_IN_SECONDS=2\n"
    page.wait_for_text("[data-tile=daemon]", "every 2 s")
    page.wait_for_line("Upload interval 2 s")
    restarted = console.device.wait_for("daemon.started", after=before)
    console.device.wait_for_access_token(after=restarted)
    cycles = [console.device.larder.wait_for_call("CheckDeviceRegistered", after=restarted,
                                                  count=count) for count in (1, 3)]
    assert cycles[1].time - cycles[0].time > 1.5
    page.press("interval", seconds="1")
    console.device.wait_for_access_token(after=cycles[1])


def test_records_are_dropped_while_the_clock_is_not_set(page: Browser, console: Console) -> None:
    before = console.device.mark()
    page.press("clock", source="none")
    page.press("interval", seconds="1")
    console.device.wait_for_access_token(after=before)
    page.wait_for_text("[data-tile=clock]", "not set")
    page.wait_for_text("#next", "The clock is not set from the network: records are dropped.")
    console.device.record_metric("ap/dropped", {}, 1)
    page.press("clock", source="network")
    console.device.record_metric("ap/kept", {}, 1)
    page.wait_for_text("[data-tile=clock]", "known to the daemon")
    request = console.device.cloud.wait_for_request("metrics", after=before)
    assert [metric["metricName"] for metric in request.json["metricPoints"]] == ["ap/kept"]


def test_a_load_starts_and_stops(page: Browser, console: Console) -> None:
    before = console.device.mark()
    page.press("load", rate="40", seconds="600", metrics="ap/m, ap/n", labels="band=2g,5g")
    page.wait_for_text("#load", "Running: 40 points/s for 600 s.")
    # The first point of each of the four series.
    console.device.wait_for("bus.call", after=before, count=4)
    page.press("stop_load")
    page.wait_for_text("#load", "No load is running.")
    calls = [plain(call["arguments"])
             for call in console.device.event_log.events("bus.call", before)]
    assert {(name, labels["band"]) for name, labels, _ in calls} == {
        ("ap/m", "2g"), ("ap/m", "5g"), ("ap/n", "2g"), ("ap/n", "5g")}
    page.wait_for_text("#metrics", "ap/n")
    page.wait_for_line("The load has ended")


def test_a_control_works_by_the_keyboard_alone(page: Browser, console: Console) -> None:
    page.run("document.querySelector('[data-control=record_metric]').closest('details').open"
             " = true")
    before = console.device.mark()
    keys = page.driver.switch_to
    for _ in range(80):
        keys.active_element.send_keys(Keys.TAB)
        if keys.active_element.text == "Record a point":
            break
    keys.active_element.send_keys(Keys.ENTER)
    page.wait_for_text("[data-control=record_metric] output", "Done")
    assert console.device.wait_for("bus.call", after=before, method="RecordMetric")


@pytest.mark.parametrize("width, height, type, value, reason", [
    (1440, 900, "double", "abc", "value: abc is not a valid double"),
    (390, 844, "integer", "9223372036854775808",
     "value: 9223372036854775808 does not fit a 64-bit integer, which is from "
     "-9223372036854775808 to 9223372036854775807")])
def test_a_failed_control_shows_the_reason_below_its_button(
        browser: Browser, console: Console, width: int, height: int, type: str, value: str,
        reason: str) -> None:
    browser.open(console.address, width=width, height=height)
    browser.press("clock", source="network")
    browser.run("document.querySelector('[data-control=record_metric]').closest('details').open"
                " = true")
    browser.fill("record_metric", type=type, value=value)
    browser.click("[data-control=record_metric] button")
    browser.wait(lambda: browser.run(SHOWN_BELOW, "[data-control=record_metric]") == reason,
                 "the reason below the button")
    assert browser.text("[data-control=clock] output") == ""
    browser.wait_for_line(f"ap/clients: failed: {reason}")
    assert browser.errors()
