"""The program that serves a device's system bus: `PELMOR_BUS` selects it, here and nowhere else.

Either program serves a socket that it inherits, which it calls activation by socket, and reports to
its supervisor's socket when it is ready."""

import enum
import os
import shutil
from collections.abc import Mapping

from lab.common.errors import LabError

VARIABLE = "PELMOR_BUS"
# The socket is expected at descriptor 3, and the variable names the process that it is meant for.
_HAND_OVER = 'exec 3<&0 </dev/null; export LISTEN_FDS=1 LISTEN_PID=$$; exec "$@"'


class SystemBus(enum.StrEnum):
    """By the name of its Debian package."""

    DBUS_DAEMON = "dbus-daemon"
    DBUS_BROKER = "dbus-broker"

    @property
    def program(self) -> str:
        # The broker itself expects a controller, which the launcher is.
        return "dbus-broker-launch" if self is SystemBus.DBUS_BROKER else self.value

    def command(self, configuration: str) -> list[str]:
        """The command line of the bus; its standard input is the socket on which it listens."""
        options = {SystemBus.DBUS_DAEMON: ["--address=systemd:", "--nofork", "--nopidfile",
                                           f"--config-file={configuration}"],
                   SystemBus.DBUS_BROKER: ["--scope", "system", "--config-file", configuration]}
        return ["/bin/sh", "-c", _HAND_OVER, "sh", self.program, *options[self]]


def chosen(environment: Mapping[str, str] = os.environ) -> SystemBus:
    """What `PELMOR_BUS` names, dbus-daemon by default."""
    name = environment.get(VARIABLE, SystemBus.DBUS_DAEMON.value)
    try:
        return SystemBus(name)
    except ValueError:
        known = " or ".join(SystemBus)
        raise LabError(f"{VARIABLE} is '{name}', which is not a bus; use {known}") from None


def installed() -> list[SystemBus]:
    """The buses of this machine."""
    return [bus for bus in SystemBus if shutil.which(bus.program)]


def check(bus: SystemBus) -> None:
    """Raises a `LabError` if this machine does not have the bus."""
    if bus not in installed():
        raise LabError(f"The lab needs {bus.program}: install the Debian package {bus}")
