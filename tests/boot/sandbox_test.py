"""The limits of an intruder in the daemon's process: a probe runs in the unit's sandbox, and again
without the setting that denies it."""

import re
import subprocess
from collections.abc import Sequence
from pathlib import Path

import pytest

from lab.common import names
from tests.boot.booted_device import RUN_FOLDER, BootedDevice

SOURCE = Path(__file__).resolve().parent / "probe.c"
# In a folder whose files can be executed, like the daemon's.
PROBE = "/usr/lib/ap-pelmor-probe"
UNIT_FILE = "/usr/lib/systemd/system/ap-pelmor.service"
COPY = "/run/systemd/system/probe.service"
RESULTS = "/run/probe-results"
FOREIGN_KEY = 0x70656C6D

# By probe, its error in the unit's sandbox.
BY_CALLS = dict.fromkeys((
    "io_uring", "aio", "keyring", "listen", "accept", "accept4", "shared memory", "message queue",
    "semaphore", "posix queue", "process_vm_readv", "process_vm_writev", "memory file", "execveat",
), "EPERM")
BY_WRITTEN_FILES = {"written file": "EACCES", "mapped file": "EPERM"}
BY_MOUNTS = {
    "shell": "EACCES",
    # The loader starts, can't map the shell and fails.
    "shell by the loader": "ECHILD",
    **BY_WRITTEN_FILES,
}
BY_LIMITS = {"large file": "EFBIG"}
# The first byte beyond LimitFSIZE=.
LARGEST_FILE = 2 * 1024 * 1024
WITHOUT_CALLS = ("SystemCallFilter=",)
WITHOUT_MOUNTS = ("NoExecPaths=", "ExecPaths=")
WITHOUT_LIMITS = ("LimitFSIZE=infinity",)

# The unit itself, with another program.
DROP_IN = """\
[Service]
Type=oneshot
Restart=no
WatchdogSec=0
StandardOutput=append:{results}
ExecStart=
{starts}
{changes}
"""
MAKE_FOREIGN_QUEUE = f"""
import ctypes
assert ctypes.CDLL(None).msgget({FOREIGN_KEY}, 0o1666) != -1
"""


def loader() -> str:
    headers = subprocess.run(["readelf", "-lW", "/usr/bin/env"], check=True, capture_output=True,
                             text=True).stdout
    match = re.search(r"program interpreter: (\S+)\]", headers)
    assert match
    return match[1]


@pytest.fixture(scope="module", autouse=True)
def probe(device: BootedDevice, tmp_path_factory: pytest.TempPathFactory) -> None:
    program = tmp_path_factory.mktemp("probe") / "probe"
    subprocess.run(["gcc", "-static", "-Wall", "-Wextra", "-Werror", f'-DLOADER="{loader()}"',
                    f"-DFOREIGN_KEY={FOREIGN_KEY}", f"-DLARGEST_FILE={LARGEST_FILE}", SOURCE,
                    "-o", program], check=True)
    device.file(PROBE).write_bytes(program.read_bytes())
    device.file(PROBE).chmod(0o755)
    made = device.run("/usr/bin/python3", "-c", MAKE_FOREIGN_QUEUE)
    assert made.code == 0, made


def results(device: BootedDevice, probes: Sequence[str], *changes: str,
            folder: str = names.STATE_FOLDER) -> dict[str, str]:
    """The results of the probes in the unit's sandbox, with some settings changed."""
    drop_in = device.file(f"{COPY}.d/probe.conf")
    drop_in.parent.mkdir(parents=True, exist_ok=True)
    device.file(COPY).write_text(device.file(UNIT_FILE).read_text())
    drop_in.write_text(DROP_IN.format(
        results=RESULTS, changes="\n".join(changes),
        starts="\n".join(f'ExecStart={PROBE} "{name}" {folder}' for name in probes)))
    device.file(RESULTS).unlink(missing_ok=True)
    device.run("systemctl", "daemon-reload")
    run = device.run("systemctl", "start", "probe.service")
    assert run.code == 0, run
    return dict(zip(probes, device.file(RESULTS).read_text().splitlines(), strict=True))


def all_possible(probes: Sequence[str]) -> dict[str, str]:
    return dict.fromkeys(probes, "possible")


def test_the_sandbox_denies_every_probe(device: BootedDevice) -> None:
    denied = {**BY_CALLS, **BY_MOUNTS, **BY_LIMITS}
    assert results(device, [*denied, "nothing"]) == {**denied, "nothing": "possible"}


def test_the_system_call_filter_denies_its_probes(device: BootedDevice) -> None:
    assert results(device, list(BY_CALLS), *WITHOUT_CALLS) == all_possible(BY_CALLS)


def test_mounts_without_execution_deny_their_probes(device: BootedDevice) -> None:
    assert results(device, list(BY_MOUNTS), *WITHOUT_MOUNTS) == all_possible(BY_MOUNTS)


@pytest.mark.parametrize("folder", [names.STATE_FOLDER, RUN_FOLDER])
def test_a_limit_denies_large_files(device: BootedDevice, folder: str) -> None:
    probes = list(BY_LIMITS)
    assert results(device, probes, folder=folder) == BY_LIMITS
    assert results(device, probes, *WITHOUT_LIMITS, folder=folder) == all_possible(probes)


@pytest.mark.parametrize("folder", [RUN_FOLDER, names.RUN_FOLDER])
def test_no_file_of_the_run_folder_can_be_executed(device: BootedDevice, folder: str) -> None:
    probes = list(BY_WRITTEN_FILES)
    assert results(device, probes, folder=folder) == BY_WRITTEN_FILES
    assert results(device, probes, *WITHOUT_MOUNTS, folder=folder) == all_possible(probes)


def test_foreign_queues_are_out_of_reach_even_without_the_filter(device: BootedDevice) -> None:
    queue = ["foreign queue"]
    assert results(device, queue, *WITHOUT_CALLS) == {queue[0]: "ENOENT"}
    assert results(device, queue, *WITHOUT_CALLS, "PrivateIPC=no") == all_possible(queue)
