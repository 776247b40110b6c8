"""The console's controls: the fields, the action and the timeline text of each."""

import signal
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

from lab.cloud.endpoints import usual_body
from lab.common import names
from lab.common.errors import LabError
from lab.common.names import Endpoint
from lab.console.feed import Feed
from lab.console.fields import Choice, Field, FieldError, Labels, Names, Number, Text, read_all
from lab.console.masks import SHORTEST_SECRET
from lab.console.state import HOSTS
from lab.console.timeline import WHAT
from lab.device.device import Device
from lab.device.values import Variant, boolean, double, int64, string

MOST_RATE = 500
MOST_METRICS = 20
MOST_LABEL_SETS = 20
_LONGEST_LOAD = 3600
_LONGEST_INTERVAL = 3600
_MOST_TIMES = 100
_LONGEST_DELAY = 60
_ENDPOINTS = tuple(endpoint for endpoint in Endpoint if endpoint != Endpoint.UNKNOWN)


def _integer(text: str) -> Variant:
    value = int(text)
    if not -2**63 <= value < 2**63:
        raise LabError(f"value: {text} does not fit a 64-bit integer, which is from {-2**63} to "
                       f"{2**63 - 1}")
    return int64(value)


_TYPES: dict[str, Callable[[str], Variant]] = {
    "double": lambda text: double(float(text)), "integer": _integer,
    "boolean": lambda text: boolean({"true": True, "false": False}[text]), "string": string}


@dataclass(frozen=True)
class Control:
    fields: dict[str, Field]
    # Returns the text for the timeline; gets the values.
    describe: Callable[..., str]
    act: Callable[..., None]
    needs_bus: bool = True


class Controls:
    """Runs one control at a time on a device and adds its line to the timeline."""

    def __init__(self, device: Device, feed: Feed) -> None:
        self._device = device
        self._feed = feed
        self._codes = 0
        self._working = threading.Lock()

    def press(self, name: str, given: Any) -> None:
        """Returns when it is complete; raises a `FieldError`, or a `LabError` on failure."""
        control = CONTROLS.get(name)
        if not control:
            raise FieldError(f"no control '{name}'; there are {', '.join(CONTROLS)}")
        arguments = read_all(control.fields, given)
        with self._working:
            self._feed.settle()
            self._work(name, control, arguments)
            self._feed.settle()

    def _work(self, name: str, control: Control, arguments: dict[str, Any]) -> None:
        if "code" in arguments:
            self._feed.masks.learn(arguments["code"])
        text = control.describe(**arguments)
        self._report("console.control", text=text)
        try:
            if control.needs_bus and not self._feed.is_up("bus"):
                raise LabError("the system bus is down: start it first")
            control.act(self, **arguments)
        except (LabError, ValueError, KeyError) as error:
            reason = (str(error) or type(error).__name__).splitlines()[0]
            self._report("console.failed", text=text, error=reason)
            raise LabError(reason) from error
        self._report("console.done", control=name, arguments=arguments)

    def _report(self, kind: str, **details: Any) -> None:
        self._device.event_log.add(time.monotonic(), kind, details)

    def _deliver_code(self, code: str) -> None:
        self._codes += 1
        path = f"{names.LARDER_PATH}/commands/{self._codes}"
        self._device.larder.add_credentials_command(path, code)

    def _register(self, device_id: str) -> None:
        self._device.larder.behave("CheckDeviceRegistered")
        self._device.larder.register(device_id)

    def _unregister(self) -> None:
        self._device.larder.unregister()
        self._device.larder.refuse("CheckDeviceRegistered", message="not registered")

    def _clock(self, source: str) -> None:
        self._device.clock.set_source("network" if source == "network" else "",
                                      source == "network")

    def _program(self, program: str, action: str) -> None:
        if program in HOSTS:
            self._host(program, action)
            return
        if self._feed.is_up(program) == (action == "start"):
            raise LabError(f"{program} is {'already' if action == 'start' else 'not'} running")
        device = self._device
        {("bus", "start"): device.start_bus, ("bus", "stop"): device.stop_bus,
         ("larder", "start"): device.larder.start, ("larder", "stop"): device.larder.stop,
         ("tlsdate", "start"): device.clock.start, ("tlsdate", "stop"): device.clock.stop,
         ("daemon", "start"): device.start_daemon, ("daemon", "stop"): device.stop_daemon,
         ("daemon", "kill"): lambda: device.stop_daemon(signal.SIGKILL),
         }[program, action]()

    def _host(self, program: str, action: str) -> None:
        if self._feed.is_up(program) == (action == "start"):
            raise LabError(f"the {program} service is already "
                           f"{'up' if action == 'start' else 'down'}")
        host = HOSTS[program]
        (self._device.cloud.come_back if action == "start" else self._device.cloud.go_away)(host)

    def _answer(self, endpoint: str, act: str, status: int, delay: float, times: int) -> None:
        cloud, some = self._device.cloud, times or None
        faults = {"cut": cloud.cut_connection, "garbage": cloud.send_garbage,
                  "silence": cloud.never_answer}
        if act in faults:
            faults[act](endpoint, times=some)
        elif status < 300:
            cloud.answer(endpoint, status, usual_body(Endpoint(endpoint)), delay=delay,
                         times=some)
        else:
            cloud.answer(endpoint, status, {"error": "set in the console"}, delay=delay,
                         times=some)

    def _behave(self, endpoint: str) -> None:
        self._device.cloud.behave(None if endpoint == "all" else endpoint)

    def _certificate(self, host: str, kind: str) -> None:
        if not self._feed.is_up(host):
            raise LabError(f"the {host} service is down: start it first")
        if kind == "trusted":
            self._device.cloud.trust_tls(HOSTS[host])
        else:
            self._device.cloud.refuse_tls(HOSTS[host], kind)

    def _interval(self, seconds: int) -> None:
        self._device.write_file(names.OVERRIDE, f"PELMOR_UPLOAD_INTERVAL_IN_SECONDS={seconds}\n")
        if self._feed.is_up("daemon"):
            self._device.stop_daemon()
        self._device.start_daemon()

    def _record_metric(self, name: str, labels: dict[str, str], type: str, value: str) -> None:
        try:
            variant = _TYPES[type](value)
        except (ValueError, KeyError):
            raise LabError(f"value: {value} is not a valid {type}") from None
        self._need_daemon()
        self._device.record_metric(name, labels, variant)

    def _record_log(self, kind: str, type_url: str, data: str) -> None:
        self._need_daemon()
        record = {"structured": self._device.record_structured,
                  "offline": self._device.record_offline}[kind]
        record(type_url, data.encode())

    def _need_daemon(self) -> None:
        if not self._feed.is_up("daemon"):
            raise LabError("the daemon is not running: start it first")

    def _load(self, rate: float, metrics: list[str], labels: list[dict[str, str]],
              seconds: float) -> None:
        self._need_daemon()
        self._device.start_load(rate, metrics, labels, seconds)

    def _stop_load(self) -> None:
        self._device.stop_load()


