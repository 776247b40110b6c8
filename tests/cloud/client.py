"""A device as its cloud sees it, and what the cloud has stored of it."""

import http.client
import json
import socket
import ssl
import struct
import threading
import time
import urllib.request
from collections.abc import Callable
from typing import Any, TypeVar
from urllib.parse import quote, urlencode, urlsplit

from cloud.process import Cloud
from lab.common import deadlines

_DEADLINE_SECONDS = 30.0
_PERIOD_SECONDS = 0.1
_LOG_VALUE = "-_8B"
_FORM = {"Content-Type": "application/x-www-form-urlencoded"}
# What a daemon takes for a transport error.
TRANSPORT = (OSError, http.client.HTTPException)

T = TypeVar("T")


def wait_until(condition: Callable[[], T], what: str, deadline: float = _DEADLINE_SECONDS) -> T:
    due = time.monotonic() + deadlines.scaled(deadline)
    while not (found := condition()):
        assert time.monotonic() < due, f"waited for {what}"
        threading.Event().wait(_PERIOD_SECONDS)
    return found


class Client:
    def __init__(self, cloud: Cloud, device: str) -> None:
        self.device = device
        self._cloud = cloud
        self._connection = self._new_connection()
        answer = self.exchange(cloud.provision(device))[1]
        self.refresh_token = answer["refresh_token"]
        self.access_token = answer["access_token"]

    def _new_connection(self) -> http.client.HTTPSConnection:
        url = urlsplit(self._cloud.service_url)
        context = ssl.create_default_context(cafile=str(self._cloud.authority))
        return http.client.HTTPSConnection(url.hostname or "", url.port, context=context,
                                           timeout=deadlines.scaled(10))

    def reconnect(self) -> None:
        self._connection.close()
        self._connection = self._new_connection()

    def _post(self, path: str, body: bytes, headers: dict[str, str]) -> tuple[int, Any]:
        """Raises one of `TRANSPORT`."""
        try:
            self._connection.request("POST", path, body, headers)
            response = self._connection.getresponse()
            return response.status, json.loads(response.read())
        except TRANSPORT:
            self.reconnect()
            raise

    def exchange(self, code: str) -> tuple[int, Any]:
        return self.ask_for_token(code=code, redirect_uri="oob", scope="",
                                  grant_type="authorization_code")

    def refresh(self) -> tuple[int, Any]:
        return self.ask_for_token(refresh_token=self.refresh_token, grant_type="refresh_token")

    def ask_for_token(self, **form: str) -> tuple[int, Any]:
        secret = self._cloud.client_secret_file.read_text()
        whole = {"client_id": self._cloud.client_id, "client_secret": secret} | form
        return self.post_form(urlencode(whole).encode())

    def post_form(self, body: bytes) -> tuple[int, Any]:
        return self._post(urlsplit(self._cloud.token_url).path, body, _FORM)

    def send(self, method: str, body: Any, *, token: str | None = None,
             device: str | None = None) -> tuple[int, Any]:
        """`body` is sent as JSON, unless it is bytes."""
        return self._post(*self._request(method, body, token, device))

    def _request(self, method: str, body: Any, token: str | None = None,
                 device: str | None = None) -> tuple[str, bytes, dict[str, str]]:
        path = f"{urlsplit(self._cloud.service_url).path}/{device or self.device}/{method}"
        return (path, body if isinstance(body, bytes) else json.dumps(body).encode(),
                {"Content-Type": "application/json",
                 "Authorization": f"Bearer {token or self.access_token}"})

    def send_points(self, *points: dict[str, Any], name: str = "ap/test") -> int:
        return self.send("metrics:batchCreatePoints",
                         {"metricPoints": [{"metricName": name, "points": list(points)}]})[0]

    def send_log(self, value: str = _LOG_VALUE) -> int:
        return self.send("structuredLogs", {"typeUrl": "type.example/Event", "value": value})[0]

    def leave_a_log(self) -> None:
        """Sends the default one, and closes the connection without waiting for the answer."""
        self._connection.request("POST", *self._request(
            "structuredLogs", {"typeUrl": "type.example/Event", "value": _LOG_VALUE}))
        self._connection.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                         struct.pack("ii", 1, 0))
        self.reconnect()

    # What the cloud has stored.

    def samples(self) -> list[tuple[dict[str, str], list[tuple[int, float]]]]:
        """The labels and the samples, by milliseconds, of each series of the device."""
        match = quote(f'{{pelmor_device="{self.device}"}}')
        url = f"{self._cloud.query_url}/api/v1/export?match[]={match}"
        lines = urllib.request.urlopen(url).read().decode().splitlines()
        found = [json.loads(line) for line in lines]
        return [(one["metric"], list(zip(one["timestamps"], one["values"]))) for one in found]

    def wait_for_samples(self, count: int) -> list[tuple[int, float]]:
        """All samples, when there are as many."""
        def find() -> list[tuple[int, float]]:
            try:
                samples = sorted(sample for _, series in self.samples() for sample in series)
            except OSError:  # VictoriaMetrics is being replaced.
                return []
            return samples if len(samples) >= count else []

        return wait_until(find, f"{count} samples of {self.device}")

    def rows(self, table: str, *columns: str) -> list[list[str]]:
        return self._cloud.sql(f"SELECT {', '.join(columns)} FROM {table}"
                               f" WHERE device = '{self.device}' ORDER BY id")


def point(end: int, labels: dict[str, str] | None = None, start: int | None = None,
          **value: Any) -> dict[str, Any]:
    """One value of the interface, for example int64Value="12"."""
    return {"labels": labels or {}, "startTime": {"seconds": end - 60 if start is None else start},
            "endTime": {"seconds": end}} | value
