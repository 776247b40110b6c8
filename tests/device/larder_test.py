"""Larder starts, fails, stops and restarts."""

from collections.abc import Callable

import pytest

from lab.common import names
from lab.common.names import Endpoint, Host
from lab.device.device import Device
from lab.device.values import Variant, string
from tests.device.helpers import (COMMAND, OTHER_COMMAND, messages, metric_names, settled_mark,
                                  start_ready, wait_for_message, wait_for_whole_cycle)

NO_STATE = "WARNING Failed to write QTD state"
COMMAND_GONE = "WARNING QTD command is no longer present"
UNLISTED = "WARNING Failed to list the objects of org.quintara.Larder: "
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"
# Sorted before and after the usual path.
LOWER_MANAGER_PATH = "/org/quintara/Larder/A"
HIGHER_MANAGER_PATH = "/org/quintara/Larder/managers/7"
# Longer than any test.
LONG = "600"


def start_without_ticks(device: Device) -> None:
    """A daemon without credentials that publishes its state for other reasons than ticks."""
    device.configure(upload_interval_in_seconds=LONG)
    device.start_daemon()


def test_the_state_is_published_as_soon_as_larder_starts(device: Device) -> None:
    device.larder.stop()
    start_without_ticks(device)
    wait_for_message(device, NO_STATE)
    device.larder.start()
    call = device.larder.wait_for_call("UpdateState")
    assert call["path"] == names.LARDER_MANAGER_PATH
    assert messages(device) == ["INFO Starting pelmor daemon", NO_STATE]


def test_without_larder_each_tick_logs_a_warning(device: Device) -> None:
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", count=2)
    device.larder.stop()
    gone = device.mark()
    wait_for_message(device, NO_STATE, after=gone, count=2)
    device.larder.start()
    device.larder.wait_for_call("UpdateState", after=gone)
    back = settled_mark(device)
    device.larder.wait_for_call("UpdateState", after=back, count=2)
    assert set(messages(device, after=gone)) == {NO_STATE}
    assert messages(device, after=back) == []


def test_without_larder_cycles_keep_the_points_and_log_nothing(device: Device) -> None:
    device.configure(upload_interval_in_seconds="0")
    start_ready(device)
    # A manager that is listed just before the end would have its state published.
    device.larder.wait_for_call("UpdateState")
    device.record_metric("before", {}, 1)
    device.larder.stop()
    gone = settled_mark(device)
    for number in range(20):  # There is a cycle between any two calls.
        device.record_metric(f"without {number:02}", {}, number)
    assert messages(device, after=gone) == []
    assert device.cloud.requests(Endpoint.METRICS) == []
    device.larder.behave()
    device.larder.start()
    device.cloud.wait_for_request(Endpoint.METRICS)
    assert metric_names(device)[0] == ["before"] + [f"without {number:02}"
                                                    for number in range(20)]


def test_the_objects_of_a_restarted_larder_are_listed_again(device: Device) -> None:
    start_without_ticks(device)
    device.larder.wait_for_call("UpdateState")
    device.larder.add_command(COMMAND, "_other._command")
    device.larder.stop()
    # While Larder is stopped.
    device.larder.remove_command(COMMAND)
    device.larder.add_credentials_command(OTHER_COMMAND, code="code-2")
    device.larder.start()

    device.larder.wait_for_call("Complete", path=OTHER_COMMAND)

    [exchange] = device.cloud.requests(Endpoint.EXCHANGE)
    assert dict(exchange.form)["code"] == "code-2"
    assert device.larder.calls("GetManagedObjects")[0].number < exchange.event.number
    assert len(device.larder.calls("GetManagedObjects")) == 2
    # For the first manager, for the second, and for the credentials.
    assert len(device.larder.calls("UpdateState")) == 3


def test_a_manager_that_a_restarted_larder_lacks_is_removed(device: Device) -> None:
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")
    device.larder.stop()
    device.larder.remove_manager()
    device.larder.start()
    device.larder.wait_for_call("GetManagedObjects", count=2)
    listed = settled_mark(device)
    wait_for_message(device, NO_STATE, after=listed, count=2)
    assert device.larder.calls("UpdateState", after=listed) == []
    device.larder.add_manager()
    device.larder.wait_for_call("UpdateState", after=listed)


