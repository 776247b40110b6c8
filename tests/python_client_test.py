"""The Python package for reporters, on the built library and on simulated ones."""

import asyncio
import ctypes
import enum
import errno
import importlib
import math
import os
import re
import sys
from collections.abc import Awaitable, Callable
from types import ModuleType, SimpleNamespace

import pytest

from lab.common.deadlines import scaled
from tests.client_test import BUILD, NO_BUS, PYTHON_PACKAGE


class Number(enum.IntEnum):
    SEVEN = 7


def load_package() -> ModuleType:
    # It asks for a library of this name, and gets the one that is loaded.
    ctypes.CDLL(str(BUILD / "client/libpelmor.so.0"))
    sys.path.insert(0, str(PYTHON_PACKAGE))
    return importlib.import_module("pelmor")


@pytest.fixture(scope="module", name="pelmor")
def fixture_pelmor() -> ModuleType:
    return load_package()


@pytest.fixture(autouse=True)
def fixture_no_bus(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus")


def simulate(monkeypatch: pytest.MonkeyPatch, **functions: Callable[..., object]) -> None:
    """Replaces functions of the library."""
    library = importlib.import_module("pelmor._client").LIBRARY
    kept = {name: getattr(library, name)
            for name in importlib.import_module("pelmor._library").__dict__["_FUNCTIONS"]}
    monkeypatch.setattr("pelmor._client.LIBRARY", SimpleNamespace(**{**kept, **functions}))


# Arguments.

@pytest.mark.parametrize("value, error, message", [
    (2**63, ValueError, "9223372036854775808 does not fit into 64 bits"),
    (-2**63 - 1, ValueError, "-9223372036854775809 does not fit into 64 bits"),
    ("a\0", ValueError, "a zero byte in 'a\\x00'"),
    ("\udc80", ValueError, "surrogates not allowed"),
    ("\uffff", ValueError, "The metric's value is not UTF-8 text that D-Bus carries"),
    (None, TypeError, "not a text: None"),
])
def test_a_value_that_cannot_be_sent_is_an_error(pelmor: ModuleType, value: object,
                                                 error: type[Exception], message: str) -> None:
    with pytest.raises(error, match=re.escape(message)):
        pelmor.Client().record("n", value)


@pytest.mark.parametrize("labels, error", [
    ({"a": 1}, TypeError), ({1: "a"}, TypeError), ({"a": "\0"}, ValueError),
    ({"\ufffe": ""}, ValueError),
])
def test_a_label_that_cannot_be_sent_is_an_error(pelmor: ModuleType, labels: dict,
                                                 error: type[Exception]) -> None:
    with pytest.raises(error):
        pelmor.Client().record("n", 1, labels)


@pytest.mark.parametrize("data, error", [
    (lambda: "text", TypeError), (lambda: 5, TypeError), (lambda: None, TypeError),
    (lambda: bytes(60 * 2**20), ValueError)], ids=["text", "number", "none", "large"])
def test_data_that_cannot_be_sent_are_an_error(pelmor: ModuleType, data: Callable[[], object],
                                               error: type[Exception]) -> None:
    client = pelmor.Client()
    for record in (client.record_structured_data, client.record_offline_data):
        with pytest.raises(error):
            record("t", data())


def test_each_value_is_recorded_with_its_type(pelmor: ModuleType,
                                              monkeypatch: pytest.MonkeyPatch) -> None:
    recorded: list = []

    def keep(kind: str) -> Callable[..., int]:
        return lambda client, name, labels, count, value: recorded.append((kind, value)) or 0

    simulate(monkeypatch, **{f"pelmor_record_{kind}": keep(kind)
                             for kind in ("bool", "int64", "double", "string")})
    client = pelmor.Client()
    for value in (True, 2**63 - 1, -2**63, Number.SEVEN, math.inf, "größer"):
        client.record("n", value)
    assert recorded == [("bool", True), ("int64", 2**63 - 1), ("int64", -2**63), ("int64", 7),
                        ("double", math.inf), ("string", "größer".encode())]


@pytest.mark.parametrize("data", [b"\0\xff", bytearray(b"\0\xff"), memoryview(b"\0\xff")])
def test_data_that_are_like_bytes_are_recorded(pelmor: ModuleType, data: bytes,
                                               monkeypatch: pytest.MonkeyPatch) -> None:
    recorded: list = []

    def keep(_: object, *arguments: object) -> int:
        recorded.append(arguments)
        return 0

    client = pelmor.Client()
    with pytest.raises(pelmor.Error, match="No connection"):
        client.record_offline_data("o", data)
    simulate(monkeypatch, pelmor_record_structured_data=keep, pelmor_record_offline_data=keep)
    client.record_structured_data("s", data)
    client.record_offline_data("o", data)
    assert recorded == [(b"s", b"\0\xff", 2), (b"o", b"\0\xff", 2)]


@pytest.mark.parametrize("seconds, milliseconds", [
    (0.25, 250), (0, 0), (-1, 0), (math.inf, 2**32 - 1), (-math.inf, 0), (1e300, 2**32 - 1)])
def test_seconds_become_milliseconds(pelmor: ModuleType, monkeypatch: pytest.MonkeyPatch,
                                     seconds: float, milliseconds: int) -> None:
    waits = []
    simulate(monkeypatch, pelmor_open=lambda wait, client: waits.append(wait) or 0,
             pelmor_flush=lambda client, wait: waits.append(wait) or 0)
    pelmor.Client(queue_wait=seconds).flush(seconds)
    assert waits == [milliseconds, milliseconds]


def test_a_time_that_is_not_a_number_is_an_error(pelmor: ModuleType) -> None:
    with pytest.raises(ValueError):
        pelmor.Client(queue_wait=math.nan)


# Failures.

def test_without_a_bus_a_record_fails_and_a_flush_has_nothing_to_do(pelmor: ModuleType) -> None:
    with pelmor.Client() as client:
        with pytest.raises(pelmor.Error) as failure:
            client.record("n", 1)
        assert failure.value.errno == errno.ENOTCONN
        assert failure.value.strerror == NO_BUS
        client.process()
        client.flush()
        assert client.lost_records == 0


def test_a_client_that_cannot_be_opened_is_an_error(pelmor: ModuleType,
                                                    monkeypatch: pytest.MonkeyPatch) -> None:
    simulate(monkeypatch, pelmor_open=lambda wait, client: -errno.EMFILE)
    with pytest.raises(pelmor.Error) as failure:
        pelmor.Client()
    assert failure.value.errno == errno.EMFILE


def test_a_full_queue_is_busy(pelmor: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    simulate(monkeypatch, pelmor_record_int64=lambda *_: -errno.EAGAIN)
    with pytest.raises(pelmor.Busy) as failure:
        pelmor.Client().record("n", 1)
    assert isinstance(failure.value, pelmor.Error) and failure.value.errno == errno.EAGAIN


def test_a_message_in_another_encoding_is_shown(pelmor: ModuleType,
                                                monkeypatch: pytest.MonkeyPatch) -> None:
    simulate(monkeypatch, pelmor_flush=lambda *_: -errno.EIO,
             pelmor_message=lambda _: b"zu gro\xdf")
    with pytest.raises(pelmor.Error, match="zu gro\ufffd"):
        pelmor.Client().flush()


@pytest.mark.parametrize("call", [
    lambda client: client.record("n", 1), lambda client: client.record_offline_data("t", b""),
    lambda client: client.record_structured_data("t", b""), lambda client: client.flush(),
    lambda client: client.process(), lambda client: client.fileno(),
    lambda client: client.lost_records],
    ids=["record", "offline data", "structured data", "flush", "process", "fileno", "losses"])
def test_a_call_of_a_closed_client_is_an_error(pelmor: ModuleType,
                                               call: Callable[[object], object]) -> None:
    with pelmor.Client() as client:
        pass
    with pytest.raises(ValueError, match="There is no client"):
        call(client)
    client.close()


def test_a_client_is_closed_with_its_last_reference(pelmor: ModuleType) -> None:
    before = os.listdir("/proc/self/fd")
    client = pelmor.Client()
    assert os.listdir("/proc/self/fd") != before
    del client
    assert os.listdir("/proc/self/fd") == before


def test_a_client_whose_close_is_interrupted_is_freed_once(
        pelmor: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    freed = []

    def close(client: ctypes.c_void_p) -> None:
        if client.value:
            freed.append(client.value)
            raise InterruptedError

    client = pelmor.Client()
    closing = importlib.import_module("pelmor._client").LIBRARY.pelmor_close
    with monkeypatch.context() as patched:
        simulate(patched, pelmor_close=close)
        with pytest.raises(InterruptedError):
            client.close()
        client.close()
    assert len(freed) == 1
    closing(freed[0])


# asyncio, with a simulated client.

class FullClient:
    """Its queue is full, and its records are unconfirmed, until a test changes that."""

    def __init__(self, pelmor: ModuleType) -> None:
        self.is_full = True
        self.is_closed = False
        # Of a flush.
        self.error: int | None = errno.ETIMEDOUT
        self.flushed = 0
        self.accepted: list[tuple] = []
        self.lost_records = 7
        self._pelmor = pelmor
        self._arrived: dict = {}
        self._fd = os.eventfd(0)

    def fileno(self) -> int:
        return self._fd

    def record(self, *arguments: object) -> None:
        self._accept("metric", *arguments)

    def record_structured_data(self, *arguments: object) -> None:
        self._accept("structured", *arguments)

    def record_offline_data(self, *arguments: object) -> None:
        self._accept("offline", *arguments)

    def flush(self, timeout: float) -> None:
        assert timeout == 0
        self._check()
        self.flushed += 1
        if self.error is not None:
            raise self._pelmor.Error(self.error, "failed")

    def arrive(self, **changes: object) -> None:
        """Lets something arrive that makes these changes when it is processed."""
        self._arrived = changes
        os.eventfd_write(self._fd, 1)

    def process(self) -> None:
        os.eventfd_read(self._fd)
        self.__dict__.update(self._arrived)

    def close(self) -> None:
        self.is_closed = True
        os.close(self._fd)

    def _accept(self, *record: object) -> None:
        self._check()
        if self.is_full:
            raise self._pelmor.Busy(errno.EAGAIN, "full")
        self.accepted.append(record)

    def _check(self) -> None:
        if self.is_closed:
            raise ValueError("closed")


@pytest.fixture(name="full")
def fixture_full(pelmor: ModuleType, monkeypatch: pytest.MonkeyPatch) -> FullClient:
    client = FullClient(pelmor)
    monkeypatch.setattr("pelmor._asyncio.Client", lambda queue_wait: client)
    return client


async def start(call: Awaitable[None]) -> asyncio.Task:
    """The task of a call that waits."""
    task = asyncio.ensure_future(call)
    await asyncio.sleep(0)
    assert not task.done()
    return task


def run(test: Awaitable[None]) -> None:
    asyncio.run(asyncio.wait_for(test, scaled(10)))


def test_records_wait_until_the_library_has_room(pelmor: ModuleType, full: FullClient) -> None:
    async def test() -> None:
        async with pelmor.AsyncClient() as client:
            waiting = [await start(client.record("n", 1, {"a": "b"})),
                       await start(client.record_structured_data("s", b"1")),
                       await start(client.record_offline_data("o", b"2"))]
            full.arrive(is_full=False)
            await asyncio.gather(*waiting)
            assert client.lost_records == full.lost_records
    run(test())
    assert full.accepted == [("metric", "n", 1, {"a": "b"}), ("structured", "s", b"1"),
                             ("offline", "o", b"2")]


@pytest.mark.parametrize("method, arguments", [("flush", ()), ("record", ("n", 2))])
def test_a_record_that_waits_uses_the_room_that_another_call_made(
        pelmor: ModuleType, full: FullClient, method: str, arguments: tuple) -> None:
    async def test() -> None:
        async with pelmor.AsyncClient() as client:
            waiting = await start(client.record("n", 1))
            full.is_full, full.error = False, None
            await getattr(client, method)(*arguments)
            await waiting
    run(test())


def test_a_flush_ends_when_another_one_was_confirmed(pelmor: ModuleType, full: FullClient) -> None:
    async def test() -> None:
        async with pelmor.AsyncClient() as client:
            waiting = await start(client.flush(math.inf))
            full.error = None
            await client.flush()
            await waiting
    run(test())


def test_a_flush_that_waits_is_repeated_by_replies_and_not_by_records(
        pelmor: ModuleType, full: FullClient) -> None:
    async def test() -> None:
        async with pelmor.AsyncClient() as client:
            waiting = await start(client.flush(math.inf))
            full.is_full = False
            for number in range(3):
                await client.record("n", number)
                await asyncio.sleep(0)
            assert full.flushed == 1
            full.arrive(error=None)
            await waiting
            assert full.flushed == 2
    run(test())


def test_a_flush_in_asyncio_times_out(pelmor: ModuleType, full: FullClient) -> None:
    async def test() -> None:
        async with pelmor.AsyncClient() as client:
            with pytest.raises(pelmor.Error, match="failed"):
                await client.flush(0.01)
    run(test())
    assert full.flushed == 2


def test_a_flush_that_fails_is_not_repeated(pelmor: ModuleType, full: FullClient) -> None:
    async def test() -> None:
        async with pelmor.AsyncClient() as client:
            full.error = errno.ESRCH
            with pytest.raises(pelmor.Error, match="failed"):
                await client.flush(math.inf)
    run(test())
    assert full.flushed == 1


def test_leaving_the_context_ends_the_calls_that_wait(pelmor: ModuleType, full: FullClient) -> None:
    async def test() -> None:
        async with pelmor.AsyncClient() as client:
            waiting = [await start(client.record("n", 1)), await start(client.flush(math.inf))]
            descriptor = full.fileno()
        assert not asyncio.get_running_loop().remove_reader(descriptor)
        for task in waiting:
            with pytest.raises(ValueError, match="closed"):
                await task
    run(test())
    assert full.is_closed
