"""The rules of structured logs and offline logs."""

from cloud.check.cloud import Cloud
from cloud.check.daemon import Release
from cloud.check.rules import BLOCKS_LOGS, Section, accepted

RULES = Section("Logs")
_MIB = 1024 * 1024
# The daemon's queue.
_MOST_LOGS = 20
_ALL_BYTES = bytes(range(256))
_TYPE_URLS = ("", "type.example/ap.Event", "é 日本語 \U0001f600", "a\nb", "%2F?#", "x" * 1024)
_TIMES = (-2**31, 0, 2**31 - 1)


@RULES.rule(
    "structured-log-accepted", "A structured log is answered with 2XX.",
    reason="Only then does the daemon send the next log.", consequence=BLOCKS_LOGS,
    remedy="Compare the request with cloud-api.yaml.", needs=("exchange-access-token",))
def structured(cloud: Cloud) -> None:
    accepted(cloud, cloud.structured_log(b"structured-log-accepted"), "a log")


@RULES.rule(
    "offline-log-accepted", "An offline log is answered with 2XX.",
    reason="Only then does the daemon send the next log.", consequence=BLOCKS_LOGS,
    remedy="Compare the request with cloud-api.yaml.", needs=("exchange-access-token",))
def offline(cloud: Cloud) -> None:
    accepted(cloud, cloud.offline_log(b"offline-log-accepted"), "a log")


@RULES.rule(
    "structured-log-1-mib", "A structured log of 1 MiB is accepted.",
    reason="The daemon does not limit the data; Base64 makes it a third larger.",
    consequence=BLOCKS_LOGS,
    remedy="Raise the size limits for bodies, in proxies too, to 16 MiB or more.",
    needs=("structured-log-accepted",))
def structured_mib(cloud: Cloud) -> None:
    accepted(cloud, cloud.structured_log(_ALL_BYTES * (_MIB // len(_ALL_BYTES))), "1 MiB")


@RULES.rule(
    "offline-log-1-mib", "An offline log of 1 MiB is accepted.",
    reason="The daemon does not limit the data; Base64 makes it a third larger.",
    consequence=BLOCKS_LOGS,
    remedy="Raise the size limits for bodies, in proxies too, to 16 MiB or more.",
    needs=("offline-log-accepted",))
def offline_mib(cloud: Cloud) -> None:
    accepted(cloud, cloud.offline_log(_ALL_BYTES * (_MIB // len(_ALL_BYTES))), "1 MiB")


@RULES.rule(
    "log-base64", "Every byte, and every length of padding, is accepted.",
    reason="`value` is Base64 with the alphabet that is safe in URLs, with padding.",
    consequence=BLOCKS_LOGS, remedy="Decode `-` and `_`, and expect `=` (RFC 4648, section 5).",
    needs=("structured-log-accepted", "offline-log-accepted"))
def base64(cloud: Cloud) -> None:
    for data in (b"", b"\xfb", b"\xfb\xff", b"\xfb\xff\xfe", _ALL_BYTES):
        accepted(cloud, cloud.structured_log(data), f"{len(data)} bytes, structured")
        accepted(cloud, cloud.offline_log(data), f"{len(data)} bytes, offline")


@RULES.rule(
    "log-type-url", "The type URL may be any UTF-8, and empty.",
    reason="The daemon does not check it.", consequence=BLOCKS_LOGS, remedy="Store it as a text.",
    needs=("structured-log-accepted", "offline-log-accepted"))
def type_url(cloud: Cloud) -> None:
    for one in _TYPE_URLS:
        accepted(cloud, cloud.structured_log(b"log-type-url", type_url=one), f"{one[:20]!a}")
        accepted(cloud, cloud.offline_log(b"log-type-url", type_url=one), f"{one[:20]!a}, offline")


@RULES.rule(
    "log-times", "An offline log may have any signed 32-bit second.",
    reason="A device without a clock, or with a broken one, reports 1970 or 2038.",
    consequence=BLOCKS_LOGS, remedy="Do not validate `deviceTimestamp`.",
    needs=("offline-log-accepted",))
def times(cloud: Cloud) -> None:
    for at in _TIMES:
        accepted(cloud, cloud.offline_log(b"log-times", at=at), f"the second {at}")


@RULES.rule(
    "log-release", "The release properties may be any text, such as `unknown`.",
    reason="The daemon sends what /etc/lsb-release has, and `unknown` for a missing key.",
    consequence=BLOCKS_LOGS, remedy="Do not validate `properties`.",
    needs=("offline-log-accepted",))
def release(cloud: Cloud) -> None:
    for one in (Release("unknown", "unknown", "unknown"), Release("", "é", "x" * 256)):
        accepted(cloud, cloud.offline_log(b"log-release", release=one), f"{one.version!a}")


@RULES.rule(
    "log-repeated", "The same log is accepted again.",
    reason="The daemon repeats a log whose answer was lost or late.", consequence=BLOCKS_LOGS,
    remedy="Treat a known log as stored: answer 2XX, not 409.",
    needs=("structured-log-accepted", "offline-log-accepted"))
def log_repeated(cloud: Cloud) -> None:
    for what in ("the first time", "the second time"):
        accepted(cloud, cloud.structured_log(b"log-repeated"), what)
        accepted(cloud, cloud.offline_log(b"log-repeated", at=cloud.now - 1), f"{what}, offline")


@RULES.rule(
    "log-backlog", f"{_MOST_LOGS} logs in a row are accepted.",
    reason="After an outage the daemon sends its queue back to back.",
    consequence=BLOCKS_LOGS + " This applies to 429, too.",
    remedy="Do not limit the rate of a device below its queue.", needs=("structured-log-accepted",))
def backlog(cloud: Cloud) -> None:
    for number in range(_MOST_LOGS):
        answer = cloud.structured_log(b"log-backlog %d" % number)
        accepted(cloud, answer, f"log {number + 1}")
