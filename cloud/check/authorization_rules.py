"""The rules of the statuses by which the service accepts and rejects tokens and devices."""

import secrets

from cloud.check.cloud import Cloud, Skip
from cloud.check.point_rules import largest
from cloud.check.rules import (BLOCKS_LOGS, LOSES_POINTS, Section, closing_is_failure,
                               unauthorized)

RULES = Section("Tokens and devices")
_KEEPS_TOKEN = "The daemon drops the points, and never fetches another token."
_REMEDY = "Answer 401, and nothing else, whatever is wrong with the token."
_DEVICE_REMEDY = "Answer 401, not 403 or 404, to a device that the token is not for."
# None of them was ever issued. The daemon sends blanks in place of control characters.
_MALFORMED = ("x", "a b", "a.b.c", "\"\\{}", "%00%ff", "=", "a" * 4000)


@RULES.rule(
    "unknown-token", "A token that was never issued is answered with 401.",
    reason="401 is the only status that makes the daemon fetch another token and keep the points.",
    consequence=_KEEPS_TOKEN, remedy=_REMEDY, needs=("points-accepted",))
def unknown_token(cloud: Cloud) -> None:
    answer = cloud.metrics([cloud.point("unknown-token")], token=cloud.unknown_token())
    unauthorized(cloud, answer, "a point")


@RULES.rule(
    "unknown-token-log", "The same token with a log, structured or offline, is answered with 401.",
    reason="In a cycle without points only a log is sent.", consequence=BLOCKS_LOGS, remedy=_REMEDY,
    needs=("structured-log-accepted", "offline-log-accepted"))
def unknown_token_log(cloud: Cloud) -> None:
    token = cloud.unknown_token()
    unauthorized(cloud, cloud.structured_log(b"unknown", token=token), "a structured log")
    unauthorized(cloud, cloud.offline_log(b"unknown", token=token), "an offline log")


@RULES.rule(
    "expired-token", "A token that has expired is answered with 401.",
    reason="The daemon ignores `expires_in`; each token ends in this way.",
    consequence=_KEEPS_TOKEN, remedy=_REMEDY,
    needs=("points-accepted",))
def expired_token(cloud: Cloud) -> None:
    if not cloud.settings.expired_token:
        raise Skip("needs a token of this device that has expired: pass --expired-token-file")
    answer = cloud.metrics([cloud.point("expired-token")], token=cloud.settings.expired_token)
    unauthorized(cloud, answer, "a point")


@RULES.rule(
    "malformed-token", "A token that no provider would issue is answered with 401.",
    reason="The daemon sends whatever it was given, with blanks for control characters.",
    consequence=_KEEPS_TOKEN,
    remedy=_REMEDY + " RFC 6750 suggests 400 for some of these; the fleet needs 401.",
    needs=("unknown-token",))
def malformed_token(cloud: Cloud) -> None:
    for token in _MALFORMED:
        answer = cloud.metrics([cloud.point("malformed-token")], token=token)
        unauthorized(cloud, answer, f"the token {token[:10]!r}")


@RULES.rule(
    "empty-token",
    "A request with the header `Authorization: Bearer` and no token is answered with 401.",
    reason="The daemon sends it if a token consists of control characters.",
    consequence=_KEEPS_TOKEN, remedy=_REMEDY, needs=("unknown-token",))
def empty_token(cloud: Cloud) -> None:
    unauthorized(cloud, cloud.metrics([cloud.point("empty-token")], token=""), "a point")


@RULES.rule(
    "rejected-large-body",
    "The 401 for a request of 1.4 MB reaches a client that first sends all of it.",
    reason="A server that answers at once and closes the connection resets it: the client can get "
           "an error in place of the answer.",
    consequence="A transport error: the daemon keeps the expired token and the points, and the "
                "next cycle fails in the same way.",
    remedy="Read the body before the answer, or go on reading after it.",
    needs=("unknown-token", "batch-largest"))
def rejected_large_body(cloud: Cloud) -> None:
    request = cloud.metrics_request(largest(cloud), token=cloud.unknown_token())
    with closing_is_failure(), cloud.to_service() as connection:
        answer = connection.post(request)
    unauthorized(cloud, answer, "the request")


def _unknown_device(cloud: Cloud, device: str) -> None:
    answer = cloud.metrics([cloud.point("device")], device=device)
    unauthorized(cloud, answer, "a point")


@RULES.rule(
    "unknown-device", "A device that does not exist is answered with 401.",
    reason="A device can upload moments after its registration, before all of the cloud knows it.",
    consequence=LOSES_POINTS, remedy=_DEVICE_REMEDY, needs=("points-accepted",))
def unknown_device(cloud: Cloud) -> None:
    _unknown_device(cloud, f"unknown-{secrets.token_hex(8)}")


@RULES.rule(
    "missing-device", "A path without a device is answered with 401.",
    reason="The daemon leaves the segment out while Larder's device id is empty: before the "
           "registration.",
    consequence=LOSES_POINTS,
    remedy="Route the methods directly below the base URL, too, and answer 401 there.",
    needs=("points-accepted",))
def missing_device(cloud: Cloud) -> None:
    _unknown_device(cloud, "")


@RULES.rule(
    "foreign-device", "Another device's path is answered with 401.",
    reason="Each token is for one device. After a new registration the daemon can have the new id "
           "and, until the next exchange, the old token.",
    consequence="With 2XX a device can write records for another. " + LOSES_POINTS,
    remedy=_DEVICE_REMEDY, needs=("points-accepted",))
def foreign_device(cloud: Cloud) -> None:
    if not cloud.settings.foreign_device:
        raise Skip("needs the id of another existing device: pass --foreign-device")
    _unknown_device(cloud, cloud.settings.foreign_device)
