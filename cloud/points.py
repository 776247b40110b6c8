"""What becomes of a metric point: a sample in VictoriaMetrics, or a row in PostgreSQL.

VictoriaMetrics stores numbers (floating-point, to about 15 digits) at times in milliseconds. A
point becomes a sample at its end time. Its other parts become labels of its series:
`pelmor_device`, `pelmor_type` (int64, double or bool) and `pelmor_start`, the start time, which
changes only when a device reboots. True is 1 and false is 0. The table `points` stores all others
as they are:

- texts, because each different one would be a new series;
- the double `null` (NaN or an infinity), and numbers beyond 2^53: values of a series share their
  exponent, so that one huge value would make zeros of its neighbours;
- times that are too old or in the future;
- names and labels that are empty or exceed VictoriaMetrics' limits.

A device may repeat points after a lost response. The interface identifies a point by its name,
labels and times, whole seconds. A device can record several in one second, so a point is a
repetition only if as many with the same value are stored already. Points of one series and second
are stored in successive milliseconds.
"""

import functools
import hashlib
import json
import struct
import time
from collections import Counter
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from typing import Any

TYPES = {"int64Value": "int64", "doubleValue": "double", "boolValue": "bool",
         "stringValue": "string"}
_OWN_PREFIX = "pelmor_"
# Of the names that the cloud uses itself, in front of a device's label of such a name.
_ESCAPE = "pelmor_label_"
_MOST_EXACT = 2**53
_SLOTS = 1000
# VictoriaMetrics accepts two days.
_MOST_AHEAD_SECONDS = 86400
RETENTION_DAYS = 365
# Below the limits that cloud/stores.py sets, or that VictoriaMetrics has; an item of its index has
# 64 KiB at most.
_MOST_LABELS = 100
_MOST_NAME_BYTES = 200
_MOST_VALUE_BYTES = 4096
_MOST_SERIES_BYTES = 16 * 1024

_IDENTITY = struct.Struct("<qq")
# Of the name, labels and times; of the value.
Identity = tuple[int, int]


@dataclass(slots=True)
class Point:
    name: str
    labels: dict[str, str]
    start: int
    end: int
    type: str
    value: Any
    # The JSON of its labels in VictoriaMetrics.
    series: str
    identity: Identity


def _number_of(text: str) -> int:
    return struct.unpack("<q", hashlib.blake2b(text.encode(), digest_size=8).digest())[0]


def _label(name: str) -> str:
    is_taken = name.startswith((_OWN_PREFIX, "__"))
    return _ESCAPE + name if is_taken else name


def _series(device: str, name: str, kind: str, start: int, labels: Iterable[tuple]) -> str:
    return json.dumps({"__name__": name, "pelmor_device": device, "pelmor_type": TYPES[kind],
                       "pelmor_start": str(start)} |
                      {_label(key): text for key, text in sorted(labels)})


def points_of(device: str, body: dict[str, Any]) -> list[Point]:
    """Of a valid request, in its order."""
    # Most points of a request are of a few series.
    series_of = functools.cache(_series)
    points = []
    for metric in body["metricPoints"]:
        name = metric["metricName"]
        for given in metric["points"]:
            kind = next(kind for kind in TYPES if kind in given)
            labels, value = given["labels"], given[kind]
            start, end = given["startTime"]["seconds"], given["endTime"]["seconds"]
            series = series_of(device, name, kind, start, tuple(labels.items()))
            identity = _number_of(f"{end} {series}"), _number_of(json.dumps(value))
            points.append(Point(name, labels, start, end, kind, value, series, identity))
    return points


def pack(identities: Iterable[Identity]) -> bytes:
    return b"".join(_IDENTITY.pack(*identity) for identity in identities)


def unpack(packed: bytes) -> Iterator[Identity]:
    return _IDENTITY.iter_unpack(packed)


def new_points(points: list[Point], stored: list[Identity]) -> list[tuple[Point, int]]:
    """Those that are not among the stored, each with its place among the points of its series and
    second."""
    repeated = Counter(stored)
    places = Counter(where for where, _ in stored)
    new = []
    for point in points:
        if repeated[point.identity] > 0:
            repeated[point.identity] -= 1
            continue
        new.append((point, places[point.identity[0]]))
        places[point.identity[0]] += 1
    return new


def is_sample(point: Point, place: int, now: float) -> bool:
    """Whether VictoriaMetrics can hold it."""
    return (point.type != "stringValue" and point.value is not None and place < _SLOTS
            and now - RETENTION_DAYS * 86400 < point.end < now + _MOST_AHEAD_SECONDS
            and _is_exact(point) and bool(point.name) and _fits(point))


def _is_exact(point: Point) -> bool:
    if point.type == "int64Value":
        return abs(int(point.value)) <= _MOST_EXACT
    return abs(float(point.value)) <= _MOST_EXACT


def _fits(point: Point) -> bool:
    if not point.labels:
        return len(point.series) <= _MOST_SERIES_BYTES
    return (len(point.labels) <= _MOST_LABELS and len(point.series) <= _MOST_SERIES_BYTES
            and all(0 < len(text.encode()) <= _MOST_VALUE_BYTES for text in point.labels.values())
            and all(0 < len(name.encode()) <= _MOST_NAME_BYTES for name in point.labels))


def _sample(point: Point) -> str:
    if point.type == "int64Value":
        return point.value
    return json.dumps(float(point.value))


@dataclass(frozen=True)
class Stored:
    """How a batch is stored: lines for VictoriaMetrics, and rows of `points` without the device."""

    samples: bytes
    rows: list[tuple]


def stored_form(new: list[tuple[Point, int]]) -> Stored:
    now = time.time()
    series: dict[str, tuple[list[str], list[str]]] = {}
    rows = []
    for point, place in new:
        if is_sample(point, place, now):
            values, times = series.setdefault(point.series, ([], []))
            values.append(_sample(point))
            times.append(str(point.end * 1000 + place))
        else:
            rows.append((point.name.encode(), json.dumps(point.labels).encode(), point.start,
                         point.end, point.type, json.dumps(point.value).encode()))
    lines = [f'{{"metric":{labels},"values":[{",".join(values)}],"timestamps":[{",".join(at)}]}}\n'
             for labels, (values, at) in series.items()]
    return Stored("".join(lines).encode(), rows)
