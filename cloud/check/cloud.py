"""The cloud under test: its addresses, the credentials gained so far, and the requests to it."""

import contextlib
import json
import secrets
import ssl
import subprocess
import time
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import quote, quote_plus

from cloud.check import daemon
from cloud.check.connection import ANSWER_SECONDS, Answer, Broken, Connection
from cloud.check.daemon import Client, Point, Target

# Points and logs of the checker carry these names.
METRIC = "pelmor-cloud-check"
TYPE_URL = "type.example/pelmor-cloud-check"
_COMMAND_SECONDS = 60
_QUOTED_CHARACTERS = 200
_TLS_VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}


class Skip(Exception):
    """A rule cannot be tested; the text says why."""


@dataclass(frozen=True)
class Settings:
    service: Target
    token: Target
    client: Client
    ca_file: str | None = None
    device: str = "pelmor-cloud-check"
    foreign_device: str | None = None
    code: str = field(default="", repr=False)
    code_command: str | None = None
    expired_token: str = field(default="", repr=False)
    interval: int = 600
    idle_seconds: float = 20.0
    # The time that a large body takes, and the wait before a body.
    slow_seconds: float = 4.0
    expect_seconds: float = 1.0
    answer_seconds: float = ANSWER_SECONDS
    # Later no rule starts and no request is repeated, so that a run ends within five minutes.
    most_seconds: float = 240.0


