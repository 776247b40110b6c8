"""The rules of the refresh of an access token."""

import dataclasses
import secrets
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

from cloud.check.cloud import Cloud
from cloud.check.connection import Broken
from cloud.check.exchange_rules import fields_of, rejected, text_of
from cloud.check.rules import UNPROVISIONS, Failure, Section, accepted, unauthorized

RULES = Section("Refresh")
_REPEATED = 10
_CONCURRENT = 32


def renew(cloud: Cloud, what: str) -> None:
    """From now on the new token is used."""
    cloud.access_token = text_of(fields_of(cloud.refresh(), what), "access_token")


@RULES.rule(
    "refresh-accepted",
    "A refresh returns a status below 400 and a non-empty string `access_token`.",
    reason="The daemon refreshes at each start and after each 401.", consequence=UNPROVISIONS,
    remedy="Allow the grant `refresh_token` for this client, without a scope.",
    needs=("exchange-refresh-token",))
def refresh(cloud: Cloud) -> None:
    renew(cloud, "the first refresh")


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
        cloud.access_token = text_of(fields, "access_token")


@RULES.rule(
    "refreshed-token-accepted", "The service accepts an access token from a refresh.",
    reason="All tokens but the first are from a refresh.",
    consequence="The daemon refreshes after every cycle, and uploads nothing.",
    remedy="Give refreshed tokens the scope and audience of the first.",
    needs=("refresh-token-kept", "points-accepted"))
def refreshed(cloud: Cloud) -> None:
    renew(cloud, "the refresh")
    accepted(cloud, cloud.metrics([cloud.point("refreshed-token-accepted")]), "a point")


@RULES.rule(
    "superseded-token",
    "After a refresh the earlier access token is still accepted, or answered with 401.",
    reason="Points and a log are sent in parallel; a refresh can happen between them.",
    consequence="Any other status drops the points.",
    remedy="Let access tokens expire by time; answer 401 to a revoked one.",
    needs=("refreshed-token-accepted",))
def superseded(cloud: Cloud) -> None:
    earlier = cloud.access_token
    renew(cloud, "the refresh")
    answer = cloud.metrics([cloud.point("superseded-token")], token=earlier)
    if not answer.is_success:
        unauthorized(cloud, answer, "the earlier token")


@RULES.rule(
    "refresh-repeated",
    f"{_REPEATED} refreshes of one device in a row succeed, or fail at the transport.",
    reason="The daemon refreshes at each start, and otherwise at most once in 30 seconds.",
    consequence=UNPROVISIONS + " This applies to 429, too.",
    remedy="Close the connection without an answer to limit the rate of a device.",
    needs=("refresh-token-kept",))
def repeated(cloud: Cloud) -> None:
    for number in range(_REPEATED):
        try:
            renew(cloud, f"refresh {number + 1}")
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
            renew(cloud, "a refresh")
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
    # With several answers at a time the latest token is not known.
    renew(cloud, "the refresh after the load")


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
    renew(cloud, "the real token after the empty one")


@RULES.rule(
    "wrong-secret", "A refresh with a wrong client secret is answered with 4XX.",
    reason="The secret is part of every request.",
    consequence="A stolen refresh token suffices to be this device.",
    remedy="Make the client confidential, with `client_secret_post`.",
    needs=("refresh-token-kept",))
def wrong_secret(cloud: Cloud) -> None:
    client = dataclasses.replace(cloud.settings.client, secret=secrets.token_urlsafe())
    rejected(cloud.refresh(client=client), "the wrong secret")
    renew(cloud, "the right secret after it")
