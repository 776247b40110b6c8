"""Shows the events of a device, from its first start to the upload of its records.

    python3 -m lab.device.demo --daemon build/release/ap/pelmor/ap-pelmor
"""

import argparse
import json
import sys
from typing import Any

from lab.common import names
from lab.common.errors import LabError
from lab.common.names import Endpoint
from lab.device.device import Device
from lab.device.events import Event
from lab.device.programs import Request
from lab.device.values import int32, plain

COMMAND_PATH = "/org/quintara/Larder/commands/1"
EVENT_TYPE = "type.example/ap.Event"
EVENT_DATA = b"\xfb\xff\x01"
_SECRETS = ("code", "client_secret", "refresh_token")


class Narrator:
    """Runs the steps on a device and prints each event."""

    def __init__(self, device: Device) -> None:
        self._device = device

    def play(self) -> None:
        for act in (self._start, self._provision, self._record, self._upload, self._restart):
            act()
        self._show_requests()
        self._show_samples()

    def _say(self, event: Event, text: str) -> None:
        print(f"{event.time:7.3f} s  {text}", flush=True)

    def _start(self) -> None:
        device = self._device
        self._say(device.wait_for("device.up"), "device up: system bus, Larder, tlsdate, cloud")
        # Keeps all records pending until registration, so that one cycle uploads them.
        device.larder.refuse("CheckDeviceRegistered")
        device.start_daemon()
        self._say(device.wait_for("daemon.started"), "daemon started, with no credentials")
        self._say(device.wait_for("bus.name", name=names.DAEMON_SERVICE, owned=True),
                  f"daemon on the bus as {names.DAEMON_SERVICE}")
        self._show_credentials_state(provisioned=False)

    def _show_credentials_state(self, *, provisioned: bool) -> None:
        event = self._device.wait_for(
            lambda event: _credentials(event).get("_provisioned") is provisioned,
            what=f"the credentials state, provisioned: {provisioned}")
        self._say(event, f"Larder received the credentials: {json.dumps(_credentials(event))}")

    def _provision(self) -> None:
        device = self._device
        before = device.mark()
        device.larder.add_credentials_command(COMMAND_PATH, "code-1")
        self._say(device.larder.wait_for_call("SetProgress", after=before),
                  "credentials arrived: Larder's command carries an authorization code")
        exchange = device.cloud.wait_for_request(Endpoint.EXCHANGE)
        self._say(exchange.event, f"code exchanged at {exchange.host}: {_masked_form(exchange)}")
        self._say(device.cloud.wait_for_answer(Endpoint.EXCHANGE),
                  "refresh token and access token received")
        self._show_credentials_state(provisioned=True)
        self._say(device.larder.wait_for_call("Complete"), "the command is complete")
        written = device.wait_for("file.written", path=names.REFRESH_TOKEN)
        self._say(written, f"refresh token kept in {names.REFRESH_TOKEN}")

    def _record(self) -> None:
        device = self._device
        device.record_metric("ap/radio/utilization", {"band": "5g"}, 0.25)
        self._say(device.clock.wait_for_call("LastSyncInfo"), "time from network")
        device.record_metric("ap/clients", {}, int32(12))
        device.record_metric("ap/radio/utilization", {"band": "2g"}, 0.5)
        device.record_structured(EVENT_TYPE, EVENT_DATA)
        device.record_offline(EVENT_TYPE, EVENT_DATA)
        self._say_now("three points, a structured log and an offline log recorded")

    def _say_now(self, text: str) -> None:
        self._say(self._device.event_log.events()[-1], text)

    def _upload(self) -> None:
        device = self._device
        before = device.mark()
        device.larder.behave("CheckDeviceRegistered")
        self._say(device.larder.wait_for_call("CheckDeviceRegistered", after=before,
                                              outcome="answered"),
                  "upload cycle: the device is registered")
        lines = []
        for endpoint in (Endpoint.METRICS, Endpoint.STRUCTURED_LOGS, Endpoint.OFFLINE_LOGS):
            request = device.cloud.wait_for_request(endpoint)
            lines.append((request.event, f"request received: {request.path}"))
            answer = device.cloud.wait_for_answer(endpoint)
            lines.append((answer, f"answered with {answer['status']}: {endpoint}"))
        # The points and the logs are uploaded in parallel.
        for event, text in sorted(lines, key=lambda line: line[0].number):
            self._say(event, text)

    def _restart(self) -> None:
        device = self._device
        before = device.mark()
        _expect("the daemon's exit code", device.stop_daemon(), 0)
        self._say(device.wait_for("daemon.exited", after=before), "daemon stopped, exit code 0")
        device.start_daemon()
        self._say(device.wait_for("daemon.started", count=2), "daemon started again")
        self._say(device.wait_for_access_token(after=before),
                  "access token fetched with the refresh token that was kept")
        device.record_metric("ap/uptime", {}, 3.5)
        request = device.cloud.wait_for_request(Endpoint.METRICS, after=before)
        self._say(request.event, f"request received: {request.path}")
        first = device.cloud.requests(Endpoint.METRICS)[0]
        _expect("the start time after the restart", _start_time(request), _start_time(first))

    def _show_requests(self) -> None:
        for request in self._device.cloud.requests():
            print(f"\n{request.method} https://{request.host}{request.path}")
            for name, value in request.headers.items():
                print(f"{name}: {_masked_header(name, value)}")
            print()
            print(_masked_form(request) if request.host == names.Host.IDENTITY
                  else json.dumps(request.json, indent=2))

    def _show_samples(self) -> None:
        # The last sample of the daemon's run; after it all are complete.
        self._device.wait_for_sample("AccessPoint.PelmorMetrics.ResponseStatusCode", count=2)
        print("\nThe daemon's own metrics:")
        for sample in self._device.samples():
            print(f"  {sample.name} {sample.value}")


def _credentials(event: Event) -> dict[str, Any]:
    """The credentials state that a call sets in Larder; empty for any other event."""
    if not event.matches("larder.call", {"method": "UpdateState"}):
        return {}
    return plain(event["arguments"][0]).get(names.CREDENTIALS_STATE, {})


def _start_time(request: Request) -> int:
    return request.json["metricPoints"][0]["points"][0]["startTime"]["seconds"]


def _masked_header(name: str, value: str) -> str:
    return "Bearer ********" if name == "authorization" else value


def _masked_form(request: Request) -> str:
    return "&".join(f"{name}={'********' if name in _SECRETS else value}"
                    for name, value in request.form)


def _expect(what: str, seen: Any, wanted: Any) -> None:
    if seen != wanted:
        raise LabError(f"{what} is {seen}, not {wanted}")


def main(argv: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="lab.device.demo", description="Shows a device at work.")
    parser.add_argument("--daemon", help="the daemon's binary (default: the release build's)")
    try:
        with Device(parser.parse_args(argv).daemon) as device:
            Narrator(device).play()
    except LabError as error:
        print(f"\nThe demo failed. {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
