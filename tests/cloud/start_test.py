"""Starts and stops of the reference cloud."""

import json
import os
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import urllib.request
from collections.abc import Iterator
from pathlib import Path
from urllib.parse import urlencode

import pytest

from cloud.process import Cloud, is_ready
from lab.common import deadlines
from lab.common.tree import ROOT
from tests.cloud.client import Client, wait_until

pytestmark = pytest.mark.xdist_group("cloud")
# Tests that start another cloud need not wait for those of the common one.
with_own_cloud = pytest.mark.xdist_group("own cloud")
_PARTS = ("postgresql", "victoria-metrics", "service")
_FREE = ("--port", "0", "--query-port", "0")
# Starts a cloud whose parent it is, and waits for it.
_PARENT = ("import os, subprocess, sys\n"
           "subprocess.run([*sys.argv[1:], '--parent', str(os.getpid())])")


@pytest.fixture
def folder() -> Iterator[Path]:
    """In one that the user whom root becomes can reach, unlike pytest's."""
    with tempfile.TemporaryDirectory(prefix="pelmor-cloud-") as parent:
        os.chmod(parent, 0o711)
        yield Path(parent) / "data"


def command(data: Path, *options: str) -> list[str]:
    return [sys.executable, "-m", "cloud", "--data", str(data), *options]


def rejection(data: Path, *options: str) -> str:
    """Why the cloud does not start."""
    done = subprocess.run(command(data, *options), cwd=ROOT, capture_output=True, text=True,
                          check=False, timeout=deadlines.scaled(30))
    assert (done.returncode, done.stdout) == (1, "")
    return done.stderr


def start(argv: list[str]) -> subprocess.Popen:
    """Returns when it is ready."""
    process = subprocess.Popen(argv, cwd=ROOT, stdout=subprocess.PIPE, text=True,
                               start_new_session=True)
    assert is_ready(process)
    return process


def pids(data: Path) -> list[int]:
    return [int((data / f"run/{part}.pid").read_text()) for part in _PARTS]


def have_ended(processes: list[int]) -> bool:
    """A zombie, which is its new parent's, has no arguments."""
    def is_alive(pid: int) -> bool:
        try:
            return bool(Path(f"/proc/{pid}/cmdline").read_bytes())
        except OSError:
            return False

    return not any(map(is_alive, processes))


def test_a_folder_has_one_cloud(cloud: Cloud) -> None:
    before = cloud.pid("service"), cloud.authority.read_bytes()
    assert f"another cloud runs on {cloud.data}" in rejection(cloud.data, *_FREE)
    assert (cloud.pid("service"), cloud.authority.read_bytes()) == before


@pytest.mark.parametrize(("taken", "other"), [("--port", "--query-port"),
                                              ("--query-port", "--port")])
def test_a_port_in_use_is_not_taken_for_the_clouds(tmp_path: Path, taken: str, other: str) -> None:
    with socket.create_server(("127.0.0.1", 0)) as listener:
        port = str(listener.getsockname()[1])
        reason = rejection(tmp_path / "data", taken, port, other, "0")
    assert "Address already in use" in reason and f"choose another with {taken}" in reason
    assert not (tmp_path / "data").exists()


@pytest.mark.parametrize(("options", "reason"), [
    (("--port", "99999"), "choose another with --port"),
    (("--address", "192.0.2.1"), "Cannot assign requested address"),
    (("--certificate", "/nowhere"), "no private key with its certificates in /nowhere"),
    (("--certificate", __file__), "no private key with its certificates in ")])
def test_wrong_options_are_rejected_at_once(tmp_path: Path, options: tuple[str, ...],
                                            reason: str) -> None:
    assert reason in rejection(tmp_path / "data", *_FREE, *options)


def test_a_folder_with_other_files_keeps_its_owner() -> None:
    before = os.stat("/")
    assert "/ does not belong to the user" in rejection(Path("/"), *_FREE)
    assert (os.stat("/").st_uid, os.stat("/").st_mode) == (before.st_uid, before.st_mode)


def test_a_code_is_for_a_cloud_that_runs(folder: Path) -> None:
    assert "No such file" in rejection(folder, "provision", "device")
    assert not folder.exists()


def test_a_folder_is_relative_to_the_callers(tmp_path: Path) -> None:
    done = subprocess.run([ROOT / "dev", "cloud", "provision", "device", "--data", "data"],
                          cwd=tmp_path, capture_output=True, text=True, check=False)
    assert str(tmp_path / "data") in done.stderr


def test_clients_wait_while_the_service_is_replaced(cloud: Cloud, client: Client) -> None:
    service = cloud.pid("service")
    os.kill(service, signal.SIGKILL)
    client.reconnect()
    assert client.send_log() == 200
    assert cloud.pid("service") != service


@with_own_cloud
def test_an_interrupted_check_leaves_nothing(folder: Path) -> None:
    check = subprocess.Popen([sys.executable, "-m", "cloud.conformance"], cwd=ROOT,
                             env=os.environ | {"TMPDIR": str(folder.parent)})
    wait_until(lambda: list(folder.parent.glob("*/data/log")), "a cloud that starts")
    check.send_signal(signal.SIGTERM)
    assert check.wait(deadlines.scaled(60)) == 130
    assert list(folder.parent.iterdir()) == []


def exchange(data: Path, code: str) -> str:
    """The access token that the running cloud gives for a code."""
    addresses = json.loads((data / "run/addresses.json").read_text())
    form = {"code": code, "client_id": addresses["client_id"], "redirect_uri": "oob", "scope": "",
            "client_secret": (data / "client_secret").read_text(),
            "grant_type": "authorization_code"}
    context = ssl.create_default_context(cafile=str(data / "ca.pem"))
    with urllib.request.urlopen(addresses["token"], urlencode(form).encode(),
                                context=context) as answer:
        return json.load(answer)["access_token"]


def as_owner(data: Path, *argv: str) -> list[str]:
    owner = data.stat()
    change = ["setpriv", "--reuid", str(owner.st_uid), "--regid", str(owner.st_gid),
              "--clear-groups"] if os.getuid() == 0 else []
    return [*change, *argv]


@with_own_cloud
def test_data_are_kept_and_nothing_is_left_running(folder: Path) -> None:
    # Of an initialization that a power failure ended.
    rest = folder / "postgresql.new/rest"
    rest.mkdir(parents=True)
    if os.getuid() == 0:
        for path in (folder, rest.parent, rest):
            shutil.chown(path, "postgres")
    first = start(command(folder, *_FREE, "--no-fsync"))
    authority = (folder / "ca.pem").read_bytes()
    code = subprocess.run(command(folder, "provision", "device"), cwd=ROOT, check=True, text=True,
                          stdout=subprocess.PIPE).stdout.strip()
    parts = pids(folder)
    first.send_signal(signal.SIGINT)
    assert first.wait(deadlines.scaled(60)) == 0
    assert have_ended(parts)

    # After a power failure another process can have the number of the earlier PostgreSQL.
    other = subprocess.Popen(as_owner(folder, "sleep", "600"))
    (folder / "postgresql/postmaster.pid").write_text(f"{other.pid}\n")
    parent = start([sys.executable, "-c", _PARENT,
                    *command(folder, *_FREE, "--no-fsync", "--name", "cloud.example")])
    assert exchange(folder, code)
    assert (folder / "ca.pem").read_bytes() == authority
    parts = pids(folder)
    parent.kill()
    wait_until(lambda: have_ended(parts), "the end of the cloud without its parent")
    other.kill()
    for process in (parent, other):
        process.wait()
