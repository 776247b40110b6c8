"""The Debian roots of the matrix, and the namespaces around the programs that it runs."""

import json
import os
import re
import shutil
import subprocess
import sys
import time
from collections.abc import Callable, Sequence
from pathlib import Path

import pytest

from lab.common.tree import ROOT
from lab.matrix.__main__ import Busy, alone
from lab.matrix.roots import (MAX_ROOT_AGE_DAYS, SECONDS_PER_DAY, Impossible, NotCreated, Roots,
                              is_fresh, key_of)
from lab.matrix.space import Interrupted, Runner, in_root, on_the_machine
from tests.matrix_fakes import FakeRunner, make_root

NOT_RUN = 77


@pytest.fixture
def reachable(monkeypatch: pytest.MonkeyPatch) -> None:
    """A machine on which roots can be made."""
    monkeypatch.setattr(Roots, "_check_rights", staticmethod(lambda: None))
    monkeypatch.setattr(Roots, "_mirror", staticmethod(lambda release: "http://mirror.example"))


def test_a_root_is_stale_after_changes_of_packages_or_release_or_by_age(tmp_path: Path) -> None:
    assert len({key_of("bookworm", ["g++"]), key_of("bookworm", ["g++", "git"]),
                key_of("trixie", ["g++"])}) == 3
    (tmp_path / "about.json").write_text(json.dumps({"made": 1000.0}))
    longest = MAX_ROOT_AGE_DAYS * SECONDS_PER_DAY
    assert is_fresh(tmp_path, 1000.0) and is_fresh(tmp_path, 999.0 + longest)
    assert not is_fresh(tmp_path, 1000.0 + longest)
    assert not is_fresh(tmp_path, 999.0), "made in the future"
    (tmp_path / "about.json").unlink()
    assert not is_fresh(tmp_path, 1000.0), "never finished"


def test_a_root_is_made_once_and_again_if_it_is_too_old(
        tmp_path: Path, reachable: None) -> None:
    runner = FakeRunner(make_root)
    roots = Roots(tmp_path, runner)
    root = roots.get("bookworm", ["g++"])
    assert roots.get("bookworm", ["g++"]) == root and len(runner.commands) == 1
    assert roots.get("bookworm", ["clang"]) != root and len(runner.commands) == 2
    (root / "about.json").write_text(json.dumps({"made": 0.0}))
    (root / "made").unlink()
    assert roots.get("bookworm", ["g++"]) == root and len(runner.commands) == 3
    assert (root / "made").exists()


def test_old_unused_roots_and_downloads_are_deleted(
        tmp_path: Path, reachable: None, monkeypatch: pytest.MonkeyPatch) -> None:
    roots = Roots(tmp_path, FakeRunner(make_root))
    root = roots.get("bookworm", ["g++"])
    archive = tmp_path / "apt/g++.deb"
    archive.touch()
    roots.forget_stale()
    assert root.exists() and archive.exists()
    later = time.time() + 61 * SECONDS_PER_DAY
    monkeypatch.setattr(time, "time", lambda: later)
    roots.forget_stale()
    assert not root.exists() and not archive.exists()


@pytest.mark.parametrize(("message", "verdict"), [
    ("E: Failed to fetch http://mirror.example/g++.deb", NotCreated),
    ("E: Unable to locate package g++", Impossible),
    ("E: Package g++ has no installation candidate", Impossible),
])
def test_a_root_that_cannot_be_made_leaves_nothing_and_gives_the_reason(
        tmp_path: Path, reachable: None, message: str, verdict: type[Exception]) -> None:
    def fail(argv: Sequence[str], log: Path) -> int:
        make_root(argv, log)
        log.write_text(f"I: running apt-get update...\n{message}\n")
        return 25
    with pytest.raises(verdict, match=re.escape(message)):
        Roots(tmp_path, FakeRunner(fail)).get("bookworm", ["g++"])
    assert not list((tmp_path / "roots").iterdir())


def test_an_interrupted_root_leaves_nothing(tmp_path: Path, reachable: None) -> None:
    def interrupt(argv: Sequence[str], log: Path) -> int:
        make_root(argv, log)
        raise Interrupted
    with pytest.raises(Interrupted):
        Roots(tmp_path, FakeRunner(interrupt)).get("bookworm", ["g++"])
    assert not list((tmp_path / "roots").iterdir())


