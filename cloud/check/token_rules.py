"""The rules of the token endpoint."""

import dataclasses
import secrets
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from typing import Any

from cloud.check.cloud import Cloud, object_of
from cloud.check.connection import Answer, Broken
from cloud.check.rules import UNPROVISIONS, Failure, Section, Skip

RULES = Section("Token endpoint")
_FIRST_ERROR = 400
_REPEATED = 10
_CONCURRENT = 32
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
    return repr(error) if isinstance(error, str) else "missing"


def text_of(fields: dict[str, Any], name: str) -> str:
    value = fields.get(name)
    if not isinstance(value, str) or not value:
        kind = "empty" if value == "" else "missing" if value is None else type(value).__name__
        raise Failure(f"{name} is {kind}")
    return value


def refreshed_token(cloud: Cloud, what: str) -> str:
    return text_of(fields_of(cloud.refresh(), what), "access_token")


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
    "refresh-accepted",
    "A refresh returns a status below 400 and a non-empty string `access_token`.",
    reason="The daemon refreshes at each start and after each 401.", consequence=UNPROVISIONS,
    remedy="Allow the grant `refresh_token` for this client, without a scope.",
    needs=("exchange-refresh-token",))
def refresh(cloud: Cloud) -> None:
    refreshed_token(cloud, "the first refresh")


@RULES.rule(
    "refresh-token-kept", "The first refresh token stays valid; it is not rotated.",
    reason="The daemon keeps the refresh token of the exchange, and reads no other.",
    consequence=UNPROVISIONS + " With rotation this happens to every device, at its second refresh "
                               "or when the grace period ends.",
    remedy="Turn the rotation of refresh tokens off for this client, and give them no end of life.",
    needs=("refresh-accepted",))
def kept(cloud: Cloud) -> None:
    for number in (2, 3):
        fields = fields_of(cloud.refresh(), f"refresh {number} with the first refresh token")
        if fields.get("refresh_token", cloud.refresh_token) != cloud.refresh_token:
            raise Failure(f"refresh {number} returned another refresh token")


@RULES.rule(
    "refresh-repeated", f"{_REPEATED} refreshes of one device in a row succeed.",
    reason="The daemon refreshes at each start, and otherwise at most once in 30 seconds.",
    consequence=UNPROVISIONS + " This applies to 429, too.",
    remedy="Close the connection without an answer to limit the rate of a device.",
    needs=("refresh-token-kept",))
def repeated(cloud: Cloud) -> None:
    for number in range(_REPEATED):
        try:
            refreshed_token(cloud, f"refresh {number + 1}")
        except Broken as broken:
            if not broken.is_transport_failure:
                raise


@RULES.rule(
    "refresh-under-load", f"{_CONCURRENT} concurrent refreshes succeed, or fail at the transport.",
    reason="After a power failure all devices refresh within seconds.",
    consequence=UNPROVISIONS + " A 503 or 429 of an overloaded endpoint does this to every device "
                               "that gets it.",
    remedy="Have the endpoint, and every load balancer in front of it, close the connection or "
           "not answer when overloaded; never answer a refresh with an error that is not final.",
    needs=("refresh-token-kept",))
def under_load(cloud: Cloud) -> None:
    def one(_: int) -> str:
        try:
            refreshed_token(cloud, "a refresh")
        except Broken as broken:
            if not broken.is_transport_failure:
                raise
        except Failure as failure:
            return str(failure)
        return ""
    with ThreadPoolExecutor(_CONCURRENT) as threads:
        failures = Counter(filter(None, threads.map(one, range(_CONCURRENT))))
    if failures:
        raise Failure("; ".join(f"{count} times: {text}" for text, count in failures.items()))


@RULES.rule(
    "unknown-refresh-token",
    "A refresh token that was never issued, or was revoked, is answered with 4XX.",
    reason="The answer makes a device without rights wait for another code.",
    consequence="With a token in the answer everybody can be this device. With a transport "
                "failure the device retries for ever.",
    remedy="Answer 400 with `invalid_grant` (RFC 6749, section 5.2).", needs=("refresh-accepted",))
def unknown_refresh_token(cloud: Cloud) -> None:
    rejected(cloud.refresh(secrets.token_urlsafe(len(cloud.refresh_token))), "the unknown token")


@RULES.rule(
    "empty-refresh-token", "An empty refresh token is answered with 4XX, and revokes nothing.",
    reason="The daemon sends one if a 401 arrives during the exchange of a code.",
    consequence="The daemon discards its tokens after any answer; but a provider that revokes the "
                "client's grants unprovisions other devices too.",
    remedy="Answer 400 with `invalid_request` or `invalid_grant`.", needs=("refresh-token-kept",))
def empty_refresh_token(cloud: Cloud) -> None:
    rejected(cloud.refresh(""), "the empty token")
    refreshed_token(cloud, "the real token after the empty one")


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


@RULES.rule(
    "wrong-secret", "A refresh with a wrong client secret is answered with 4XX.",
    reason="The secret is part of every request.",
    consequence="A stolen refresh token suffices to be this device.",
    remedy="Make the client confidential, with `client_secret_post`.",
    needs=("refresh-token-kept",))
def wrong_secret(cloud: Cloud) -> None:
    client = dataclasses.replace(cloud.settings.client, secret=secrets.token_urlsafe())
    rejected(cloud.refresh(client=client), "the wrong secret")
    refreshed_token(cloud, "the right secret after it")
