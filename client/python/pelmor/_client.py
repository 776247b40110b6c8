"""A client for programs that may wait."""

import ctypes
import errno
import os
from collections.abc import Mapping
from types import TracebackType
from typing import Self

from pelmor._library import LIBRARY, Label

Value = bool | int | float | str

DEFAULT_TIMEOUT_SECONDS = 5.0
_MOST_MILLISECONDS = 2**32 - 1


class Error(OSError):
    """A call failed; `errno` and `strerror` say why, as in pelmor/pelmor.h."""


class Busy(Error):
    """The queue is full: the record was not accepted."""


def version() -> str:
    """The version of the library that runs."""
    text: bytes = LIBRARY.pelmor_version()
    return text.decode()


class Client:
    """Sends records. It connects with the first one; `close`, or leaving its context, sends what is
    queued, without waiting for the daemon."""

    def __init__(self, queue_wait: float = DEFAULT_TIMEOUT_SECONDS) -> None:
        """A record waits at most `queue_wait` seconds for room in a full queue."""
        self._client = ctypes.c_void_p()
        result = LIBRARY.pelmor_open(_milliseconds(queue_wait), ctypes.byref(self._client))
        if result < 0:
            raise Error(-result, os.strerror(-result))

    def __enter__(self) -> Self:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def close(self) -> None:
        """Later calls, except of `close`, are a ValueError."""
        client = self._client
        # First, since an interrupt can end this function behind the call.
        self._client = ctypes.c_void_p()
        LIBRARY.pelmor_close(client)

    def record(self, name: str, value: Value, labels: Mapping[str, str] | None = None) -> None:
        """Records a point of the metric `name`, with the current time. An `int` must fit into 64
        bits."""
        given = [Label(_text(key), _text(text)) for key, text in (labels or {}).items()]
        metric = (self._client, _text(name), (Label * len(given))(*given), len(given))
        # A bool is an int, too.
        if isinstance(value, bool):
            result = LIBRARY.pelmor_record_bool(*metric, value)
        elif isinstance(value, int):
            if not -2**63 <= value < 2**63:
                raise ValueError(f"{value} does not fit into 64 bits")
            result = LIBRARY.pelmor_record_int64(*metric, value)
        elif isinstance(value, float):
            result = LIBRARY.pelmor_record_double(*metric, value)
        else:
            result = LIBRARY.pelmor_record_string(*metric, _text(value))
        self._check(result)

    def record_structured_data(self, type_url: str, data: bytes) -> None:
        """Records an entry of the structured log, encoded as the type that `type_url` names."""
        self._check(LIBRARY.pelmor_record_structured_data(
            self._client, _text(type_url), *_bytes(data)))

    def record_offline_data(self, type_url: str, data: bytes) -> None:
        """Records opaque data, which are uploaded unchanged."""
        self._check(LIBRARY.pelmor_record_offline_data(
            self._client, _text(type_url), *_bytes(data)))

    def flush(self, timeout: float = DEFAULT_TIMEOUT_SECONDS) -> None:
        """Waits at most `timeout` seconds until the daemon has received every accepted record, or
        it is lost."""
        self._check(LIBRARY.pelmor_flush(self._client, _milliseconds(timeout)))

    @property
    def lost_records(self) -> int:
        """The number of records that were accepted and not confirmed."""
        self._check(0 if self._client else -errno.EINVAL)
        lost: int = LIBRARY.pelmor_lost_records(self._client)
        return lost

    def fileno(self) -> int:
        """A descriptor for an event loop: when it is readable, call `process`."""
        return self._check(LIBRARY.pelmor_poll_fd(self._client))

    def process(self) -> None:
        """Reads what has arrived and sends queued records. Does not block."""
        self._check(LIBRARY.pelmor_process(self._client))

    def _check(self, result: int) -> int:
        if result >= 0:
            return result
        # A text of the system has the encoding of the process's locale.
        message = LIBRARY.pelmor_message(self._client).decode(errors="replace")
        if result == -errno.EINVAL:
            raise ValueError(message)
        raise (Busy if result == -errno.EAGAIN else Error)(-result, message)


def _text(text: str) -> bytes:
    if not isinstance(text, str):
        raise TypeError(f"not a text: {text!r}")
    if "\0" in text:
        raise ValueError(f"a zero byte in {text!r}")
    return text.encode()


def _bytes(data: bytes) -> tuple[bytes, int]:
    # For type checkers a bytearray and a memoryview are bytes, too.
    copied = bytes(memoryview(data))
    return copied, len(copied)


def _milliseconds(seconds: float) -> int:
    return round(min(max(seconds * 1000, 0), _MOST_MILLISECONDS))
