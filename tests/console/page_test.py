"""The page with made-up events, in a real browser."""

import json
import re
import urllib.error
import urllib.request

import pytest
from selenium.webdriver.common.keys import Keys

from lab.common.tree import ROOT
from lab.console.feed import KEPT_LINES
from lab.console.server import Server, Serving, listen
from tests.console.browser import Browser, Invented, answer, request

PAGE = ROOT / "lab/console/page"
EVENTS = 10_000
SCROLLS = 20
# The processor time of the page for all events: 0.1 ms per event on an idle machine, and several
# times that on a busy one. Work that grows with the number of shown events takes far longer.
MOST_SECONDS = 5.0
MOST_ROWS = 100
STATUS = ("STATUS=points recorded=2500 accepted=300 pending=200 in_flight=500 over_limit=1500; "
          "logs recorded=0 accepted=0 pending=0 in_flight=0")
LOG = "2026-11-21T12:00:00.000000Z {} ap-pelmor[6] uploader.cc:96] {}"

# Elements beyond the right edge, except in scrollable ones and where text is visibly truncated.
BEYOND_THE_EDGE = """
return [...document.querySelectorAll("body *")].filter((one) => one.checkVisibility() &&
    one.getBoundingClientRect().right > innerWidth && !one.closest("pre, #scroller, .unseen"))
    .map((one) => one.outerHTML);
"""
SCROLL = """
const scroller = document.getElementById("scroller");
scroller.scrollTop = arguments[0] * scroller.scrollHeight;
"""

# For each visible text its contrast with the background, by the rules of WCAG 2.
CONTRASTS = r"""
const canvas = new OffscreenCanvas(1, 1).getContext("2d", {willReadFrequently: true});
const pixel = (colors) => {
  canvas.clearRect(0, 0, 1, 1);
  for (const color of colors) { canvas.fillStyle = color; canvas.fillRect(0, 0, 1, 1); }
  return [...canvas.getImageData(0, 0, 1, 1).data];
};
const luminance = (rgb) => rgb.slice(0, 3).map((c) => c / 255)
  .map((c) => c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4)
  .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
const behind = (element) => element ?
  [...behind(element.parentElement), getComputedStyle(element).backgroundColor] : ["white"];
const found = [];
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (walker.nextNode()) {
  const element = walker.currentNode.parentElement;
  const text = walker.currentNode.textContent.trim();
  if (!text || !element.checkVisibility() || element.closest(".unseen, .skip, option")) continue;
  const back = behind(element);
  const [a, b] = [luminance(pixel(back)),
                  luminance(pixel([...back, getComputedStyle(element).color]))];
  found.push([(Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05), text]);
}
return found;
"""


def report_all_kinds_of_events(invented: Invented) -> None:
    invented.report("bus.started")
    invented.report("daemon.started", pid=6)
    for severity in ("INFO", "WARNING", "ERROR"):
        invented.report("daemon.log", text=LOG.format(severity, f"a line of {severity}"))
    invented.report("console.control", text="Register the device")
    invented.report("console.failed", text="Register the device", error="no")
    request(invented)
    answer(invented)
    request(invented, 2)
    answer(invented, 2, 503)
    invented.report("statsd.sample", text="a:1|s", name="AccessPoint.A", value=1)
    invented.report("daemon.notify", text=STATUS)
    invented.feed.settle()


def test_it_loads_without_errors_and_only_from_its_server(
        browser: Browser, invented: Invented) -> None:
    browser.leave()
    browser.open(invented.address)
    report_all_kinds_of_events(invented)
    browser.wait_for_text("#metrics", "band=5g")
    assert browser.errors() == []
    loaded = browser.run("return performance.getEntriesByType('resource').map((one) => one.name)")
    assert len(loaded) > 5
    assert all(name.startswith(invented.address) for name in loaded)


def call(invented: Invented, metric: str, value: float) -> None:
    invented.report("bus.call", sender=":1.7", method="RecordMetric", signature="sa{ss}v",
                    arguments=[metric, {"band": "5g"}, value])


