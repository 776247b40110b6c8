"""Requests as the cloud receives them, and its answers."""

import base64
import itertools
import json
from dataclasses import dataclass
from typing import Any

from lab.device.device import DEFAULT_CONFIGURATION, DEFAULT_RELEASE
from lab.device.values import Variant

_SECOND = 1_000_000
_ROOT = "/v1/devices"


@dataclass(frozen=True)
class Point:
    number: int
    name: str
    labels: dict[str, str]
    value: Variant
    time: int


@dataclass(frozen=True)
class Log:
    number: int
    kind: str
    type_url: str
    data: bytes
    time: int

    @property
    def value(self) -> str:
        return base64.urlsafe_b64encode(self.data).decode()


@dataclass(frozen=True)
class Request:
    path: str
    token: str
    body: dict[str, Any]


@dataclass(frozen=True)
class Answer:
    """A status and a text; without a status, the network fails."""

    status: int | None
    body: str = ""
    # What the cloud does instead of answering.
    act: str = "answer"

    @property
    def is_success(self) -> bool:
        return self.status is not None and 200 <= self.status < 300

    @property
    def fields(self) -> dict[str, str] | None:
        """The members of a JSON object that are strings; None when the body is no object."""
        try:
            members = json.loads(self.body)
        except ValueError:
            return None
        if not isinstance(members, dict):
            return None
        return {name: value for name, value in members.items() if isinstance(value, str)}


def metrics_request(points: list[Point], start_time: int, device_id: str, token: str) -> Request:
    by_name = sorted(points, key=lambda point: point.name.encode())
    groups = itertools.groupby(by_name, lambda point: point.name)
    body = {"metricPoints": [
        {"metricName": name, "points": [_point(point, start_time) for point in group]}
        for name, group in groups]}
    return Request(_path(device_id, "metrics:batchCreatePoints"), token, body)


def _point(point: Point, start_time: int) -> dict[str, Any]:
    return {"labels": point.labels, "startTime": _time(start_time), "endTime": _time(point.time),
            **_typed(point.value)}


def _typed(value: Variant) -> dict[str, Any]:
    native = {"s": "stringValue", "d": "doubleValue", "b": "boolValue"}
    if value.signature in native:
        return {native[value.signature]: value.value}
    return {"int64Value": str((value.value + 2**63) % 2**64 - 2**63)}


def _time(microseconds: int) -> dict[str, int]:
    return {"seconds": microseconds // _SECOND}


def _path(device_id: str, method: str) -> str:
    return "/".join(part for part in (_ROOT, device_id, method) if part)


def log_request(log: Log, device_id: str, token: str) -> Request:
    record = {"typeUrl": log.type_url, "value": log.value}
    if log.kind == "structured":
        return Request(_path(device_id, "structuredLogs"), token, record)
    release = {"softwareVersion": DEFAULT_RELEASE["VARELNOS_RELEASE_VERSION"],
               "updateChannel": DEFAULT_RELEASE["VARELNOS_RELEASE_TRACK"],
               "hardwareId": DEFAULT_RELEASE["VARELNOS_RELEASE_BOARD"]}
    return Request(_path(device_id, "writeLogs"), token, {
        "properties": release, "deviceTimestamp": _time(log.time), "writeLog": [record]})


def wire_size(request: Request) -> int:
    return len(json.dumps(request.body, separators=(",", ":"), ensure_ascii=False).encode())


def refresh_form(refresh_token: str) -> list[tuple[str, str]]:
    return [("refresh_token", refresh_token), *_client(), ("grant_type", "refresh_token")]


def exchange_form(code: str) -> list[tuple[str, str]]:
    return [("code", code), *_client(), ("redirect_uri", "oob"),
            ("scope", DEFAULT_CONFIGURATION["PELMOR_SCOPE"]), ("grant_type", "authorization_code")]


def _client() -> list[tuple[str, str]]:
    return [("client_id", DEFAULT_CONFIGURATION["PELMOR_CLIENT_ID"]),
            ("client_secret", DEFAULT_CONFIGURATION["PELMOR_CLIENT_SECRET"])]
