"""Namespaces around the programs of a row, made by bubblewrap: mounts and processes of their own,
of which nothing is left when the first process ends, however it ends.

Inside a root bubblewrap has changed the root itself and not the process's view of it, so user
namespaces, and with them the lab's own sandboxes, can be made there."""

import os
import subprocess
from collections.abc import Mapping, Sequence
from pathlib import Path

# Its end ends all others.
_OWN_PROCESSES = ("bwrap", "--die-with-parent", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
                  "--cap-add", "ALL")
# bubblewrap's own /proc has parts that are covered, and then no namespace below could mount one.
_WITH_PROC = ("/bin/sh", "-c", 'mount -t proc proc /proc && exec "$@"', "sh")


class Interrupted(Exception):
    """The run is to end; what was begun is cleaned up on the way."""


class Runner:
    """Runs programs, one at a time; may be stopped from a signal's handler."""

    def __init__(self) -> None:
        self._process: subprocess.Popen | None = None
        self._stopped = False

    def stop(self) -> None:
        """Ends the program that runs, and lets no other start."""
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
        alive, held = os.pipe()
        with log.open("ab") as output:
            # In a session of its own: the terminal's interrupt is for us to handle.
            self._process = subprocess.Popen(
                [*argv[:1], "--sync-fd", str(held), *argv[1:]], cwd=folder,
                stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                pass_fds=[held], start_new_session=True,
                env=dict(os.environ if environment is None else environment))
        os.close(held)
        if self._stopped:
            self._process.kill()
        status = self._process.wait()
        self._process = None
        # The first process of the namespace holds the other end, and is the last to go.
        os.read(alive, 1)
        os.close(alive)
        self.check()
        return status


def on_the_machine(argv: Sequence[str]) -> list[str]:
    """A command with the machine's own files, whose mounts and processes end with it."""
    return [*_OWN_PROCESSES, "--dev-bind", "/", "/", *_WITH_PROC, *argv]


def in_root(root: Path, binds: Mapping[str, Path], folder: str, environment: Mapping[str, str],
            argv: Sequence[str]) -> list[str]:
    """A command in a Debian root, which stays as it is: only the folders in `binds`, by where they
    are seen, keep what is written. There is no network but a loopback of its own."""
    mounts = [word for place, source in binds.items() for word in ("--bind", str(source), place)]
    variables = [word for name, value in environment.items() for word in ("--setenv", name, value)]
    return [*_OWN_PROCESSES, "--unshare-net", "--hostname", "matrix",
            "--ro-bind", str(root), "/", "--dev", "/dev", "--tmpfs", "/tmp", "--tmpfs", "/run",
            "--tmpfs", "/var/tmp", "--tmpfs", "/root", *mounts, "--chdir", folder, "--clearenv",
            "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin", "--setenv", "HOME", "/root",
            "--setenv", "LANG", "C.UTF-8", *variables, *_WITH_PROC, *argv]
