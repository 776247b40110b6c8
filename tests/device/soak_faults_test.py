"""Each fault of the soak run by itself."""

import pytest

from lab.device.device import Device
from lab.soak.faults import FAULTS, Fault
from lab.soak.load import Load, uploaded

# A refresh of the token may have to wait for 30 seconds after the last.
_DEADLINE = 40.0


@pytest.mark.parametrize("fault", FAULTS, ids=[fault.name for fault in FAULTS])
def test_uploads_continue_after_a_fault_is_repaired(device: Device, fault: Fault) -> None:
    device.provision()
    device.start_daemon()
    device.wait_for_access_token()
    fault.happen(device)
    fault.undo(device)
    Load(device).batch(0.0)
    device.event_log.wait_until(lambda: uploaded(device), "an upload", deadline=_DEADLINE)
    assert not device.event_log.events("daemon.exited")
