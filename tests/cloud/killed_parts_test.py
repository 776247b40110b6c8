"""Whatever the reference cloud answered with 2xx is stored once, even if its parts are killed."""

import base64
import hashlib
import os
import signal
import subprocess
import threading
import time
from collections.abc import Callable
from pathlib import Path

import pytest

from cloud.process import Cloud
from lab.common import deadlines
from lab.device.device import Device
from lab.device.external import of_the_reference
from lab.device.values import int64
from tests.cloud.client import TRANSPORT, Client, point, wait_until

pytestmark = pytest.mark.xdist_group("cloud")
_PARTS = ("postgresql", "victoria-metrics", "service")
_PERIOD_SECONDS = 0.02
_ACCEPT_SECONDS = 30
# More than a segment of PostgreSQL's log, which must stay writable.
_MOST_FILE_BYTES = 20 * 1024 * 1024
_BLOB = 1024 * 1024


class Daemon:
    """Sends numbered points and logs as the daemon does: after a transport error again, the points
    together with the new ones."""

    def __init__(self, client: Client) -> None:
        self.client = client
        self.accepted = 0
        self.transport_errors = 0
        self.statuses: set[int] = set()
        self._points: list[dict] = []
        self._count = 0
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def __enter__(self) -> "Daemon":
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._ended.set()
        self._thread.join()

    def wait_for_more(self, count: int = 10) -> None:
        """Until so many more requests are accepted."""
        wanted = self.accepted + count
        wait_until(lambda: self.accepted >= wanted, f"{count} more accepted requests")

    def _run(self) -> None:
        while not self._ended.wait(_PERIOD_SECONDS):
            self._count += 1
            end = int(time.time())
            # Two equal ones; equal points of different requests in one second would be one.
            self._points += [point(end, {"by": str(self._count % 3)}, start=1,
                                   int64Value=str(self._count))] * 2
            self._repeat(lambda: self.client.send_points(*self._points))
            self._points = []
            value = base64.urlsafe_b64encode(self._count.to_bytes(4)).decode()
            self._repeat(lambda: self.client.send_log(value))

    def _repeat(self, send: Callable[[], int]) -> None:
        """Until it is accepted."""
        due = time.monotonic() + deadlines.scaled(_ACCEPT_SECONDS)
        while time.monotonic() < due:
            try:
                self.statuses.add(send())
                self.accepted += 1
                return
            except TRANSPORT:
                self.transport_errors += 1
                threading.Event().wait(_PERIOD_SECONDS)
        raise AssertionError("a request was not accepted in time")

    def check(self) -> None:
        assert self.statuses == {200}
        samples = self.client.wait_for_samples(2 * self._count)
        assert sorted(value for _, value in samples) == sorted(
            2 * list(range(1, self._count + 1)))
        assert self.client.rows("logs", "value") == [
            [rf"\x{number.to_bytes(4).hex()}"] for number in range(1, self._count + 1)]


def kill(cloud: Cloud, part: str) -> None:
    """Returns when another process has replaced it."""
    pid = cloud.pid(part)
    os.kill(pid, signal.SIGKILL)
    wait_until(lambda: cloud.pid(part) != pid, f"another {part}")


@pytest.mark.parametrize("part", _PARTS)
def test_records_are_stored_once_when_a_part_is_killed(cloud: Cloud, client: Client,
                                                       part: str) -> None:
    with Daemon(client) as daemon:
        for _ in range(2):
            daemon.wait_for_more()
            kill(cloud, part)
        daemon.wait_for_more()
    assert (daemon.transport_errors > 0) == (part != "victoria-metrics")
    daemon.check()


def test_records_are_stored_once_when_a_process_of_the_database_is_killed(cloud: Cloud,
                                                                          client: Client) -> None:
    with Daemon(client) as daemon:
        daemon.wait_for_more()
        pid, = cloud.sql("SELECT pid FROM pg_stat_activity WHERE usename = 'cloud'"
                         " AND pid <> pg_backend_pid() LIMIT 1")
        os.kill(int(pid[0]), signal.SIGKILL)
        wait_until(lambda: daemon.transport_errors, "an effect")
        daemon.wait_for_more()
    daemon.check()


def _limit_files(cloud: Cloud, limit: str) -> None:
    """Of PostgreSQL's processes, whose files cannot grow beyond it."""
    def change(pid: str) -> None:
        try:
            cloud.run_as_owner("prlimit", "--pid", pid, f"--fsize={limit}:")
        except subprocess.CalledProcessError:
            if Path(f"/proc/{pid}").exists():
                raise

    # Later children inherit the limit of their parent.
    parent = str(cloud.pid("postgresql"))
    change(parent)
    for child in Path(f"/proc/{parent}/task/{parent}/children").read_text().split():
        change(child)


def test_a_full_database_accepts_nothing_and_loses_nothing(cloud: Cloud, client: Client) -> None:
    blobs = [base64.urlsafe_b64encode(os.urandom(_BLOB)).decode() for _ in range(30)]
    _limit_files(cloud, str(_MOST_FILE_BYTES))
    accepted = []
    try:
        for blob in blobs:
            assert client.send_log(blob) == 200
            accepted.append(blob)
    except TRANSPORT:
        pass
    finally:
        _limit_files(cloud, "unlimited")
    assert 0 < len(accepted) < len(blobs)
    assert "File too large" in cloud.log("postgresql")
    for blob in blobs[len(accepted):]:
        assert client.send_log(blob) == 200
    assert client.rows("logs", "md5(value)") == [
        [hashlib.md5(base64.urlsafe_b64decode(blob)).hexdigest()] for blob in blobs]


def test_a_daemon_loses_no_record_when_each_part_is_killed(cloud: Cloud) -> None:
    name = f"ap/faults/{os.urandom(4).hex()}"
    device_id = f"device-{os.urandom(4).hex()}"
    with Device(cloud=of_the_reference(cloud)) as device:
        device.larder.register(device_id)
        device.start_daemon()
        device.larder.add_credentials_command(code=cloud.provision(device_id))
        device.larder.wait_for_call("Complete")
        count = 0
        for part in _PARTS:
            for _ in range(3):
                before = device.mark()
                device.record_metrics([(name, {}, int64(count + number)) for number in range(20)])
                device.record_structured("type.example/Event", count.to_bytes(4))
                count += 20
                device.larder.wait_for_call("CheckDeviceRegistered", after=before, count=2)
            kill(cloud, part)
        wait_for_all(cloud, device_id, count)
    assert cloud.sql(f"SELECT value FROM logs WHERE device = '{device_id}' ORDER BY id") == [
        [rf"\x{number.to_bytes(4).hex()}"] for number in range(0, count, 20)]


def wait_for_all(cloud: Cloud, device_id: str, count: int) -> None:
    """The points with the values up to `count`, each once."""
    client = Client(cloud, device_id)
    values = [value for _, value in client.wait_for_samples(count)]
    assert sorted(values) == list(range(count))


def test_samples_that_a_killed_store_had_only_in_memory_are_sent_again(cloud: Cloud,
                                                                       client: Client) -> None:
    end = int(time.time())
    for number in range(3):
        assert client.send_points(point(end, start=1, int64Value=str(number))) == 200
        wait_until(lambda: client.rows("journal", "sent_to IS NOT NULL")[-1] == ["t"],
                   "the import")
        kill(cloud, "victoria-metrics")
    assert [value for _, value in client.wait_for_samples(3)] == [0, 1, 2]
