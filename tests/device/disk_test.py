"""The daemon's two files when a write fails or the daemon is killed during it: afterwards a file
has its old or its new content, complete."""

import signal
from collections.abc import Iterator

import pytest

from lab.common import names
from lab.device.device import Device
from tests.device.helpers import message_of

OLD, NEW = "refresh-old", "refresh-1"
COMMAND = "/org/quintara/Larder/commands"
TRACE = "/tmp/trace"

# The calls that open the file at the start. A name that cannot be opened is checked for a link.
READING = {names.REFRESH_TOKEN: ["fstat", "openat", "close"],
           names.START_TIME: ["fstat", "openat", "readlinkat", "close"]}
# Other names of the same call in other releases of the C library.
SAME_CALLS = {"newfstatat": "fstat", "fstatat64": "fstat", "fstat64": "fstat", "statx": "fstat"}
# The system calls that write a file: the name, and the number among calls of that name.
WRITING = [("unlinkat", 1), ("openat", 2), ("write", 1), ("fsync", 1), ("close", 2),
           ("renameat", 1), ("fsync", 2), ("close", 3)]
# Those whose failure is the write's failure. The others only remove an old file that does not
# exist, or close a file that is synced already.
DECISIVE = [("openat", 2), ("write", 1), ("fsync", 1), ("renameat", 1), ("fsync", 2)]
# The errors of a full, a broken and a read-only disk.
REFUSALS = [(call, number, error) for (call, number), error in zip(WRITING, [
    "EROFS", "ENOSPC", "ENOSPC", "EIO", "EIO", "EROFS", "EIO", "EIO"], strict=True)]
RENAME = WRITING.index(("renameat", 1))


@pytest.fixture
def device(request: pytest.FixtureRequest) -> Iterator[Device]:
    with Device(may_trace=True) as one:
        yield one


def tracing(path: str, *inject: str) -> tuple[str, ...]:
    """Traces the calls that write a file."""
    folder = path.rpartition("/")[0]
    return ("strace", "-D", "-f", "-o", TRACE, "-P", f"{path}.new", "-P", folder,
            *(word for one in inject for word in ("-e", f"inject={one}")))


def start(device: Device, under: tuple[str, ...] = ()) -> None:
    # LeakSanitizer does not work under ptrace.
    device.start_daemon(under=under, ASAN_OPTIONS="detect_leaks=0")
    device.wait_for_access_token(after=device.wait_for("daemon.started"))


def exchange(device: Device, number: int = 1) -> None:
    """The daemon receives a new refresh token."""
    device.larder.add_credentials_command(f"{COMMAND}/{number}")


def content(device: Device, path: str) -> str | None:
    data = device.read_file(path)
    return None if data is None else data.decode()


@pytest.mark.parametrize("path", [names.REFRESH_TOKEN, names.START_TIME])
def test_a_file_is_written_by_these_system_calls_only(device: Device, path: str) -> None:
    device.provision(OLD)
    start(device, tracing(path))
    before = device.mark()
    exchange(device)
    device.larder.wait_for_call("Complete")
    device.record_metric("ap/clients", {}, 1)
    device.cloud.wait_for_request("metrics")
    device.wait_for_file(path, after=before)
    device.stop_daemon(signal.SIGKILL)
    lines = content(device, TRACE).splitlines()
    calls = [line.split(maxsplit=1)[1].partition("(")[0] for line in lines if "(" in line]
    assert [SAME_CALLS.get(call, call) for call in calls] == (
        READING[path] + [name for name, _ in WRITING])


@pytest.mark.parametrize(("call", "number"), WRITING)
def test_a_kill_leaves_the_old_or_the_new_token(device: Device, call: str, number: int) -> None:
    device.provision(OLD)
    start(device, tracing(names.REFRESH_TOKEN, f"{call}:signal=KILL:when={number}"))
    exchange(device)
    assert device.wait_for_exit() == -signal.SIGKILL
    # The signal arrives before the call is executed.
    expected = OLD if WRITING.index((call, number)) <= RENAME else NEW
    assert content(device, names.REFRESH_TOKEN) == expected
    before = device.mark()
    device.start_daemon()
    request = device.cloud.wait_for_request("refresh", after=before)
    assert ("refresh_token", expected) in request.form
    # A leftover of the killed daemon does not prevent the next write.
    device.wait_for_access_token(after=before)
    before = device.mark()
    exchange(device, 2)
    assert device.wait_for_file(names.REFRESH_TOKEN, after=before) == NEW.encode()


@pytest.mark.parametrize(("call", "number"), WRITING)
def test_a_kill_leaves_a_whole_start_time_or_none(device: Device, call: str, number: int) -> None:
    device.provision()
    start(device, tracing(names.START_TIME, f"{call}:signal=KILL:when={number}"))
    device.record_metric("ap/clients", {}, 1)
    assert device.wait_for_exit() == -signal.SIGKILL
    written = WRITING.index((call, number)) > RENAME
    left = content(device, names.START_TIME)
    assert (left is not None) == written
    before = device.mark()
    device.start_daemon()
    device.wait_for_access_token(after=before)
    device.record_metric("ap/clients", {}, 1)
    [metric] = device.cloud.wait_for_request("metrics", after=before).json["metricPoints"]
    assert metric["metricName"] == "ap/clients"
    if written:
        assert content(device, names.START_TIME) == left
    assert int(content(device, names.START_TIME) or "") > 0


def test_a_token_beyond_the_file_size_limit_is_used_until_the_daemon_ends(device: Device) -> None:
    device.provision(OLD)
    start(device, ("prlimit", "--fsize=0"))
    exchange(device)
    device.larder.wait_for_call("Complete")
    assert device.stop_daemon() == 0
    assert content(device, names.REFRESH_TOKEN) == OLD


@pytest.mark.parametrize(("call", "number", "error"), REFUSALS)
def test_a_token_that_cannot_be_written_is_used_until_the_daemon_ends(
        device: Device, call: str, number: int, error: str) -> None:
    device.provision(OLD)
    start(device, tracing(names.REFRESH_TOKEN, f"{call}:error={error}:when={number}"))
    exchange(device)
    device.larder.wait_for_call("Complete")
    device.record_metric("ap/clients", {}, 1)
    device.cloud.wait_for_request("metrics")
    lost = (call, number) in DECISIVE and (call, number) != ("fsync", 2)
    assert content(device, names.REFRESH_TOKEN) == (OLD if lost else NEW)
    assert content(device, f"{names.REFRESH_TOKEN}.new") is None
    assert not device.event_log.events("daemon.exited")


@pytest.mark.parametrize(("call", "number", "error"), REFUSALS)
def test_a_start_time_that_cannot_be_written_aborts_the_daemon(
        device: Device, call: str, number: int, error: str) -> None:
    device.provision()
    start(device, tracing(names.START_TIME, f"{call}:error={error}:when={number}"))
    device.record_metric("ap/clients", {}, 1)
    if (call, number) not in DECISIVE:
        device.cloud.wait_for_request("metrics")
        return
    assert device.wait_for_exit() == -signal.SIGABRT
    assert message_of(device.log_lines()[-1]).startswith("FATAL Check failed")
    assert content(device, f"{names.START_TIME}.new") is None
    before = device.mark()
    device.start_daemon()
    device.wait_for_access_token(after=before)
    device.record_metric("ap/clients", {}, 1)
    device.cloud.wait_for_request("metrics", after=before)
