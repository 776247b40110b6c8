"""The device's system bus, at its real path."""

import asyncio
import os
from pathlib import Path

from lab import names
from lab.inside.part import Tell, verb

ADDRESS = "unix:path=/run/dbus/system_bus_socket"
_CONFIGURATION_FILE = Path("/run/dbus/system.conf")
_CONFIGURATION = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  %LISTEN%
  <auth>EXTERNAL</auth>%ACCESS%
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
"""


class Bus:
    def __init__(self, tell: Tell) -> None:
        self._tell = tell

    async def start(self) -> None:
        """Returns when the bus takes connections; again after `stop`."""
        _CONFIGURATION_FILE.parent.mkdir(parents=True, exist_ok=True)
        _CONFIGURATION_FILE.write_text(_own_configuration())
        read_end, write_end = os.pipe()
        self._process = await asyncio.create_subprocess_exec(
            "dbus-daemon", f"--config-file={_CONFIGURATION_FILE}", "--nofork", "--nopidfile",
            f"--print-address={write_end}", pass_fds=[write_end])
        os.close(write_end)
        with os.fdopen(read_end) as address:
            # It writes its address when it listens, or closes the pipe when it can't.
            if not await asyncio.to_thread(address.readline):
                raise RuntimeError("the bus did not start")
        self._tell("bus.started")

    @verb
    async def stop(self) -> None:
        """Ends the bus, and with it every connection to it."""
        self._process.kill()
        await self._process.wait()
        self._tell("bus.stopped")


def configuration(places: list[str], access: str = "") -> str:
    """That of a bus that listens at these addresses; with `access`, to more than its own user."""
    listen = "\n  ".join(f"<listen>{place}</listen>" for place in places)
    return _CONFIGURATION.replace("%LISTEN%", listen).replace("%ACCESS%", access)


def _own_configuration() -> str:
    # For the machine's programs there is a socket in a folder of the machine, where one was given.
    places, access = [ADDRESS], ""
    if Path(names.HOST_FOLDER).is_dir():
        places.append(f"unix:path={names.HOST_FOLDER}/{names.HOST_BUS}")
        # Whose user has another number there than root's here.
        access = "<auth>ANONYMOUS</auth><allow_anonymous/>"
    return configuration(places, access)