def test_a_command_of_the_previous_larder_is_not_completed_at_the_new_one(device: Device) -> None:
    start_without_ticks(device)
    device.larder.wait_for_call("UpdateState")
    device.cloud.never_answer("exchange", times=1)
    device.larder.add_credentials_command(COMMAND)
    device.cloud.wait_for_request(Endpoint.EXCHANGE)
    device.larder.stop()
    device.larder.start()
    # Listed again, as in progress, during the exchange.
    device.larder.wait_for_call("Abort", path=COMMAND, arguments=["", ""])
    wait_for_message(device, "WARNING Request already outstanding: rejecting new request")
    device.cloud.go_away(Host.IDENTITY)

    wait_for_message(device, COMMAND_GONE)
    assert len(device.larder.calls("Abort")) == 1
    assert device.larder.calls("Complete") == []


def test_a_larder_that_ends_during_a_call_fails_the_call(device: Device) -> None:
    device.provision()
    device.larder.never_answer("CheckDeviceRegistered", times=1)
    device.start_daemon()
    device.larder.wait_for_call("CheckDeviceRegistered")
    device.larder.stop()
    device.record_metric("kept", {}, 1)
    device.larder.start()
    device.cloud.wait_for_request(Endpoint.METRICS)
    assert metric_names(device) == [["kept"]]


# Failures of Larder.

@pytest.mark.parametrize("misbehave", [
    lambda larder: larder.refuse("UpdateState", times=3),
    lambda larder: larder.answer_with("UpdateState", "s", "thank you", times=3),
    lambda larder: larder.answer_with("UpdateState", "a{sv}", {}, times=3)],
    ids=["refused", "answered with text", "answered with the state"])
def test_each_state_that_larder_does_not_accept_logs_a_warning(
        device: Device, misbehave: Callable) -> None:
    device.configure(upload_interval_in_seconds="0")
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")
    taken = settled_mark(device)
    misbehave(device.larder)
    device.larder.wait_for_call("UpdateState", after=device.mark(), count=10)
    assert messages(device, after=taken) == [NO_STATE] * 3


@pytest.mark.parametrize("signature, values", [
    ("", []), ("i", [1]), ("o", ["/device"]), ("v", [string("device-0001")]),
    ("as", [["device-0001"]]), ("ss", ["device-0001", "more"])])
def test_a_malformed_registration_reply_counts_as_unregistered(
        device: Device, signature: str, values: list) -> None:
    device.configure(upload_interval_in_seconds="0")
    device.provision()
    device.larder.answer_with("CheckDeviceRegistered", signature, *values)
    device.start_daemon()
    device.wait_for_access_token()
    device.record_metric("kept", {}, 1)
    start = settled_mark(device)
    wait_for_whole_cycle(device)
    assert messages(device, after=start) == []
    assert device.cloud.requests(Endpoint.METRICS) == []
    device.larder.behave()
    device.cloud.wait_for_request(Endpoint.METRICS)
    assert metric_names(device)[0] == ["kept"]


@pytest.mark.parametrize("misbehave, reason", [
    (lambda larder: larder.refuse("GetManagedObjects"), "org.quintara.Error.Refused: refused"),
    (lambda larder: larder.answer_with("GetManagedObjects", "as", ["/"]),
     "The reply is no list of objects"),
    (lambda larder: larder.answer_with("GetManagedObjects", ""),
     "The reply is no list of objects")], ids=["refused", "misshapen", "empty"])
def test_without_a_valid_list_objects_exist_once_they_are_announced(
        device: Device, misbehave: Callable, reason: str) -> None:
    misbehave(device.larder)
    start_without_ticks(device)
    wait_for_message(device, UNLISTED + reason)
    assert device.larder.calls("UpdateState") == []
    device.larder.add_manager()
    device.larder.wait_for_call("UpdateState")


def test_an_incomplete_list_of_objects_is_logged(device: Device) -> None:
    # The bus passes on U+FFFF, and sd-bus rejects it: the rest of the message is lost.
    device.larder.change_property(names.LARDER_MANAGER_PATH, "Description", "\uffff")
    device.larder.add_credentials_command()
    start_without_ticks(device)
    wait_for_message(device, UNLISTED + "Not all of the reply can be read")


