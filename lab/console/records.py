"""The content of a request to the monitoring service: points and decoded logs."""

import base64
import binascii
import json
from collections import Counter
from typing import Any

from lab.common.names import Endpoint
from lab.console.masks import fields_of

_VALUES = ("int64Value", "doubleValue", "boolValue", "stringValue")
_HEX_ROW = 16
_MOST_DECODED = 16 * 1024


def points_of(body: str) -> list[dict[str, Any]]:
    """The points of a metrics request. Times on the wire are whole seconds: the points of a series
    in one second are spread over it, in their order."""
    found = [(metric["metricName"], point) for metric in fields_of(body).get("metricPoints", [])
             for point in metric["points"]]
    shared = Counter(_place(name, point) for name, point in found)
    seen: Counter = Counter()
    points = []
    for name, point in found:
        place = _place(name, point)
        at = point["endTime"]["seconds"] + seen[place] / shared[place]
        seen[place] += 1
        kind = next(kind for kind in _VALUES if kind in point)
        value = int(point[kind]) if kind == "int64Value" else point[kind]
        points.append({"metric": name, "labels": point["labels"], "at": round(at, 3),
                       "value": value})
    return points


def _place(name: str, point: dict[str, Any]) -> tuple:
    return name, tuple(sorted(point["labels"].items())), point["endTime"]["seconds"]


def log_of(endpoint: str, body: str) -> dict[str, Any] | None:
    """The log record of a request with its decoded data; None for other requests."""
    parsed = fields_of(body)
    if endpoint == Endpoint.OFFLINE_LOGS:
        parsed = (parsed.get("writeLog") or [{}])[0]
    if "typeUrl" not in parsed:
        return None
    form, text = decoded(parsed["value"])
    kind = "offline" if endpoint == Endpoint.OFFLINE_LOGS else "structured"
    return {"kind": kind, "type": parsed["typeUrl"], "form": form, "data": text}


def decoded(value: str) -> tuple[str, str]:
    """The form of the data (JSON, text or bytes), and the data in that form."""
    try:
        data = base64.urlsafe_b64decode(value)
    except binascii.Error:
        return "not Base64", value
    try:
        text = data.decode()
    except UnicodeDecodeError:
        return f"{len(data)} bytes", _dump(data)
    try:
        return "JSON", json.dumps(json.loads(text), indent=2, ensure_ascii=False)
    except ValueError:
        pass
    if all(letter.isprintable() or letter in "\n\t" for letter in text):
        return "text", text[:_MOST_DECODED]
    return f"{len(data)} bytes", _dump(data)


def _dump(data: bytes) -> str:
    rows = range(0, min(len(data), _MOST_DECODED), _HEX_ROW)
    return "\n".join(f"{row:04x}  {data[row:row + _HEX_ROW].hex(' ')}" for row in rows)
