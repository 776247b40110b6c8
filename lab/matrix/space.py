"""Namespaces around the programs of a row, made by bubblewrap: all mounts and processes end with
the first process, even if that is killed.

bubblewrap mounts the root as the root of the namespace, without a chroot. So user namespaces, and
with them the lab's own sandboxes, can be made inside."""

import json
import os
import select
import subprocess
from collections.abc import Mapping, Sequence
from pathlib import Path

# Its exit ends all other processes.
_OWN_PROCESSES = ("bwrap", "--die-with-parent", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
                  "--cap-add", "ALL")
# bubblewrap's own /proc has covered parts, which prevents nested namespaces from mounting one.
_WITH_PROC = ("/bin/sh", "-c", 'mount -t proc proc /proc && exec "$@"', "sh")


class Interrupted(Exception):
    """The run must end; callers clean up."""


class Runner:
    """Runs one program at a time; `stop` may be called from a signal handler."""

    def __init__(self) -> None:
        self._process: subprocess.Popen | None = None
        self._stopped = False

    def stop(self) -> None:
        """Ends the running program and prevents further ones."""
        self._stopped = True
        process = self._process
        if process:
            process.kill()

    def check(self) -> None:
        """Raises `Interrupted` after `stop`."""
        if self._stopped:
            raise Interrupted

    def run(self, argv: Sequence[str], log: Path, folder: Path,
            environment: Mapping[str, str] | None = None) -> int:
        """The exit status of the command, which runs in `folder`; what it writes is added to `log`.
        Returns when every process of its namespace has ended."""
        self.check()
        told, tell = os.pipe()
        with log.open("ab") as output:
            # In a new session, so that the terminal interrupts only this process.
            self._process = subprocess.Popen(
                [*argv[:1], "--info-fd", str(tell), *argv[1:]], cwd=folder,
                stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                pass_fds=[tell], start_new_session=True,
                env=dict(os.environ if environment is None else environment))
        os.close(tell)
        if self._stopped:
            self._process.kill()
        first = _first_process(told)
        status = self._process.wait()
        self._process = None
        if first is not None:
            select.select([first], [], [])
            os.close(first)
        self.check()
        return status


def _first_process(told: int) -> int | None:
    """A descriptor that becomes readable when the first process of the namespace has ended, and
    with it all others; None if there is no such process. Closes `told`.

    The kernel closes the files of the first process before it ends the others, so the end of a
    pipe that the first process holds says too little."""
    with os.fdopen(told) as info:
        text = info.read()
    if not text:
        return None
    try:
        return os.pidfd_open(json.loads(text)["child-pid"])
    except ProcessLookupError:
        return None


def on_the_machine(argv: Sequence[str]) -> list[str]:
    """A command with the machine's own files, whose mounts and processes end with it."""
    return [*_OWN_PROCESSES, "--dev-bind", "/", "/", *_WITH_PROC, *argv]


def in_root(root: Path, binds: Mapping[str, Path], folder: str, environment: Mapping[str, str],
            argv: Sequence[str]) -> list[str]:
    """A command in a read-only Debian root. Only the folders in `binds`, by their paths in the
    root, are writable. The network is a loopback interface."""
    mounts = [word for place, source in binds.items() for word in ("--bind", str(source), place)]
    variables = [word for name, value in environment.items() for word in ("--setenv", name, value)]
    return [*_OWN_PROCESSES, "--unshare-net", "--hostname", "matrix",
            "--ro-bind", str(root), "/", "--dev", "/dev", "--tmpfs", "/tmp", "--tmpfs", "/run",
            "--tmpfs", "/var/tmp", "--tmpfs", "/root", *mounts, "--chdir", folder, "--clearenv",
            "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin", "--setenv", "HOME", "/root",
            "--setenv", "LANG", "C.UTF-8", *variables, *_WITH_PROC, *argv]