def test_a_late_list_of_objects_does_not_block_the_daemon(device: Device) -> None:
    device.larder.delay("GetManagedObjects", 0.5)
    start_without_ticks(device)
    asked = device.larder.wait_for_call("GetManagedObjects")
    device.record_metric("dropped", {}, 1)
    assert device.larder.calls("UpdateState") == [], "answered while the list was awaited"
    assert device.larder.wait_for_call("UpdateState").time - asked.time >= 0.5


def test_the_daemon_waits_for_a_late_registration_reply(device: Device) -> None:
    device.larder.delay("CheckDeviceRegistered", 0.3)
    device.provision()
    device.start_daemon()
    device.wait_for_access_token()
    device.record_metric("kept", {}, 1)
    device.record_metric("kept too", {}, 2)
    request = device.cloud.wait_for_request(Endpoint.METRICS)
    calls = device.larder.calls("CheckDeviceRegistered")
    assert any(request.event.time - call.time >= 0.3 for call in calls), calls


@pytest.mark.parametrize("path", [LOWER_MANAGER_PATH, HIGHER_MANAGER_PATH])
def test_a_second_manager_only_publishes_the_state_again(device: Device, path: str) -> None:
    start_without_ticks(device)
    device.larder.wait_for_call("UpdateState")
    device.larder.add_manager(path)
    device.larder.wait_for_call("UpdateState", count=2)
    device.larder.remove_manager()
    device.larder.add_credentials_command(COMMAND)
    device.larder.wait_for_call("Complete")
    calls = device.larder.calls("UpdateState")
    # There is only one manager, wherever it is announced.
    assert [call["path"] for call in calls] == [names.LARDER_MANAGER_PATH] * 3
    assert messages(device).count(NO_STATE) == 1, "only before Larder was known"


def test_a_manager_announced_elsewhere_is_called_at_its_fixed_path(device: Device) -> None:
    device.larder.remove_manager()
    device.larder.add_manager(HIGHER_MANAGER_PATH)
    device.provision()
    device.start_daemon()
    device.wait_for_access_token()
    device.record_metric("ap/clients", {}, 12)
    request = device.cloud.wait_for_request(Endpoint.METRICS)
    assert request.path == "/v1/devices/device-0001/metrics:batchCreatePoints"
    calls = device.larder.calls("UpdateState") + device.larder.calls("CheckDeviceRegistered")
    assert {call["path"] for call in calls} == {names.LARDER_MANAGER_PATH}


def credentials_command(code: str) -> dict[str, dict[str, Variant]]:
    return {names.LARDER_COMMAND: {
        "Name": string(names.CREDENTIALS_COMMAND), "State": string("queued"),
        "Parameters": Variant("a{sv}", {"_authorizationCode": string(code)})}}


def test_forged_signals_of_larder_are_ignored(device: Device) -> None:
    start_without_ticks(device)
    device.larder.wait_for_call("UpdateState")
    owner = device.call_raw("GetNameOwner", "s", [names.LARDER_SERVICE],
                            destination="org.freedesktop.DBus", path="/org/freedesktop/DBus",
                            interface="org.freedesktop.DBus").values[0]
    start = settled_mark(device)
    device.forge_signal(names.LARDER_PATH, OBJECT_MANAGER, "InterfacesAdded", "oa{sa{sv}}",
                        COMMAND, credentials_command("forged"))
    device.forge_signal(names.LARDER_PATH, OBJECT_MANAGER, "InterfacesAdded", "oa{sa{sv}}",
                        LOWER_MANAGER_PATH, {names.LARDER_MANAGER: {}})
    device.forge_signal(names.LARDER_PATH, OBJECT_MANAGER, "InterfacesRemoved", "oas",
                        names.LARDER_MANAGER_PATH, [names.LARDER_MANAGER])
    device.forge_signal(names.LARDER_MANAGER_PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as",
                        names.LARDER_MANAGER, {"DeviceId": string("forged")}, [])
    device.forge_signal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                        "sss", names.LARDER_SERVICE, owner, "")
    device.larder.add_credentials_command(OTHER_COMMAND, code="true")
    device.larder.wait_for_call("Complete", path=OTHER_COMMAND)

    [exchange] = device.cloud.requests(Endpoint.EXCHANGE)
    assert dict(exchange.form)["code"] == "true"
    assert [call["method"] for call in device.larder.calls(after=start)] == [
        "SetProgress", "UpdateState", "Complete"]
    assert NO_STATE not in messages(device, after=start)
