"""Masks secrets on the page: tokens, authorization codes, the client's secret."""

import json
import re
from typing import Any
from urllib.parse import parse_qsl, quote, quote_plus

from lab.device.events import Event

MASK = "********"
_FORM = "application/x-www-form-urlencoded"
_FORM_SECRETS = ("code", "client_secret", "refresh_token")
_JSON_SECRETS = ("access_token", "refresh_token")
# A shorter text would match by chance.
SHORTEST_SECRET = 6


class Masks:
    """Learns secrets from events, and masks every later occurrence."""

    def __init__(self) -> None:
        self._secrets: set[str] = set()
        self._pattern: re.Pattern[str] | None = None

    def learn(self, *secrets: str) -> None:
        new = {secret for secret in secrets if len(secret) >= SHORTEST_SECRET} - self._secrets
        if new:
            self._secrets |= new
            forms = {form for secret in self._secrets
                     for form in (secret, quote(secret), quote_plus(secret))}
            # The longest first, for secrets that contain another one.
            self._pattern = re.compile("|".join(
                re.escape(form) for form in sorted(forms, key=len, reverse=True)))

    def learn_from(self, event: Event) -> None:
        if event.kind == "cloud.request":
            self.learn(*(_credentials(value) for name, value in event["headers"]
                         if name.lower() == "authorization"))
            self.learn(*(value for name, value in parse_qsl(event["body"])
                         if name in _FORM_SECRETS))
        elif event.kind == "cloud.answer":
            fields = fields_of(event["body"])
            self.learn(*(str(fields[name]) for name in _JSON_SECRETS if name in fields))

    def text(self, text: str) -> str:
        return self._pattern.sub(MASK, text) if self._pattern else text

    def headers(self, pairs: list[list[str]]) -> list[list[str]]:
        return [[name, f"{value.partition(' ')[0]} {MASK}" if name.lower() == "authorization"
                 else self.text(value)] for name, value in pairs]

    def body(self, body: str, content_type: str = "") -> str:
        """JSON is indented."""
        if content_type.startswith(_FORM):
            return self.text("&".join(
                f"{name}={MASK if name in _FORM_SECRETS else value}"
                for name, value in parse_qsl(body, keep_blank_values=True)))
        try:
            parsed = json.loads(body)
        except ValueError:
            return self.text(body)
        if isinstance(parsed, dict):
            parsed |= {name: MASK for name in _JSON_SECRETS if name in parsed}
        return self.text(json.dumps(parsed, indent=2, ensure_ascii=False))


def _credentials(header: str) -> str:
    return header.partition(" ")[2]


def fields_of(body: str) -> dict[str, Any]:
    """Empty if the body is not a JSON object."""
    try:
        fields = json.loads(body)
    except ValueError:
        return {}
    return fields if isinstance(fields, dict) else {}
