"""The device's system bus, at its real path."""

import asyncio
import os
from pathlib import Path

from lab.inside.part import verb

ADDRESS = "unix:path=/run/dbus/system_bus_socket"
_CONFIGURATION_FILE = Path("/run/dbus/system.conf")
_CONFIGURATION = f"""\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>{ADDRESS}</listen>
  <auth>EXTERNAL</auth>
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
    async def start(self) -> None:
        """Returns when the bus takes connections."""
        _CONFIGURATION_FILE.parent.mkdir(parents=True)
        _CONFIGURATION_FILE.write_text(_CONFIGURATION)
        read_end, write_end = os.pipe()
        self._process = await asyncio.create_subprocess_exec(
            "dbus-daemon", f"--config-file={_CONFIGURATION_FILE}", "--nofork", "--nopidfile",
            f"--print-address={write_end}", pass_fds=[write_end])
        os.close(write_end)
        with os.fdopen(read_end) as address:
            # It writes its address when it listens, or closes the pipe when it can't.
            if not await asyncio.to_thread(address.readline):
                raise RuntimeError("the bus did not start")

    @verb
    async def stop(self) -> None:
        """Ends the bus for good, and with it every connection to it."""
        self._process.kill()
        await self._process.wait()
