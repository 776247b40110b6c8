"""One HTTPS connection that sends prepared bytes and reads answers by the rules of the daemon.

An answer that the daemon could not use raises `Broken` with the name of the violated rule."""

import contextlib
import http.client
import io
import socket
import ssl
import time
from dataclasses import dataclass

from cloud.check.daemon import Target

# The daemon's limits: for a request with its answer, and for the parts of an answer.
ANSWER_SECONDS = 10.0
BODY_BYTES = 1024 * 1024
HEAD_BYTES = 256 * 1024
_READ_BYTES = 64 * 1024
_CONTINUE = 100
_FIRST_FINAL_STATUS = 200
_NO_CONTENT = 204
_HTTP_1_1 = 11
_REDIRECTIONS = range(300, 400)


class Broken(Exception):
    """An answer, or its absence, violates a rule that holds for every answer."""

    def __init__(self, rule: str, text: str) -> None:
        super().__init__(text)
        self.rule = rule

    @property
    def is_transport_failure(self) -> bool:
        """Whether the cloud did not answer: the daemon keeps its records and tokens."""
        return self.rule in ("response-complete", "response-time")


@dataclass(frozen=True)
class Answer:
    status: int
    body: bytes
    # Whether the connection can take another request.
    keeps_connection: bool

    @property
    def is_success(self) -> bool:
        return 200 <= self.status < 300


class _Source(io.RawIOBase):
    """What the server sends, until a deadline."""

    def __init__(self, link: ssl.SSLSocket) -> None:
        self._link = link
        self.deadline = 0.0
        # Arrived ahead of its reader.
        self.early = b""
        self.received = bytearray()

    def readable(self) -> bool:
        return True

    def readinto(self, buffer: memoryview) -> int:
        data, self.early = self.early[:len(buffer)], self.early[len(buffer):]
        if not data:
            self._link.settimeout(max(0.001, self.deadline - time.monotonic()))
            data = self._link.recv(len(buffer))
        if len(self.received) <= HEAD_BYTES:
            self.received += data
        buffer[:len(data)] = data
        return len(data)


class _Stream(io.BufferedReader):
    """`http.client` closes what it reads from after each answer."""

    def makefile(self, _: str) -> "_Stream":
        return self

    def close(self) -> None:
        pass


class Connection:
    """A context manager. `context` verifies the server; `session` is a TLS session to resume."""

    def __init__(self, target: Target, context: ssl.SSLContext, limit: float = ANSWER_SECONDS,
                 session: ssl.SSLSession | None = None) -> None:
        self._limit = limit
        self._deadline = time.monotonic() + limit
        try:
            plain = socket.create_connection((target.host, target.port), timeout=limit)
            plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            # Closes the socket if it fails.
            self.tls = context.wrap_socket(plain, server_hostname=target.host, session=session)
        except TimeoutError:
            raise Broken("response-time", f"no connection to {target.authority} within {limit:g} s"
                         ) from None
        except ssl.SSLError as error:
            raise Broken("tls-certificate", f"TLS handshake with {target.authority} failed: "
                         f"{error}") from None
        except OSError as error:
            raise Broken("response-complete", f"cannot connect to {target.authority}: {error}"
                         ) from None
        self._source = _Source(self.tls)
        self._stream = _Stream(self._source)
        self.requests = 0

    def __enter__(self) -> "Connection":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        with contextlib.suppress(OSError):
            self.tls.close()

    def post(self, request: bytes) -> Answer:
        self.start()
        self.send(request)
        return self.answer()

    def start(self) -> None:
        """Begins the time of a request; that of the first one includes the connection."""
        if self.requests:
            self._deadline = time.monotonic() + self._limit
        self.requests += 1

    def send(self, data: bytes) -> None:
        self.tls.settimeout(max(0.001, self._deadline - time.monotonic()))
        try:
            self.tls.sendall(data)
        except TimeoutError:
            raise Broken("response-time", f"the request was not read within {self._limit:g} s"
                         ) from None
        except OSError as error:
            raise Broken("response-complete", f"closed before the request was read: {error}"
                         ) from None

    def listen(self, seconds: float) -> bytes | None:
        """What arrives without a request within this time; None if nothing does, and no bytes if
        the server closes the connection."""
        self.tls.settimeout(seconds)
        try:
            self._source.early = self.tls.recv(_READ_BYTES)
        except TimeoutError:
            return None
        except OSError:
            return b""
        return self._source.early

    def answer(self) -> Answer:
        self._source.deadline = self._deadline
        self._source.received.clear()
        try:
            return self._read()
        except TimeoutError:
            raise Broken("response-time", f"no complete answer within {self._limit:g} s"
                         ) from None
        except (http.client.RemoteDisconnected, OSError):
            raise Broken("response-complete", "the connection was closed without an answer"
                         ) from None
        except http.client.IncompleteRead:
            raise Broken("response-complete", "the answer ends before its end") from None
        except (http.client.HTTPException, ValueError) as error:
            self._check_head_size(isinstance(error, http.client.LineTooLong))
            raise Broken("http-1.1", f"not HTTP/1.1: {type(error).__name__}") from None

    def _read(self) -> Answer:
        status = _CONTINUE
        while status < _FIRST_FINAL_STATUS:  # Interim responses.
            response = http.client.HTTPResponse(self._stream, method="POST")
            response.begin()
            status = response.status
        self._check_head(response)
        body = response.read(BODY_BYTES + 1) if status != _NO_CONTENT else b""
        if len(body) > BODY_BYTES:
            raise Broken("response-body-size", f"the body is larger than {BODY_BYTES} bytes")
        if response.length:
            raise http.client.IncompleteRead(body)
        return Answer(status, body, not response.will_close)

    def _check_head(self, response: http.client.HTTPResponse) -> None:
        if response.version != _HTTP_1_1:
            raise Broken("http-1.1", "the answer is HTTP/1.0")
        self._check_head_size()
        if response.status in _REDIRECTIONS:
            raise Broken("no-redirect", f"answered with {response.status}, a redirection")
        is_framed = response.length is not None or response.chunked
        if response.status != _NO_CONTENT and not is_framed:
            raise Broken("response-framed", "the answer has neither Content-Length nor chunks")

    def _check_head_size(self, has_long_line: bool = False) -> None:
        end = self._source.received.find(b"\r\n\r\n")
        size = len(self._source.received) if end < 0 else end
        if has_long_line or size > HEAD_BYTES:
            raise Broken("response-header-size", f"larger than {HEAD_BYTES} bytes, or than 64 KiB "
                         "in one line")