def test_repeated_calls_are_one_row_between_other_lines(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    error = {"sender": ":1.3", "destination": ":1.7", "error": "org.x.Error", "message": "no"}
    for value in range(3):
        for metric in ("ap/m", "ap/n"):
            call(invented, metric, value)
            invented.report("bus.error", **error)
    invented.report("daemon.log", text=LOG.format("ERROR", "a fault"))
    call(invented, "ap/m", 7)
    wanted = ["3 × RecordMetric ap/m{band=5g} 2 ← :1.7", "6 × Error org.x.Error: no",
              "3 × RecordMetric ap/n{band=5g} 2 ← :1.7", "a fault  (uploader.cc:96)",
              "RecordMetric ap/m{band=5g} 7 ← :1.7"]
    browser.wait(lambda: browser.lines() == wanted, "a row for all calls with a metric")
    assert len(browser.driver.find_elements("css selector", "#lines li.warning")) == 1
    browser.click("#lines li.bus button")
    browser.wait_for_text("#detail", "ap/m{band=5g} 1")
    assert browser.text("#detail pre").count("RecordMetric ap/m") == 3
    browser.find("#detail").send_keys(Keys.ESCAPE)
    browser.find("#filter").send_keys("ap/m")
    browser.wait(lambda: len(browser.lines()) == 4, "a row for each line that matches")


def test_ten_thousand_events_stay_smooth(browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    browser.command("Performance.enable", timeDomain="threadTicks")
    before = processor_seconds(browser)
    for number in range(EVENTS):
        call(invented, "ap/clients", number)
    browser.wait(lambda: any(f"{EVENTS:,} × " in line for line in browser.lines()),
                 "all events in a row")
    browser.find("#filter").send_keys("ap/clients")
    browser.wait(lambda: any(f" {EVENTS - 1} " in line for line in browser.lines()),
                 "the last event")
    for number in range(0, EVENTS, EVENTS // SCROLLS):
        browser.run(SCROLL, number / EVENTS)
        browser.wait(lambda: any(f" {number} " in line for line in browser.lines()), "its line")
    assert processor_seconds(browser) - before < MOST_SECONDS
    assert 0 < browser.run("return document.querySelectorAll('#lines li').length") <= MOST_ROWS
    assert browser.run("return document.querySelectorAll('*').length") < 2000


def processor_seconds(browser: Browser) -> float:
    metrics = browser.command("Performance.getMetrics")["metrics"]
    return next(metric["value"] for metric in metrics if metric["name"] == "TaskDuration")


def test_older_lines_stay_in_place_while_they_are_read(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    for number in range(500):
        invented.report("daemon.log", text=LOG.format("INFO", f"line {number} of many"))
    browser.wait(lambda: any("line 499 " in line for line in browser.lines()), "the last line")
    browser.run("document.querySelector('#scroller').scrollTop = 2400")
    browser.wait(lambda: any("line 100 " in line for line in browser.lines()), "an older line")
    invented.report("daemon.log", text=LOG.format("INFO", "one more line"))
    browser.wait(lambda: "one more line" in browser.run(
        "return document.querySelector('#daemon-log').textContent"), "the new line in the log")
    assert any("line 100 " in line for line in browser.lines())
    browser.click("#latest")
    browser.wait(lambda: any("one more line" in line for line in browser.lines()), "the latest")
    assert not browser.find("#latest").is_displayed()
    browser.run("document.getElementById('glance').style.height = '300px';"
                "document.getElementById('scroller').dispatchEvent(new Event('scroll'))")
    assert not browser.find("#latest").is_displayed()


def test_lines_stay_in_place_when_older_ones_are_removed(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    for number in range(KEPT_LINES):
        invented.report("daemon.log", text=LOG.format("INFO", f"line {number} of many"))
    browser.wait(lambda: any(f"line {KEPT_LINES - 1} " in line for line in browser.lines()),
                 "the last line")
    browser.run(SCROLL, 0.5)
    middle = f"line {KEPT_LINES // 2} "
    browser.wait(lambda: any(middle in line for line in browser.lines()), "one in the middle")
    for number in range(KEPT_LINES, KEPT_LINES + 500):
        invented.report("daemon.log", text=LOG.format("INFO", f"line {number} of many"))
    browser.wait(lambda: f"line {KEPT_LINES + 499} " in browser.run(
        "return document.querySelector('#daemon-log').textContent"), "the new lines in the log")
    browser.run("return new Promise((done) => requestAnimationFrame(() => done()))")
    assert any(middle in line for line in browser.lines())


def test_kinds_of_lines_can_be_hidden(browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    report_all_kinds_of_events(invented)
    browser.wait(lambda: any("a line of INFO" in line for line in browser.lines()), "the log")
    assert not any("AccessPoint.A" in line for line in browser.lines())
    browser.click("#categories .log")
    browser.wait(lambda: not any("a line of" in line for line in browser.lines()), "no log")
    browser.click("#categories .self")
    browser.wait(lambda: any("AccessPoint.A 1" in line for line in browser.lines()), "a sample")
    assert browser.find("#categories .log").get_attribute("aria-pressed") == "false"


def test_a_request_opens_as_headers_and_body_with_its_token_masked(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    request(invented)
    answer(invented)
    browser.wait(lambda: len(browser.lines()) == 2, "the request and the answer")
    browser.click("#lines li.https button")
    browser.wait_for_text("#detail", "Answer 200")
    text = browser.text("#detail")
    assert "Bearer ********" in text
    assert '"metricName": "ap/clients"' in text
    assert "✓ Matches docs/cloud-api.yaml" in text
    assert "access-1" not in browser.run("return document.documentElement.outerHTML")
    browser.find("#detail").send_keys(Keys.ESCAPE)
    browser.wait(lambda: not browser.find("#detail").is_displayed(), "no dialog")


def test_an_invalid_request_is_flagged(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    request(invented, body='{"metricPoints": []}')
    browser.wait(lambda: any("INVALID" in line for line in browser.lines()), "the flag")
    browser.wait_for_text("[data-tile=requests]", "1 invalid")
    browser.click("#lines li.https button")
    browser.wait_for_text("#detail .verdict", "$.metricPoints")


def test_logs_are_shown_with_their_data_decoded(browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    for number, value in enumerate(("eyJldmVudCI6ICJyb2FtIn0=", "-_8B", "aGVsbG8=")):
        request(invented, number, endpoint="structured_logs",
                path="/v1/devices/device-0001/structuredLogs",
                body=json.dumps({"typeUrl": "type.example/ap.Event", "value": value}))
        invented.report("cloud.answer", number=number, endpoint="structured_logs", status=200,
                        body="{}")
    browser.click("#tab-logs")
    for decoded in ('"event": "roam"', "fb ff 01", "hello"):
        browser.wait_for_text("#logs", decoded)
    assert len(browser.driver.find_elements("css selector", "#logs li")) == 3


def test_pending_and_dropped_records_are_shown(browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    browser.wait_for_text("[data-tile=points]", "no status yet")
    invented.report("daemon.notify", text=STATUS)
    browser.wait_for_text("[data-tile=points]", "300 of 2,500 accepted")
    browser.wait_for_text("[data-tile=points]", "700 pending, 1,500 dropped: over limit")
    browser.wait_for_text("[data-tile=logs]", "0 of 0 accepted")
    assert browser.find("[data-tile=points]").get_attribute("data-level") == "warning"
    assert browser.find("[data-tile=logs]").get_attribute("data-level") == "idle"


def test_the_answer_to_the_points_of_a_cycle_is_shown(browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    for code, level in ((503, "bad"), (200, "good")):
        invented.report("daemon.notify", text=f"{STATUS}; metrics time=1 status={code}")
        browser.wait_for_text(f"[data-tile=cycle][data-level={level}]", f"answered {code}")


def test_the_self_metrics_are_counted(browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    for value in (3, 1, 2):
        invented.report("statsd.sample", text="", name="AccessPoint.PelmorMetrics.X", value=value)
    browser.click("#tab-samples")
    browser.wait_for_text("#samples tbody", "PelmorMetrics.X 2 1 3 3")


def test_the_page_reconnects_to_a_restarted_server(browser: Browser) -> None:
    with Invented() as first:
        first.report("daemon.log", text=LOG.format("INFO", "of the first server"))
        browser.open(first.address)
        browser.wait(lambda: any("of the first" in line for line in browser.lines()), "a line")
        port = int(first.address.rstrip("/").rpartition(":")[2])
    browser.wait_for_text("#connection", "Not connected")
    with Invented() as second:
        second.report("daemon.log", text=LOG.format("INFO", "of the second server"))
        again = Serving(listen(port))
        again.start(Server(second.feed, None, {"bus": ""}))
        try:
            browser.wait_for_text("#connection", "Live")
            browser.wait(lambda: any("of the second" in line for line in browser.lines()), "it")
            assert len(browser.lines()) == 1
        finally:
            again.close()
    browser.errors()


@pytest.mark.parametrize("scheme", ["light", "dark"])
@pytest.mark.parametrize("panel", ["metrics", "logs", "samples", "daemon-log"])
def test_every_text_has_enough_contrast(
        browser: Browser, invented: Invented, scheme: str, panel: str) -> None:
    browser.open(invented.address, scheme=scheme)
    report_all_kinds_of_events(invented)
    browser.wait(lambda: any("← 503" in line for line in browser.lines()), "the lines")
    browser.run("for (const one of document.querySelectorAll('details')) one.open = true")
    browser.click(f"#tab-{panel}")
    contrasts = browser.run(CONTRASTS)
    assert len(contrasts) > 60
    assert [text for contrast, text in contrasts if contrast < 4.5] == []


def test_the_colour_schemes_differ(browser: Browser, invented: Invented) -> None:
    backgrounds = set()
    for scheme in ("light", "dark"):
        browser.open(invented.address, scheme=scheme)
        backgrounds.add(browser.find("body").value_of_css_property("background-color"))
    assert len(backgrounds) == 2


def test_controls_and_errors_are_announced_to_screen_readers(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    report_all_kinds_of_events(invented)
    announced = "return document.getElementById('announcer').textContent"
    last = "Register the device: failed: no"
    browser.wait(lambda: browser.run(announced).startswith(last), last)
    assert browser.find("#announcer").get_attribute("aria-live") == "polite"


def test_every_control_has_an_accessible_name(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    report_all_kinds_of_events(invented)
    browser.wait_for_text("#metrics", "band=5g")
    browser.run("for (const one of document.querySelectorAll('details')) one.open = true")
    browser.command("Accessibility.enable")
    nodes = browser.command("Accessibility.getFullAXTree")["nodes"]
    roles = {"button", "textbox", "searchbox", "spinbutton", "combobox", "tab", "link", "image",
             "img", "tabpanel", "region", "dialog", "DisclosureTriangle"}
    found = [(node["role"]["value"], node.get("name", {}).get("value", "")) for node in nodes
             if not node.get("ignored") and node["role"]["value"] in roles]
    assert {"button", "textbox", "spinbutton", "combobox", "tab"} <= {role for role, _ in found}
    assert [role for role, name in found if not name.strip()] == []


def test_a_phone_shows_the_controls_before_the_timeline(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address, width=390, height=844)
    tops = browser.run("return ['glance', 'controls', 'timeline', 'findings'].map((id) => "
                       "document.getElementById(id).getBoundingClientRect().top)")
    assert tops == sorted(tops)
    # With closed groups, so that the timeline is near.
    assert tops[2] - tops[1] < 844 / 2


def test_a_phone_needs_no_horizontal_scrolling(browser: Browser, invented: Invented) -> None:
    browser.open(invented.address, width=375, height=812)
    report_all_kinds_of_events(invented)
    browser.wait_for_text("#metrics", "band=5g")
    browser.run("for (const one of document.querySelectorAll('details')) one.open = true")
    assert browser.run("return document.documentElement.scrollWidth") <= 375
    assert browser.run(BEYOND_THE_EDGE) == []
    too_small = browser.run(
        "return [...document.querySelectorAll('button, input:not([type=hidden]), select')]"
        ".filter((one) => one.checkVisibility() && one.getBoundingClientRect().height < 24)"
        ".map((one) => one.outerHTML)")
    assert too_small == []


def test_nothing_is_animated(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    report_all_kinds_of_events(invented)
    browser.wait_for_text("#metrics", "band=5g")
    assert browser.run("return document.getAnimations().length") == 0
    assert browser.run(
        "return [...document.querySelectorAll('*')].filter((one) => "
        "getComputedStyle(one).transitionDuration !== '0s' || "
        "getComputedStyle(one).scrollBehavior !== 'auto').length") == 0


def get(address: str, **headers: str) -> tuple[int, str, dict[str, str]]:
    try:
        with urllib.request.urlopen(urllib.request.Request(address, headers=headers)) as reply:
            return reply.status, reply.read().decode(), dict(reply.headers)
    except urllib.error.HTTPError as error:
        with error:
            return error.code, error.read().decode(), dict(error.headers)


def test_the_page_has_no_inline_script_or_style(invented: Invented) -> None:
    _, html, headers = get(invented.address)
    assert headers["Content-Security-Policy"].startswith("default-src 'self';")
    assert "unsafe" not in headers["Content-Security-Policy"]
    assert re.findall(r"<script(?![^>]*src=)|<style|\sstyle=|\son\w+=", html) == []
    assert re.findall(r"https?://", html) == []


@pytest.mark.parametrize("headers", [
    {"Host": "elsewhere.example"}, {"Host": "127.0.0.1"}, {"Origin": "http://elsewhere.example"},
    {"Origin": "null"}], ids=str)
def test_requests_of_other_sites_are_rejected(invented: Invented, headers: dict[str, str]) -> None:
    status, text, _ = get(f"{invented.address}api/state", **headers)
    assert status == 403
    assert json.loads(text)["error"]


def test_an_unknown_address_is_named(invented: Invented) -> None:
    for path, wanted in (("api/requests/7", (404, "no request 7 is kept")),
                         ("api/nothing", (404, "Not Found")),
                         ("page/../server.py", (404, "Not Found"))):
        status, text, _ = get(f"{invented.address}{path}")
        assert (status, json.loads(text)["error"]) == wanted
