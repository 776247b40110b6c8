"""The sandbox around a device, made by bubblewrap: the device has its own users, files, processes
and network, and no access to those of the host."""

import compileall
import functools
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

from lab.common import deadlines, names
from lab.common.architectures import Architecture, of_program
from lab.common.errors import LabError
from lab.common.tree import ROOT
from lab.device import emulation, system_bus

_LAB = ROOT / "lab"

_HOW_TO_ALLOW = """\
The lab needs unprivileged user namespaces. Where they are switched off, root allows them with
  sysctl -w kernel.unprivileged_userns_clone=1                (some Debian kernels)
  sysctl -w user.max_user_namespaces=10000
  sysctl -w kernel.apparmor_restrict_unprivileged_userns=0    (kernels with that AppArmor rule)
and in a container its security profile must allow them too."""

# Read-only parts of the host: its programs and libraries, and their configuration.
_MACHINE = ("--ro-bind", "/usr", "/usr",
            "--symlink", "usr/bin", "/bin", "--symlink", "usr/sbin", "/sbin",
            "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64",
            # Readable by all users; bubblewrap would create them as 0700.
            "--dir", "/etc", "--dir", "/var",
            "--ro-bind-try", "/etc/ld.so.cache", "/etc/ld.so.cache",
            "--ro-bind-try", "/etc/ssl/openssl.cnf", "/etc/ssl/openssl.cnf",
            "--symlink", "/run", "/var/run",
            "--proc", "/proc", "--dev", "/dev")

# Root inside, with no capability except to bind the HTTPS port.
_RIGHTS = ("--unshare-user", "--unshare-pid", "--unshare-net", "--unshare-ipc", "--unshare-uts",
           "--hostname", "access-point", "--uid", "0", "--gid", "0",
           "--cap-drop", "ALL", "--cap-add", "CAP_NET_BIND_SERVICE",
           "--die-with-parent", "--new-session", "--clearenv",
           "--setenv", "PATH", "/usr/sbin:/usr/bin", "--setenv", "LANG", "C.UTF-8",
           "--setenv", "PELMOR_DEADLINE_FACTOR", str(deadlines.FACTOR))


@functools.cache
def check() -> None:
    """Raises a `LabError` with a remedy if this machine cannot run a device."""
    if not shutil.which("bwrap"):
        raise LabError("The lab needs bubblewrap: install the Debian package bubblewrap")
    trial = subprocess.run(["bwrap", *_RIGHTS, *_MACHINE, "/usr/bin/true"], capture_output=True,
                           text=True, check=False)
    if trial.returncode != 0:
        raise LabError(f"No sandbox on this machine: {trial.stderr.strip()}\n{_HOW_TO_ALLOW}")


@functools.cache
def compile_modules() -> None:
    """The sandbox sees the lab's modules read-only. Without compiled modules each device would
    compile them again, which is a quarter of its start time."""
    compileall.compile_dir(_LAB, quiet=2)


@functools.cache
def _built() -> tempfile.TemporaryDirectory:
    return tempfile.TemporaryDirectory(prefix="pelmor-lab-")


@functools.cache
def clock_shift_library(architecture: Architecture | None = None) -> Path:
    """The library that moves the clocks of a daemon for that architecture (None: the machine's);
    built on its first use in this process."""
    library = Path(_built().name) / f"clock_shift-{architecture.name if architecture else 'own'}.so"
    subprocess.run([*emulation.compiler(architecture), "-std=c11", "-O2", "-fPIC", "-shared",
                    "-o", library, _LAB / "device/clock_shift.c"], check=True)
    return library


def around(program: list[str], binds: list[str]) -> list[str]:
    """The command line of a sandbox with only the host's programs and `binds`."""
    return ["bwrap", *_RIGHTS, *_MACHINE, *binds, *program]


def _programs_of(daemon: Path) -> dict[str, Path]:
    # pelmorctl of the same build, if it is built.
    tool = daemon.parent.parent.parent / "pelmorctl/pelmorctl"
    return {names.DAEMON_PROGRAM: daemon} | ({names.TOOL_PROGRAM: tool} if tool.is_file() else {})


def command(daemon: Path, links: tuple[int, int], movable_clocks: bool,
            folders: dict[str, Path], may_trace: bool,
            shared_folder: Path | None = None) -> list[str]:
    """The command line of a device around `daemon`; `links` are descriptors that it inherits,
    `folders` are folders of the machine by where they are to be seen, and into `shared_folder` it
    may write."""
    rights = [*_RIGHTS, *(("--cap-add", "CAP_SYS_PTRACE") if may_trace else ()),
              "--setenv", system_bus.VARIABLE, system_bus.chosen()]
    binds = ["--ro-bind", str(_LAB), f"{names.LAB_FOLDER}/lab",
             *emulation.binds_of_programs(_programs_of(daemon), Path(_built().name))]
    # Where programs with coverage instrumentation write their counts.
    if counts := os.environ.get("PELMOR_COVERAGE"):
        binds += ["--bind", counts, counts]
    if movable_clocks:
        library = clock_shift_library(of_program(daemon))
        binds += ["--ro-bind", str(library), names.CLOCK_SHIFT_LIBRARY]
    for place, folder in folders.items():
        binds += ["--ro-bind", str(folder), place]
    if shared_folder:
        binds += ["--bind", str(shared_folder), names.HOST_FOLDER]
    return ["bwrap", *rights, *_MACHINE, *binds, "--chdir", names.LAB_FOLDER,
            "/usr/bin/python3", "-B", "-s", "-m", "lab.device.inside", *map(str, links)]
