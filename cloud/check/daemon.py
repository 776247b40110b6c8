"""The daemon's requests, byte for byte. A device test compares them with those of the daemon."""

import base64
import json
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import quote, urlsplit

_METRICS = "metrics:batchCreatePoints"
_STRUCTURED = "structuredLogs"
_OFFLINE = "writeLogs"
_HTTPS_PORT = 443
_FORM = "application/x-www-form-urlencoded"
_LOG_TYPE = "application/json; charset=utf-8"
_METRICS_TYPE = "application/json"


@dataclass(frozen=True)
class Target:
    """Where requests are sent: the server, and the path of a URL. Raises a `ValueError`."""

    host: str
    port: int
    path: str

    @staticmethod
    def of(url: str) -> "Target":
        parts = urlsplit(url)
        if parts.scheme != "https" or not parts.hostname:
            raise ValueError("not an https URL with a host")
        if parts.username is not None or parts.query or parts.fragment:
            raise ValueError("has a user, a query or a fragment")
        if not all("!" <= character <= "~" for character in parts.path):
            raise ValueError("has blanks or characters beyond ASCII in its path")
        return Target(parts.hostname, parts.port or _HTTPS_PORT, parts.path)

    @property
    def authority(self) -> str:
        host = f"[{self.host}]" if ":" in self.host else self.host
        return host if self.port == _HTTPS_PORT else f"{host}:{self.port}"

    def below(self, *segments: str) -> str:
        """The path with these segments, joined by single slashes; empty ones are left out."""
        return "/".join([self.path.rstrip("/"), *filter(None, segments)])


@dataclass(frozen=True)
class Client:
    """What a device knows of its OAuth2 client."""

    id: str
    secret: str = field(repr=False)
    scope: str = ""


@dataclass(frozen=True)
class Point:
    """A metric point. The name of its value is the type on the wire. Python writes a double as the
    daemon does, except from 1e15 to 1e16."""

    metric: str
    type: str
    value: Any
    end: int
    labels: dict[str, str] = field(default_factory=dict)


@dataclass(frozen=True)
class Release:
    """The release properties of a device."""

    version: str = "9000.1.0"
    channel: str = "stable-channel"
    board: str = "board-a"


def _post(authority: str, path: str, headers: list[str], body: bytes) -> bytes:
    lines = [f"POST {path} HTTP/1.1", f"Host: {authority}", "Accept: */*", *headers,
             f"Content-Length: {len(body)}", "", ""]
    return "\r\n".join(lines).encode() + body


def _form(target: Target, *fields: tuple[str, str]) -> bytes:
    body = "&".join(f"{name}={quote(value, safe='')}" for name, value in fields)
    return _post(target.authority, target.path or "/", [f"Content-Type: {_FORM}"], body.encode())


def exchange(target: Target, client: Client, code: str) -> bytes:
    """The exchange of an authorization code for tokens."""
    return _form(target, ("code", code), ("client_id", client.id),
                 ("client_secret", client.secret), ("redirect_uri", "oob"),
                 ("scope", client.scope), ("grant_type", "authorization_code"))


def refresh(target: Target, client: Client, refresh_token: str) -> bytes:
    """The request for another access token."""
    return _form(target, ("refresh_token", refresh_token), ("client_id", client.id),
                 ("client_secret", client.secret), ("grant_type", "refresh_token"))


def _json(target: Target, path: str, token: str, media_type: str, body: dict[str, Any]) -> bytes:
    # libcurl sends a header without a value as "Name:".
    headers = [f"Authorization: Bearer {token}".rstrip(), f"Content-Type: {media_type}"]
    text = json.dumps(body, ensure_ascii=False, separators=(",", ":"), sort_keys=True)
    return _post(target.authority, path, headers, text.encode())


def metrics(target: Target, device: str, token: str, points: list[Point], start: int) -> bytes:
    """One batch. `points` are in the order of their recording."""
    groups: dict[str, list[dict[str, Any]]] = {}
    for point in points:
        groups.setdefault(point.metric, []).append(
            {"labels": point.labels, "startTime": {"seconds": start},
             "endTime": {"seconds": point.end}, point.type: point.value})
    body = {"metricPoints": [{"metricName": name, "points": groups[name]}
                             for name in sorted(groups)]}
    return _json(target, target.below(device, _METRICS), token, _METRICS_TYPE, body)


def _log(type_url: str, data: bytes) -> dict[str, str]:
    return {"typeUrl": type_url, "value": base64.urlsafe_b64encode(data).decode()}


def structured_log(target: Target, device: str, token: str, type_url: str, data: bytes) -> bytes:
    return _json(target, target.below(device, _STRUCTURED), token, _LOG_TYPE,
                 _log(type_url, data))


def offline_log(target: Target, device: str, token: str, type_url: str, data: bytes, time: int,
                release: Release = Release()) -> bytes:
    body = {"properties": {"softwareVersion": release.version, "updateChannel": release.channel,
                           "hardwareId": release.board},
            "deviceTimestamp": {"seconds": time}, "writeLog": [_log(type_url, data)]}
    return _json(target, target.below(device, _OFFLINE), token, _LOG_TYPE, body)
