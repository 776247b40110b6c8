"""The rules of the exchange of a code for tokens."""

import re
import secrets
from typing import Any

from cloud.check.cloud import Cloud, Skip, object_of
from cloud.check.connection import Answer
from cloud.check.rules import Failure, Section

RULES = Section("Exchange of a code")
_FIRST_ERROR = 400
_ERROR_CODE = re.compile(r"[\w.-]{1,64}", re.ASCII)
_ABORTS = "The daemon aborts the command; the device waits for another authorization code."
_CODES = range(400, 500)


def fields_of(answer: Answer, what: str) -> dict[str, Any]:
    """The members of a usable answer. A failure names no other member than `error`."""
    fields = object_of(answer)
    if answer.status >= _FIRST_ERROR:
        raise Failure(f"{what}: answered with {answer.status}, error {_error(answer)}")
    if fields is None:
        raise Failure(f"{what}: the body of the {answer.status} is no JSON object in UTF-8")
    return fields


def _error(answer: Answer) -> str:
    error = (object_of(answer) or {}).get("error")
    if not isinstance(error, str):
        return "missing"
    # Not shortened: a part of a secret would not be recognized.
    return repr(error) if _ERROR_CODE.fullmatch(error) else f"of {len(error)} characters"


def text_of(fields: dict[str, Any], name: str) -> str:
    value = fields.get(name)
    if not isinstance(value, str) or not value:
        kind = "empty" if value == "" else "missing" if value is None else type(value).__name__
        raise Failure(f"{name} is {kind}")
    return value


def rejected(answer: Answer, what: str) -> None:
    if answer.status not in _CODES:
        raise Failure(f"{what}: answered with {answer.status}, not 4XX")


@RULES.rule(
    "exchange-accepted",
    "An authorization code is exchanged: a status below 400 and a JSON object.",
    reason="The grant `authorization_code`, with client id and secret in the form and the "
           "redirect URI `oob`, is the only way to provision a device.",
    consequence=_ABORTS,
    remedy="Register the client for this grant, its scope, the redirect URI and "
           "`client_secret_post`.",
    needs=("tls-certificate",))
def exchange(cloud: Cloud) -> None:
    cloud.token_fields = fields_of(cloud.exchange(cloud.new_code()), "the exchange")


@RULES.rule(
    "exchange-access-token", "The exchange returns a non-empty string `access_token`.",
    reason="The daemon reads only strings.", consequence=_ABORTS,
    remedy="Return the token as a JSON string on the top level.", needs=("exchange-accepted",))
def access_token(cloud: Cloud) -> None:
    cloud.access_token = text_of(cloud.token_fields, "access_token")


@RULES.rule(
    "exchange-refresh-token", "The exchange returns a non-empty string `refresh_token`.",
    reason="Only the refresh token outlives the access token and a restart.", consequence=_ABORTS,
    remedy="Grant offline access to this client, if the provider asks for it by a setting or "
           "scope.",
    needs=("exchange-access-token",))
def refresh_token(cloud: Cloud) -> None:
    cloud.refresh_token = text_of(cloud.token_fields, "refresh_token")


@RULES.rule(
    "token-characters", "The access token is visible ASCII without blanks.",
    reason="It is sent in a header. The daemon replaces control characters by blanks.",
    consequence="The service rejects the token; no record is uploaded.",
    remedy="Encode tokens with the alphabet of RFC 6750, section 2.1.",
    needs=("exchange-access-token",))
def characters(cloud: Cloud) -> None:
    if not all("!" <= character <= "~" for character in cloud.access_token):
        raise Failure("it has blanks, control characters or characters beyond ASCII")


@RULES.rule(
    "token-type", "The token type, if any is stated, is `Bearer`.",
    reason="The daemon sends every token as a bearer token.",
    consequence="The service rejects the token; no record is uploaded.",
    remedy="Issue bearer tokens to this client.", needs=("exchange-accepted",))
def token_type(cloud: Cloud) -> None:
    stated = cloud.token_fields.get("token_type", "Bearer")
    if not isinstance(stated, str) or stated.lower() != "bearer":
        raise Failure("another type is stated")


@RULES.rule(
    "token-lifetime", "An access token lives longer than two upload intervals.",
    reason="The daemon ignores `expires_in`: it notices the end of a token by a 401, and uploads "
           "with the next token in the next cycle.",
    consequence="A token that lives for less than an interval has expired at every cycle: nothing "
                "is ever uploaded. Just above, every other cycle fails.",
    remedy="Issue access tokens for an hour or more, or state the fleet's real interval with "
           "`--interval`.",
    needs=("exchange-accepted",))
def lifetime(cloud: Cloud) -> None:
    stated = cloud.token_fields.get("expires_in")
    if isinstance(stated, bool) or not isinstance(stated, (int, float)):
        raise Skip("the exchange states no expires_in")
    if stated <= 2 * cloud.settings.interval:
        raise Failure(f"{stated:g} s, with an interval of {cloud.settings.interval} s")


@RULES.rule(
    "unknown-code", "A code that was never issued is answered with 4XX.",
    reason="The answer ends the command.",
    consequence="With tokens in the answer everybody can be this device. With a transport failure "
                "the command is aborted after 10 seconds.",
    remedy="Answer 400 with `invalid_grant`.", needs=("exchange-accepted",))
def unknown_code(cloud: Cloud) -> None:
    rejected(cloud.exchange(secrets.token_urlsafe()), "the unknown code")


@RULES.rule(
    "token-error", "An error of the token endpoint is a JSON object with a string `error`.",
    reason="The daemon logs it with the status, and nothing else of the answer.",
    consequence="The log says `unexpected_response`, or nothing: the fault is hard to find.",
    remedy="Answer as in RFC 6749, section 5.2.", needs=("unknown-code",))
def token_error(cloud: Cloud) -> None:
    answer = cloud.exchange(secrets.token_urlsafe())
    if _error(answer) == "missing":
        raise Failure(f"the {answer.status} has no string `error` in a JSON object")