class Cloud:
    def __init__(self, settings: Settings) -> None:
        self.settings = settings
        self.context = self.context_of()
        # Of the exchange; empty until then.
        self.access_token = ""
        self.refresh_token = ""
        self.token_fields: dict[str, Any] = {}
        self.code = ""
        # The answers that the daemon could use.
        self.answers = 0
        # No report may contain these.
        self.secrets = {settings.client.secret, settings.code, settings.expired_token}
        self._kept: Connection | None = None
        self.now = int(time.time())
        self._end = time.monotonic() + settings.most_seconds

    def context_of(self, version: str | None = None) -> ssl.SSLContext:
        """For all versions of TLS that the daemon uses, or for one."""
        context = ssl.create_default_context(cafile=self.settings.ca_file)
        context.minimum_version = _TLS_VERSIONS[version or "1.2"]
        if version:
            context.maximum_version = _TLS_VERSIONS[version]
        context.set_alpn_protocols(["http/1.1"])
        return context

    def check_time(self) -> None:
        if time.monotonic() > self._end:
            raise Skip(f"the time of {self.settings.most_seconds:g} s is over")

    def close(self) -> None:
        if self._kept:
            self._kept.close()
        self._kept = None

    # Connections.

    def targets(self) -> dict[str, Target]:
        return {"the service": self.settings.service, "the token endpoint": self.settings.token}

    def connect(self, target: Target, context: ssl.SSLContext | None = None,
                session: ssl.SSLSession | None = None) -> Connection:
        return Connection(target, context or self.context, self.settings.answer_seconds, session)

    def to_service(self) -> Connection:
        return self.connect(self.settings.service)

    def post(self, request: bytes) -> Answer:
        """Posts to the service on one kept connection, as the daemon does."""
        if self._kept and self._kept.listen(0.001) is not None:
            self.close()
        reused = self._kept is not None
        self._kept = self._kept or self.to_service()
        try:
            answer = self._counted(self._kept.post(request))
        except Broken as broken:
            self.close()
            if reused and broken.rule == "response-complete":
                # libcurl, too, repeats a request whose reused connection turns out to be closed.
                return self.post(request)
            raise
        if not answer.keeps_connection:
            self.close()
        return answer

    def post_alone(self, target: Target, request: bytes) -> Answer:
        with self.connect(target) as connection:
            return self._counted(connection.post(request))

    def _counted(self, answer: Answer) -> Answer:
        self.answers += 1
        self.check_time()
        return answer

    # Requests.

    def point(self, rule: str, type_: str = "int64Value", value: Any = "1", *, ago: int = 0,
              labels: dict[str, str] | None = None) -> Point:
        return Point(f"{METRIC}/{rule}", type_, value, self.now - ago, labels or {})

    def points(self, rule: str, type_: str, values: Iterable[Any]) -> list[Point]:
        """One for each value, with different labels."""
        return [self.point(rule, type_, value, labels={"number": str(number)})
                for number, value in enumerate(values)]

    def metrics_request(self, points: list[Point], *, token: str | None = None,
                        device: str | None = None, start: int | None = None) -> bytes:
        return daemon.metrics(
            self.settings.service, self.settings.device if device is None else device,
            self.access_token if token is None else token, points,
            self.now - self.settings.interval if start is None else start)

    def metrics(self, points: list[Point], **changes: Any) -> Answer:
        return self.post(self.metrics_request(points, **changes))

    def structured_log_request(self, data: bytes, type_url: str = TYPE_URL,
                               token: str | None = None) -> bytes:
        return daemon.structured_log(
            self.settings.service, self.settings.device,
            self.access_token if token is None else token, type_url, data)

    def structured_log(self, data: bytes, **changes: Any) -> Answer:
        return self.post(self.structured_log_request(data, **changes))

    def offline_log(self, data: bytes, type_url: str = TYPE_URL, *, token: str | None = None,
                    at: int | None = None, release: daemon.Release = daemon.Release()) -> Answer:
        return self.post(daemon.offline_log(
            self.settings.service, self.settings.device,
            self.access_token if token is None else token, type_url, data,
            self.now if at is None else at, release))

    def exchange(self, code: str) -> Answer:
        return self._noted(daemon.exchange(self.settings.token, self.settings.client, code))

    def refresh(self, token: str | None = None, client: Client | None = None) -> Answer:
        return self._noted(daemon.refresh(
            self.settings.token, client or self.settings.client,
            self.refresh_token if token is None else token))

    def _noted(self, request: bytes) -> Answer:
        answer = self.post_alone(self.settings.token, request)
        self.secrets.update(texts_in(answer))
        return answer

    def unknown_token(self) -> str:
        """As long as a real one, and never issued."""
        return secrets.token_urlsafe(len(self.access_token))[:len(self.access_token) or None]

    # Codes.

    def new_code(self) -> str:
        """A code that was not used yet. Raises a `Skip`."""
        if self.settings.code_command:
            code = _output_of(self.settings.code_command)
        elif not self.code and self.settings.code:
            code = self.settings.code
        else:
            raise Skip("needs another authorization code: pass --code-command")
        self.secrets.add(code)
        self.code = code
        return code

    # Reports.

    def masked(self, text: str) -> str:
        forms = {form for secret in self.secrets if secret
                 for form in (secret, quote(secret, safe=""), quote_plus(secret),
                              json.dumps(secret)[1:-1])}
        for form in sorted(forms, key=len, reverse=True):
            text = text.replace(form, "[secret]")
        return text

    def quoted(self, answer: Answer) -> str:
        """The status and the beginning of the body; not for the token endpoint."""
        body = self.masked(answer.body.decode(errors="replace"))[:_QUOTED_CHARACTERS]
        return f"{answer.status}, {json.dumps(body)}" if body else str(answer.status)


def _output_of(command: str) -> str:
    try:
        done = subprocess.run(command, shell=True, stdout=subprocess.PIPE, timeout=_COMMAND_SECONDS,
                              stderr=subprocess.DEVNULL, text=True, check=False)
    except subprocess.TimeoutExpired:
        raise Skip(f"--code-command took longer than {_COMMAND_SECONDS} s") from None
    except UnicodeDecodeError:
        raise Skip("--code-command printed bytes that are not UTF-8") from None
    code = done.stdout.strip()
    if done.returncode or not code or len(code.splitlines()) > 1:
        raise Skip(f"--code-command exited with {done.returncode} and printed "
                   f"{len(done.stdout.splitlines())} lines; one line with a code is needed")
    return code


def object_of(answer: Answer) -> dict[str, Any] | None:
    """The body as a JSON object in UTF-8; None if it is none."""
    def refuse(_: str) -> None:
        raise ValueError
    with contextlib.suppress(ValueError, RecursionError):
        value = json.loads(answer.body.decode(), parse_constant=refuse)
        return value if isinstance(value, dict) else None
    return None


def texts_in(answer: Answer) -> Iterator[str]:
    """The tokens in an answer of the token endpoint."""
    for name in ("access_token", "refresh_token", "id_token"):
        value = (object_of(answer) or {}).get(name)
        if isinstance(value, str) and value:
            yield value
