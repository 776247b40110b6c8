"""Runs `pelmorctl` on a device; its exit statuses, and the texts of its advice."""

from lab.common import names
from lab.device.device import Device, Run

OK = 0
FAILED = 1

INTERVAL = "PELMOR_UPLOAD_INTERVAL_IN_SECONDS"
FOR_PELMOR = "(checked for pelmor, the daemon's intended user)"


def ctl(device: Device, *arguments: str) -> Run:
    return device.run(names.TOOL_PROGRAM, *arguments)


def shell(device: Device, command: str) -> Run:
    return device.run("env", "PATH=/opt/ap:/usr/bin", "sh", "-c", command)


def add_daemons_user(device: Device) -> None:
    """Adds the user that the package creates; the daemon of the lab still runs as root."""
    device.write_file("/etc/passwd", "root:x:0:0:root:/:/bin/sh\npelmor:x:998:998::/:/bin/false\n")
    device.write_file("/etc/group", "root:x:0:\npelmor:x:998:\n")


def make_readable(path: str) -> str:
    """The advice for a file with a secret."""
    return f"run 'chown pelmor {path} && chmod 0400 {path}'"


def assert_silent_success(run: Run) -> None:
    assert run == Run(OK, "", "")
