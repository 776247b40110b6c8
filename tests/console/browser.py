"""A real browser for the tests of the page, and a page of made-up events."""

import json
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any, TypeVar

from selenium import webdriver
from selenium.common.exceptions import (NoSuchElementException, StaleElementReferenceException,
                                        TimeoutException)
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.remote.webelement import WebElement
from selenium.webdriver.support.select import Select
from selenium.webdriver.support.ui import WebDriverWait

from lab.console.feed import Feed
from lab.console.server import Server, Serving, listen
from lab.device.events import EventLog

# Generous, because the machine may be busy.
DEADLINE = 60.0
_LOOK_EVERY = 0.05
_OPTIONS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
            "--disable-extensions", "--no-first-run", "--window-size=1280,800")
_BROWSER = "/usr/bin/chromium"
_DRIVER = "/usr/bin/chromedriver"

POINT = {"labels": {"band": "5g"}, "startTime": {"seconds": 1700000000},
         "endTime": {"seconds": 1700000300}, "doubleValue": 0.25}

T = TypeVar("T")


class Browser:
    """One browser for many pages; a context manager. Without Debian's chromium it fails."""

    def __enter__(self) -> "Browser":
        for program in (_BROWSER, _DRIVER):
            assert Path(program).exists(), f"no {program}: install what packages/browser.txt names"
        options = webdriver.ChromeOptions()
        options.binary_location = _BROWSER
        for option in _OPTIONS:
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service(_DRIVER), options=options)
        return self

    def __exit__(self, *_: object) -> None:
        self.driver.quit()

    def open(self, address: str, *, scheme: str = "light", width: int = 1280,
             height: int = 800) -> None:
        """Returns when the page shows the device."""
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height,
                     deviceScaleFactor=1, mobile=width < 700)
        self.command("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": scheme}])
        self.driver.get(address)
        self.wait_for_text("#connection", "Live")

    def leave(self) -> None:
        """Discards errors of the previous page, which may have lost its server."""
        self.driver.get("about:blank")
        self.errors()

    def command(self, name: str, **arguments: Any) -> Any:
        return self.driver.execute_cdp_cmd(name, arguments)

    def run(self, script: str, *arguments: Any) -> Any:
        return self.driver.execute_script(script, *arguments)

    def wait(self, condition: Callable[[], T], what: str) -> T:
        def look(_: object) -> T | bool:
            try:
                return condition()
            except (NoSuchElementException, StaleElementReferenceException):
                return False  # The element does not exist yet, or was just replaced.
        try:
            return WebDriverWait(self.driver, DEADLINE, _LOOK_EVERY).until(look)
        except TimeoutException:
            text = self.run("return document.body.innerText")
            raise AssertionError(f"The page never showed {what}; it shows:\n{text}") from None

    def find(self, selector: str) -> WebElement:
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector: str) -> str:
        return self.find(selector).text

    def wait_for_text(self, selector: str, text: str) -> None:
        self.wait(lambda: text in self.text(selector), f'"{text}" in {selector}')

    def fill(self, control: str, **fields: str) -> None:
        for name, value in fields.items():
            field = self.find(f"[data-control={control}] [name={name}]")
            if field.tag_name == "select":
                next(option for option in Select(field).options
                     if option.get_attribute("value") == value).click()
            else:
                field.clear()
                field.send_keys(value)

    def press(self, control: str, **fields: str) -> None:
        """Fills in the form of the control, presses its button, and waits until it is done."""
        self.run("arguments[0].closest('details').open = true",
                 self.find(f"[data-control={control}]"))
        self.fill(control, **fields)
        button = f"[data-control={control}] button:not([form]), button[form={control}]"
        self.click(button)
        result = f":is({button}) ~ output"
        self.wait(lambda: self.text(result) == "Done", f'"Done" in {result}')

    def click(self, selector: str) -> None:
        element = self.find(selector)
        self.run("arguments[0].scrollIntoView({block: 'center'})", element)
        element.click()

    def lines(self) -> list[str]:
        """The texts of the timeline that are in the document."""
        return self.run("return [...document.querySelectorAll('#lines .text')]"
                        ".map((line) => line.textContent)")

    def wait_for_line(self, text: str) -> None:
        """Filters the timeline and waits for the line."""
        field = self.find("#filter")
        field.clear()
        field.send_keys(text)
        self.wait(lambda: any(text in line for line in self.lines()), f'the line "{text}"')
        self.run("arguments[0].value = ''; arguments[0].dispatchEvent(new Event('input'))", field)

    def errors(self) -> list[str]:
        """The errors in the browser's console since the previous call."""
        return [entry["message"] for entry in self.driver.get_log("browser")]


class Invented:
    """A page of made-up events; a context manager."""

    def __enter__(self) -> "Invented":
        self.event_log = EventLog()
        self.feed = Feed(self.event_log, 5)
        self.serving = Serving(listen(0))
        self.serving.start(Server(self.feed, None, {"bus": "unix:path=/run/lab/bus"}))
        return self

    def __exit__(self, *_: object) -> None:
        self.serving.close()
        self.feed.close()

    @property
    def address(self) -> str:
        return self.serving.address

    def report(self, kind: str, **details: Any) -> None:
        self.event_log.add(time.monotonic(), kind, details)


def request(invented: Invented, number: int = 1, **fields: object) -> None:
    invented.report("cloud.request", **({
        "number": number, "endpoint": "metrics", "method": "POST", "reused": True,
        "host": "pelmor.quintara.example",
        "path": "/v1/devices/device-0001/metrics:batchCreatePoints",
        "headers": [["Authorization", "Bearer access-1"], ["Content-Type", "application/json"]],
        "body": json.dumps({"metricPoints": [{"metricName": "ap/clients", "points": [POINT]}]}),
    } | fields))


def answer(invented: Invented, number: int = 1, status: int = 200) -> None:
    invented.report("cloud.answer", number=number, endpoint="metrics", status=status, body="{}")