def _describe_answer(endpoint: str, act: str, status: int, delay: float, times: int) -> str:
    does = {"answer": f"answers {status}" + (f" after {delay:g} s" if delay else ""),
            "cut": "cuts the connection", "garbage": "sends bytes that are not HTTP",
            "silence": "does not answer"}[act]
    which = "every" if not times else "the next" if times == 1 else f"the next {times}"
    return f"The cloud {does}: {which} {WHAT[Endpoint(endpoint)]}"


def _describe_program(program: str, action: str) -> str:
    what = {"identity": "the identity provider", "monitoring": "the monitoring service",
            "daemon": "the daemon", "bus": "the system bus", "larder": "Larder"}
    return f"{action.capitalize()} {what.get(program, program)}"


_NO_FIELDS: dict[str, Field] = {}
CONTROLS = {
    "deliver_code": Control(
        {"code": Text(SHORTEST_SECRET, 200)},
        lambda code: "Deliver an authorization code", Controls._deliver_code),
    "register": Control(
        {"device_id": Text(1, 64)},
        lambda device_id: f"Register the device as {device_id}", Controls._register),
    "unregister": Control(_NO_FIELDS, lambda: "Unregister the device", Controls._unregister),
    "clock": Control(
        {"source": Choice(("network", "none"))},
        lambda source: "The clock is set from the network" if source == "network"
        else "The clock is not set from the network", Controls._clock),
    "program": Control(
        {"program": Choice(("daemon", "bus", "larder", "tlsdate", *HOSTS)),
         "action": Choice(("start", "stop"))},
        _describe_program, Controls._program, needs_bus=False),
    "answer": Control(
        {"endpoint": Choice(_ENDPOINTS), "act": Choice(("answer", "cut", "garbage", "silence")),
         "status": Number(200, 599, True), "delay": Number(0, _LONGEST_DELAY),
         "times": Number(0, _MOST_TIMES, True)},
        _describe_answer, Controls._answer, needs_bus=False),
    "behave": Control(
        {"endpoint": Choice((*_ENDPOINTS, "all"))},
        lambda endpoint: f"The cloud answers as usual: {endpoint}", Controls._behave,
        needs_bus=False),
    "certificate": Control(
        {"host": Choice(tuple(HOSTS)), "kind": Choice(("trusted", "stranger", "name"))},
        lambda host, kind: f"The {host} service shows a certificate "
        + {"trusted": "that is trusted", "stranger": "of an unknown authority",
           "name": "for another name"}[kind], Controls._certificate, needs_bus=False),
    "interval": Control(
        {"seconds": Number(1, _LONGEST_INTERVAL, True)},
        lambda seconds: f"Upload interval {seconds} s, with a restart of the daemon",
        Controls._interval),
    "record_metric": Control(
        {"name": Text(1, 200), "labels": Labels(), "type": Choice(tuple(_TYPES)), "value": Text()},
        lambda name, labels, type, value: f"Record a point of {name}", Controls._record_metric),
    "record_log": Control(
        {"kind": Choice(("structured", "offline")), "type_url": Text(0, 200), "data": Text()},
        lambda kind, type_url, data: f"Record {'a structured' if kind == 'structured' else 'an'} "
        + ("log" if kind == "structured" else "offline log"), Controls._record_log),
    "load": Control(
        {"rate": Number(0.1, MOST_RATE), "metrics": Names(MOST_METRICS),
         "labels": Labels(MOST_LABEL_SETS), "seconds": Number(1, _LONGEST_LOAD)},
        lambda rate, metrics, labels, seconds: f"Load of {rate:g} points/s on "
        f"{len(metrics) * len(labels)} series for {seconds:g} s", Controls._load),
    "stop_load": Control(_NO_FIELDS, lambda: "Stop the load", Controls._stop_load),
}
