"""The rules of metrics requests."""

from collections.abc import Callable

from cloud.check.cloud import Cloud
from cloud.check.daemon import Point
from cloud.check.rules import LOSES_POINTS, Section, accepted

RULES = Section("Points")
# The daemon's limits, and a generous number of labels.
MOST_POINTS = 1000
_LABELS = 60
_MINUTE = 60
_HOUR = 3600
_DAY = 24 * _HOUR
_INT32 = (-2**31, 2**31 - 1)
DOUBLES = (0.0, -0.0, 3.0, 0.1, -1e-07, 5e-324, 2.2250738585072014e-308, 1e+16,
           1.7976931348623157e+308, -1.7976931348623157e+308)
INTEGERS = ("0", "-1", "9007199254740993", "9223372036854775807", "-9223372036854775808")
TEXTS = ("", " ", "é ü ß", "日本語", "\U0001f600", "\"\\/", "line\nbreak\ttab\u0001\u007f",
         "\u202eabc", "a" * 4096, "'; DROP TABLE points; --", "{}[]=~,!", "\ufeff\ufffd")


@RULES.rule(
    "points-accepted", "A metrics request is answered with 2XX.",
    reason="Only then are its points safe.", consequence=LOSES_POINTS,
    remedy="Compare the request with cloud-api.yaml; check the base URL and the token's scope.",
    needs=("exchange-access-token",))
def points_accepted(cloud: Cloud) -> None:
    accepted(cloud, cloud.metrics([cloud.point("points-accepted")]), "one point")


def _accepts(name: str, demand: str, reason: str, remedy: str,
             make: Callable[[Cloud], list[Point]]) -> None:
    """A rule that these points are accepted in one request."""
    @RULES.rule(
        name, demand,
        reason=reason, consequence=LOSES_POINTS, remedy=remedy, needs=("points-accepted",))
    def check(cloud: Cloud) -> None:
        points = make(cloud)
        accepted(cloud, cloud.metrics(points), f"{len(points)} points")


def _starting(name: str, start: int, ages: list[int], demand: str, reason: str,
              remedy: str) -> None:
    """A rule that points of these ages are accepted with a start so many seconds from now."""
    @RULES.rule(
        name, demand,
        reason=reason, consequence=LOSES_POINTS, remedy=remedy, needs=("points-accepted",))
    def check(cloud: Cloud) -> None:
        points = [cloud.point(name, ago=ago) for ago in ages]
        accepted(cloud, cloud.metrics(points, start=cloud.now + start), f"{len(points)} points")


_accepts("value-int64", "Every signed 64-bit integer is accepted, as a string of digits.",
         "Counters of bytes exceed what a JSON number can hold exactly.",
         "Parse `int64Value` from the string as a 64-bit integer, not as a double.",
         lambda cloud: cloud.points("value-int64", "int64Value", INTEGERS))
_accepts("value-double", "Every finite double is accepted.",
         "Reporters decide on the values: zeros with a sign, the smallest and the largest.",
         "Parse `doubleValue` as a 64-bit IEEE double; it may have an exponent.",
         lambda cloud: cloud.points("value-double", "doubleValue", DOUBLES))
_accepts("value-double-null", "The double `null` is accepted.",
         "It is a reporter's NaN or infinity, for which JSON has no number.",
         "Store a missing value, or skip this point alone.",
         lambda cloud: [cloud.point("value-double-null", "doubleValue", None)])
_accepts("value-bool", "Booleans are accepted.", "Reporters send them.",
         "Store them as 0 and 1 if the store has numbers only.",
         lambda cloud: cloud.points("value-bool", "boolValue", (True, False)))
_accepts("value-string", "Any string in UTF-8 is accepted, empty or 4 KiB long.",
         "The daemon checks no text.",
         "Store texts as they are; skip a single point that the store cannot hold.",
         lambda cloud: cloud.points("value-string", "stringValue", TEXTS))
_accepts("value-types-mixed", "One metric may have values of all types.",
         "Two versions of a reporter can use different types, on one device or on several.",
         "Do not fix the type of a metric by its first point; or skip single points.",
         lambda cloud: [cloud.point("value-types-mixed", type_, value, labels={"type": type_})
                        for type_, value in (("int64Value", "1"), ("doubleValue", 0.5),
                                             ("boolValue", True), ("stringValue", "one"))])
