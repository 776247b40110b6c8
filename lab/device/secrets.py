"""Checks that the programs of a device reveal a secret only to its recipient.

The secrets are those that the device and its cloud exchanged: tokens, authorization codes and the
client's secret. All output of the daemon and of pelmorctl is scanned for them, and so is each
request, since even the two services of the cloud must not get each other's secrets.
"""

import json
import re
from collections.abc import Iterable, Iterator
from urllib.parse import parse_qsl, quote_plus

from lab.common import names
from lab.common.errors import LabError
from lab.common.names import Host
from lab.device.events import Event, EventLog
from lab.device.programs import Request
from lab.device.values import plain

# The kinds of events with output of the daemon.
_OUTPUTS = ("daemon.log", "daemon.notify", "syslog.line", "statsd.sample", "larder.call",
            "tlsdate.call")
_FORM_SECRETS = ("refresh_token", "code", "client_secret")
_ANSWER_SECRETS = ("refresh_token", "access_token")
_CONFIGURED_SECRET = re.compile(rb"^PELMOR_CLIENT_SECRET=(.+)$", re.MULTILINE)
# A shorter text would be found by chance; only tests of unusual secrets use one.
_SHORTEST = 6


class Secrets:
    """The secrets of one device, and the check that none was revealed."""

    def __init__(self, event_log: EventLog) -> None:
        self._event_log = event_log
        self._on_disk: set[str] = set()
        self._outputs: list[tuple[str, str]] = []

    def note_file(self, path: str, content: bytes) -> None:
        """Notes a file written to the device, which may contain a secret."""
        if path == names.REFRESH_TOKEN:
            self._on_disk.add(content.decode(errors="replace"))
        self._on_disk |= {found.decode(errors="replace")
                          for found in _CONFIGURED_SECRET.findall(content)}

    def note_output(self, whose: str, text: str) -> None:
        """Notes output of a program, or a reply of the daemon on the bus."""
        self._outputs.append((whose, text))

    def check(self) -> None:
        """Raises a `LabError` that names where a secret was found, without the secret."""
        requests = [Request.of(event) for event in self._event_log.events("cloud.request")]
        findings = [*_leaks(self._all_outputs(), self._all(requests)), *_strays(requests)]
        if findings:
            raise LabError("\n".join(findings))

    def _all(self, requests: Iterable[Request]) -> set[str]:
        answers = [event["body"] for event in self._event_log.events("cloud.answer")]
        return (self._on_disk | _sent_to_provider(requests) | _bearer_tokens(requests)
                | {secret for body in answers for secret in _tokens_in(body)})

    def _all_outputs(self) -> Iterator[tuple[str, str]]:
        yield from self._outputs
        for event in self._event_log.events():
            if event.kind in _OUTPUTS:
                yield event.kind, _text_of(event)


def _text_of(event: Event) -> str:
    return event["text"] if "text" in event.details else json.dumps(
        plain(event["arguments"]), ensure_ascii=False, default=repr)


def _sent_to_provider(requests: Iterable[Request]) -> set[str]:
    return {value for request in requests if request.host == Host.IDENTITY
            for name, value in parse_qsl(request.body) if name in _FORM_SECRETS}


def _bearer_tokens(requests: Iterable[Request]) -> set[str]:
    return {request.headers.get("authorization", "").removeprefix("Bearer ")
            for request in requests}


def _tokens_in(body: str) -> Iterator[str]:
    try:
        fields = json.loads(body)
    except ValueError:
        return
    if isinstance(fields, dict):
        yield from (fields[name] for name in _ANSWER_SECRETS if isinstance(fields.get(name), str))


def _pattern(secrets: Iterable[str]) -> re.Pattern[str] | None:
    """Of each as it is, and as a form or a URL would have it."""
    whole = {secret for secret in secrets if len(secret) >= _SHORTEST}
    return re.compile("|".join(re.escape(form) for secret in whole
                               for form in (secret, quote_plus(secret)))) if whole else None


def _leaks(outputs: Iterable[tuple[str, str]], secrets: Iterable[str]) -> Iterator[str]:
    if pattern := _pattern(secrets):
        yield from (f"A secret was revealed by {whose}: {pattern.sub('…', text)}"
                    for whose, text in outputs if pattern.search(text))


def _strays(requests: list[Request]) -> Iterator[str]:
    """The requests that carry a secret of the other host, or carry one in the wrong place."""
    foreign: dict[str, re.Pattern[str] | None] = {
        Host.IDENTITY: _pattern(_bearer_tokens(requests)),
        Host.MONITORING: _pattern(_sent_to_provider(requests))}
    bearer = foreign[Host.IDENTITY]
    for request in requests:
        others = foreign.get(request.host)
        whole = f"{request.path} {request.headers} {request.body}"
        if others and others.search(whole):
            yield f"Request {request.number} carries a secret that is not for {request.host}"
        if bearer and bearer.search(request.path + request.body):
            yield f"Request {request.number} carries its token outside the header"
