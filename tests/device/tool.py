"""`pelmorctl` on a device: how tests run it, what it exits with, and what they break."""

from lab import names
from lab.device import Device, Run

OK = 0
FAILED = 1
EX_USAGE = 64
EX_UNAVAILABLE = 69

BUS_SOCKET = "/run/dbus/system_bus_socket"
INTERVAL = "PELMOR_UPLOAD_INTERVAL_IN_SECONDS"


def ctl(device: Device, *arguments: str) -> Run:
    return device.run(names.TOOL_PROGRAM, *arguments)


def shell(device: Device, command: str) -> Run:
    return device.run("env", "PATH=/opt/ap:/usr/bin", "sh", "-c", command)


def assert_silent_success(run: Run) -> None:
    assert run == Run(OK, "", "")