def test_without_root_or_a_mirror_no_root_is_made(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    roots = Roots(tmp_path, FakeRunner(make_root))
    monkeypatch.setattr(os, "geteuid", lambda: 1000)
    with pytest.raises(NotCreated, match="^only root can make a Debian root"):
        roots.get("bookworm", ["g++"])
    monkeypatch.setattr(Roots, "_check_rights", staticmethod(lambda: None))
    monkeypatch.setenv("PELMOR_DEBIAN_MIRROR", "http://127.0.0.1:9/debian")
    with pytest.raises(NotCreated, match="^cannot reach http://127.0.0.1:9/debian"):
        roots.get("bookworm", ["g++"])


def test_a_sysroot_that_cannot_be_fetched_is_reported_as_not_run(tmp_path: Path) -> None:
    # A tree of its own has no sysroot yet.
    folder = shutil.copytree(ROOT / "packaging/cross", tmp_path / "packaging/cross")
    unreachable = "http://127.0.0.1:9/debian"
    run = subprocess.run([folder / "sysroot", "armhf"], capture_output=True, text=True, check=False,
                         env={**os.environ, "PELMOR_DEBIAN_MIRROR": unreachable})
    assert run.returncode == NOT_RUN
    assert run.stderr == (f"not run: cannot reach {unreachable} "
                          "(PELMOR_DEBIAN_MIRROR names another)\n")


# Namespaces.

def namespaces_work() -> bool:
    trial = subprocess.run([*on_the_machine(["/usr/bin/true"])], capture_output=True, check=False)
    return trial.returncode == 0


needs_namespaces = pytest.mark.skipif(
    os.geteuid() != 0 or not namespaces_work(), reason="only root can mount in a namespace here")

# A folder of every machine.
PLACE = "/mnt"
# Becomes two processes, one in a session of its own, and mounts something.
BUSY = """
mount -t tmpfs pelmor-matrix-test {place} && setsid sleep {seconds} & sleep {seconds} & \
touch {started}; wait
"""
MATRIX_ALIKE = """
import signal, sys
from pathlib import Path
from lab.matrix.space import Interrupted, Runner, on_the_machine
runner = Runner()
for number in (signal.SIGINT, signal.SIGTERM):
    signal.signal(number, lambda *_: runner.stop())
log, script = Path(sys.argv[1]), sys.argv[2]
try:
    runner.run(on_the_machine(["/bin/sh", "-c", script]), log, Path("/"))
except Interrupted:
    sys.exit(130)
"""


def processes_with(word: str) -> list[str]:
    found = []
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            line = path.read_bytes().replace(b"\0", b" ").decode(errors="replace")
        except OSError:
            continue  # It has ended.
        if word in line:
            found.append(line)
    return found


def wait_until(condition: Callable[[], object]) -> None:
    due = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < due
        time.sleep(0.01)


@needs_namespaces
@pytest.mark.parametrize("signal", ["INT", "TERM", "KILL"])
def test_an_interrupted_run_leaves_no_process_and_no_mount(tmp_path: Path, signal: str) -> None:
    # Of all the sleeping programs of the machine, no other sleeps for so long.
    seconds = f"{100000 + os.getpid()}.25"
    place, started = tmp_path / "place", tmp_path / "started"
    place.mkdir()
    script = BUSY.format(place=place, seconds=seconds, started=started)
    run = subprocess.Popen([sys.executable, "-c", MATRIX_ALIKE, tmp_path / "log", script],
                           cwd=ROOT)
    wait_until(lambda: started.exists() and len(processes_with(f"sleep {seconds}")) >= 3)
    subprocess.run(["kill", f"-{signal}", str(run.pid)], check=True)
    status = run.wait(20)
    if signal == "KILL":
        wait_until(lambda: not processes_with(seconds))
    else:
        assert status == 130
    assert not processes_with(seconds)
    assert "pelmor-matrix-test" not in Path("/proc/self/mountinfo").read_text()


@needs_namespaces
def test_a_root_is_read_only_and_has_no_network(tmp_path: Path) -> None:
    # The machine's own files in place of a Debian of the matrix.
    tree = tmp_path / "tree"
    tree.mkdir()
    script = ("touch /usr/here; touch /etc/here; cat /proc/net/dev | grep -c ':'; echo $A; id -u; "
              f"unshare --user --pid --fork --mount-proc true && touch {PLACE}/here")
    log = tmp_path / "log"
    status = Runner().run(in_root(Path("/"), {PLACE: tree}, PLACE, {"A": "value"},
                                  ["/bin/sh", "-c", script]), log, Path("/"))
    lines = log.read_text().splitlines()
    assert status == 0, lines
    assert lines[-3:] == ["1", "value", "0"]
    assert sum("Read-only file system" in line for line in lines) == 2
    assert (tree / "here").exists()


def test_a_stopped_runner_runs_nothing(tmp_path: Path) -> None:
    runner = Runner()
    runner.stop()
    with pytest.raises(Interrupted):
        runner.run(on_the_machine(["/usr/bin/true"]), tmp_path / "log", tmp_path)
    assert not (tmp_path / "log").exists()


def test_concurrent_runs_in_one_folder_are_rejected(tmp_path: Path) -> None:
    with alone(tmp_path):
        with pytest.raises(Busy, match="another ./dev matrix runs in this tree"):
            with alone(tmp_path):
                pass
    with alone(tmp_path):
        pass