_accepts("labels-dots", "Names of labels may have dots, dashes, slashes and digits in front.",
         "The daemon checks no label. A dot does not mean a nested object.",
         "Escape names for stores that restrict them.",
         lambda cloud: [cloud.point("labels-dots", labels={
             "a.b": "1", "a": "2", "a.b.c": "3", "x-y/z": "4", "0": "5", "__name__": "6"})])
_accepts("labels-utf8", "Names and values of labels may be any UTF-8, and empty.",
         "The daemon checks no label.",
         "Escape names for stores that restrict them; do not reject the request.",
         lambda cloud: [cloud.point("labels-utf8", labels={text: text for text in TEXTS})])
_accepts("metric-names", "Names of metrics may be any UTF-8, and empty.",
         "The daemon checks no name.",
         "Escape names for stores that restrict them; do not reject the request.",
         lambda cloud: [Point(text, "int64Value", "1", cloud.now) for text in TEXTS])
_accepts("batch-1000-points", f"{MOST_POINTS} points of one metric are accepted.",
         "After an outage a request has that many.", "Raise the limit of points in a request.",
         lambda cloud: cloud.points("batch-1000-points", "int64Value", ["1"] * MOST_POINTS))
_accepts("batch-1000-metrics", f"{MOST_POINTS} metrics of one point each are accepted.",
         "Nothing limits the number of metrics but that of points.",
         "Raise the limit of metrics in a request.",
         lambda cloud: [cloud.point(f"batch-1000-metrics/{number:04}")
                        for number in range(MOST_POINTS)])


def largest(cloud: Cloud) -> list[Point]:
    labels = {f"label-{number:02}": f"value-{number:02}" for number in range(_LABELS - 1)}
    return [cloud.point("batch-largest", labels=labels | {"number": str(number)})
            for number in range(MOST_POINTS)]


_accepts("batch-largest", f"{MOST_POINTS} points with {_LABELS} labels each, 1.4 MB, are "
         "accepted.",
         "The daemon limits the number of points, but not their size.",
         "Raise the size limits for bodies, in proxies too, to 16 MiB or more.", largest)
_accepts("points-future", "Points from the future are accepted: an hour, a day.",
         "A device's clock can be ahead.", "Skip single points that the store cannot hold.",
         lambda cloud: [cloud.point("points-future", ago=-seconds) for seconds in (_HOUR, _DAY)])
_accepts("points-same-second", "Two points of a metric may have the same labels and second.",
         "Times are whole seconds; reporters may report more often. Both may have the same value.",
         "Keep any of them, or all; do not report a conflict.",
         lambda cloud: [cloud.point("points-same-second", value=value) for value in "1213"])
_accepts("times-extreme", "Every signed 32-bit second is accepted.",
         "A device without a clock, or with a broken one, reports 1970 or 2038; a time out of "
         "range is clamped.", "Skip single points that the store cannot hold.",
         lambda cloud: [cloud.point("times-extreme", ago=cloud.now - time) for time in
                        (*_INT32, 0, 1)])


_starting(
    "points-late", -_DAY, [_MINUTE, 30 * _MINUTE, 29 * _MINUTE],
    "Points of half an hour ago are accepted.",
    "The daemon keeps points for 30 minutes while the service is unreachable.",
    "Accept points in any order, and 30 minutes old.")
_starting(
    "points-before-start", _HOUR, [0], "An `endTime` before `startTime` is accepted.",
    "If the clock is set back, the start time stays as it is until the device reboots.",
    "Do not validate their order.")
_starting(
    "start-long-ago", -365 * _DAY, [0], "A `startTime` a year ago is accepted.",
    "It is the first upload after the device's boot, and stays the same until the next boot.",
    "Do not validate `startTime`.")


@RULES.rule(
    "batch-repeated", "The same request is accepted again, alone and with new points.",
    reason="The daemon repeats a request whose answer was lost or late, with newer points in it.",
    consequence="The new points of the request are dropped with the old ones.",
    remedy="Treat a known point as stored: answer 2XX, not 409.", needs=("points-accepted",))
def repeated(cloud: Cloud) -> None:
    points = [cloud.point("batch-repeated", ago=ago) for ago in (3, 2)]
    for what in ("the first time", "the second time"):
        accepted(cloud, cloud.metrics(points), what)
    accepted(cloud, cloud.metrics([*points, cloud.point("batch-repeated")]), "with a new point")
