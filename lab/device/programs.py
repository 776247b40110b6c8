"""Handles on the programs around the daemon: they set behaviour and yield what was received."""

import json
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import parse_qsl

from lab.common import certificates, names
from lab.common.errors import LabError
from lab.common.names import Endpoint, Host
from lab.device import verbs
from lab.device.events import DEFAULT_DEADLINE, Event, EventLog

# Calls a verb of the device with its arguments.
Call = Callable[..., Any]


class Handle(verbs.SimulatedProgram):
    """Calls a program of the lab on the device's bus, and yields the D-Bus calls it received."""

    def __init__(self, label: str, call: Call, event_log: EventLog) -> None:
        self._label = label
        self._ask = call
        self._event_log = event_log

    def _call(self, verb: str, **arguments: Any) -> Any:
        return self._ask(f"{self._label}.{verb}", **arguments)

    def calls(self, method: str | None = None, after: Event | None = None) -> list[Event]:
        """The calls received; `event["arguments"]` has their arguments."""
        wanted = {"method": method} if method else {}
        return self._event_log.events(f"{self._label}.call", after, **wanted)

    def wait_for_call(self, method: str, *, after: Event | None = None, count: int = 1,
                      deadline: float = DEFAULT_DEADLINE, **details: Any) -> Event:
        return self._event_log.wait_for(f"{self._label}.call", after=after, count=count,
                                        deadline=deadline, method=method, **details)


class Larder(Handle, verbs.Larder):
    def unregister(self) -> None:
        """Empties the device's id; for a check that *fails* use `refuse`."""
        self.register("")

    def add_credentials_command(self, path: str = "/org/quintara/Larder/commands/1",
                                code: str = "code-1", state: str = "queued") -> None:
        """Adds the command by which the cloud sends the device its authorization code."""
        self.add_command(path, names.CREDENTIALS_COMMAND, state, {"_authorizationCode": code})


class Systemd(Handle):
    """systemd, as far as it shows the status of the daemon's unit."""


class TimeDaemon(Handle, verbs.TimeDaemon):
    """The daemon that sets the clock from the network (tlsdate)."""


@dataclass(frozen=True)
class Request:
    """A request that the cloud received."""

    number: int
    event: Event
    endpoint: Endpoint
    method: str
    host: str
    path: str
    # By their names in lower case.
    headers: dict[str, str] = field(repr=False)
    body: str
    # Whether its connection carried an earlier request.
    reused: bool = False

    @staticmethod
    def of(event: Event) -> "Request":
        headers = {name.lower(): value for name, value in event["headers"]}
        return Request(event["number"], event, Endpoint(event["endpoint"]), event["method"],
                       event["host"], event["path"], headers, event["body"], event["reused"])

    @property
    def json(self) -> Any:
        return json.loads(self.body)

    @property
    def form(self) -> list[tuple[str, str]]:
        """The fields of a form, in their order."""
        return parse_qsl(self.body, keep_blank_values=True, strict_parsing=True)


class Cloud:
    """The identity provider and the monitoring service."""

    def __init__(self, call: Call, event_log: EventLog, is_simulated: bool = True) -> None:
        # Whether requests may violate the documented interface.
        self.takes_anything = False
        self._ask = call
        self._event_log = event_log
        self._is_simulated = is_simulated

    def _call(self, verb: str, **arguments: Any) -> None:
        if not self._is_simulated:
            raise LabError("The cloud of this device is a real one, without faults on demand")
        self._ask(f"cloud.{verb}", **arguments)

    def answer(self, endpoint: Endpoint | str, status: int = 200, body: Any = None, *,
               delay: float = 0, held: bool = False, times: int | None = None,
               content_type: str = "application/json",
               headers: dict[str, str] | None = None) -> None:
        """Answers with `body` (text as it is, other values as JSON): the next `times` requests
        without a prepared answer, or, without `times`, all requests after those. A `held` answer
        is not sent before `release`."""
        text = body if isinstance(body, str) else json.dumps({} if body is None else body)
        self._behave(endpoint, times, act="answer", status=status, body=text, delay=delay,
                     held=held, content_type=content_type, headers=headers or {})

    def release(self, endpoint: Endpoint | str, number: int | None = None, **changes: Any) -> None:
        """Sends the oldest held answer, or the one to the request `number`. `changes` replace
        what was prepared: a `status`, a `body` (as text), or an `act`, "cut" or "garbage"."""
        self._call("release", endpoint=Endpoint(endpoint), number=number, changes=changes)

    def cut_connection(self, endpoint: Endpoint | str, times: int | None = None,
                       after: str = "") -> None:
        """Closes the connection instead of answering, or `after` the beginning of an answer."""
        self._behave(endpoint, times, act="cut", after=after)

    def never_answer(self, endpoint: Endpoint | str, times: int | None = None) -> None:
        self._behave(endpoint, times, act="silence")

    def send_garbage(self, endpoint: Endpoint | str, times: int | None = None) -> None:
        """Answers with bytes that are not HTTP."""
        self._behave(endpoint, times, act="garbage")

    def behave(self, endpoint: Endpoint | str | None = None) -> None:
        """Undoes what was set for one endpoint, or for all."""
        self._call("behave", endpoint=endpoint and Endpoint(endpoint))

    def _behave(self, endpoint: Endpoint | str, times: int | None, **behaviour: Any) -> None:
        self._call("prepare", endpoint=Endpoint(endpoint), times=times, behaviour=behaviour)

    def refuse_tls(self, host: Host | str, reason: str = "stranger") -> None:
        """From now on the host presents an invalid certificate: for reason "stranger" from an
        unknown authority, for "name" for another name."""
        made = {"stranger": certificates.of_a_stranger, "name": certificates.of_another_name}
        certificate = made[reason]()
        self._call("use_certificate", host=Host(host), chain=certificate.chain,
                   key=certificate.key)

    def trust_tls(self, host: Host | str) -> None:
        """Presents the valid certificate again."""
        certificate = certificates.of_the_cloud()
        self._call("use_certificate", host=Host(host), chain=certificate.chain,
                   key=certificate.key)

    def go_away(self, host: Host | str) -> None:
        """Closes the host's port and every connection to it."""
        self._call("go_away", host=Host(host))

    def come_back(self, host: Host | str) -> None:
        self._call("come_back", host=Host(host))

    def requests(self, endpoint: Endpoint | str | None = None,
                 after: Event | None = None) -> list[Request]:
        wanted = {"endpoint": Endpoint(endpoint)} if endpoint else {}
        return [Request.of(event)
                for event in self._event_log.events("cloud.request", after, **wanted)]

    def wait_for_request(self, endpoint: Endpoint | str, *, after: Event | None = None,
                         count: int = 1, deadline: float = DEFAULT_DEADLINE) -> Request:
        return Request.of(self._event_log.wait_for("cloud.request", after=after, count=count,
                                                   deadline=deadline, endpoint=Endpoint(endpoint)))

    def wait_for_answer(self, endpoint: Endpoint | str, *, after: Event | None = None,
                        count: int = 1, deadline: float = DEFAULT_DEADLINE) -> Event:
        """Waits until an answer was sent; the daemon may not have read it yet."""
        return self._event_log.wait_for("cloud.answer", after=after, count=count,
                                        deadline=deadline, endpoint=Endpoint(endpoint))
