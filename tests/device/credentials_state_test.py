"""The credentials state that the daemon publishes to Larder."""

import pytest

from lab.common import names
from lab.device.device import Device
from lab.device.events import Event
from lab.device.values import plain
from tests.device.helpers import (COMMAND, calls_of_larder, catch_up, messages, settled_mark, start,
                                  start_ticking, tick, wait_for_message)

pytestmark = pytest.mark.movable_clocks


def nonces(device: Device, after: Event | None = None) -> list[int]:
    return [plain(call["arguments"][0])[names.CREDENTIALS_STATE]["_nonce"]
            for call in device.larder.calls("UpdateState", after)]


def test_without_credentials_each_tick_publishes_a_fresh_state(device: Device) -> None:
    start(device)
    first = nonces(device)
    for _ in range(3):
        device.move_clocks(wall=100)
        tick(device)
    found = nonces(device)
    assert len(first) == 1 and len(found) == 4
    assert [later - earlier >= 100 for earlier, later in zip(found, found[1:])] == [True] * 3, found
    assert all(later - earlier <= 110 for earlier, later in zip(found, found[1:])), found


def test_after_2038_each_tick_still_publishes_a_fresh_state(device: Device) -> None:
    start(device)
    twenty_years = 20 * 365 * 24 * 3600
    device.move_clocks(wall=twenty_years)
    before = settled_mark(device)
    for _ in range(2):
        device.move_clocks(wall=100)
        tick(device)
    found = nonces(device, before)
    assert len(found) == 2 and found[1] - found[0] >= 100, found
    # The 32-bit number has wrapped.
    assert all(nonce < 0 for nonce in found), found


@pytest.mark.parametrize("provisioned", [True, False])
def test_each_new_manager_makes_the_daemon_publish_its_state(
        device: Device, provisioned: bool) -> None:
    if provisioned:
        start_ticking(device)
    else:
        start(device)
    for path in ("/org/quintara/Larder/Another", "/org/quintara/Larder/Zero"):
        before = settled_mark(device)
        device.larder.add_manager(path)
        device.larder.wait_for_call("UpdateState", after=before)
        # The manager is called at its fixed path, wherever it is announced.
        assert calls_of_larder(device, before) == [("state", provisioned)]

    for path in ("/org/quintara/Larder/Another", names.LARDER_MANAGER_PATH):
        device.larder.remove_manager(path)
        catch_up(device)
    before = tick(device)
    assert calls_of_larder(device, before)[0] == (
        ("CheckDeviceRegistered",) if provisioned else ("state", False))


def test_a_state_that_larder_rejects_is_published_again_at_the_next_tick(device: Device) -> None:
    device.larder.refuse("UpdateState", times=2)
    start(device)
    # The first state is written before Larder's objects are known.
    wait_for_message(device, "WARNING Failed to write QTD state", count=2)
    tick(device)
    wait_for_message(device, "WARNING Failed to write QTD state", count=3)
    before = tick(device)
    assert calls_of_larder(device, before) == [("state", False)]
    before = settled_mark(device)
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.larder.wait_for_call("Complete")
    assert [line for line in messages(device, before) if line.startswith("WARNING")] == []


def test_without_larder_the_state_is_not_published(device: Device) -> None:
    start(device)
    device.larder.stop()
    catch_up(device)
    before = tick(device)
    wait_for_message(device, "WARNING Failed to write QTD state", after=before)
    tick(device)
    wait_for_message(device, "WARNING Failed to write QTD state", after=before, count=2)
    before = settled_mark(device)
    device.larder.start()
    device.larder.wait_for_call("UpdateState", after=before)
    catch_up(device)
    assert calls_of_larder(device, before) == [("state", False)]
    device.larder.add_credentials_command(COMMAND, "code-1")
    device.larder.wait_for_call("Complete")
