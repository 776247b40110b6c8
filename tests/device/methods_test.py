"""The three methods as reporters call them, and the records that they make."""

import math
from collections.abc import Callable
from pathlib import Path
from typing import Any
from xml.etree import ElementTree

import pytest

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import Device, Reply
from lab.device.values import (Variant, boolean, byte, double, int16, int32, int64, string, uint16,
                               uint32, uint64)
from tests.device import big_endian
from tests.device.helpers import messages, register, settled_mark, start_ready

EVENT_TYPE = "type.example/ap.Event"
OBJECT_MANAGER_PATH = "/org/quintara/ap/Pelmor"
METHODS = {"RecordMetric": "sa{ss}v", "RecordOfflineData": "say", "RecordStructuredData": "say"}

INVALID_ARGUMENTS = "org.freedesktop.DBus.Error.InvalidArgs"
TOO_FEW = "Too few parameters in a method call"
TOO_MANY = "Too many parameters in a method call"
MISMATCH = "Method parameter type mismatch"
NO_REPLY = "org.freedesktop.DBus.Error.NoReply"

# A value of each type, for calls with wrong arguments.
VALUES = {"s": "ap/wrong", "i": 5, "b": True, "o": "/a/path", "v": int32(5), "ay": b"data",
          "a{ss}": {"band": "5g"}, "a{si}": {"band": 5}, "a{sv}": {"band": int32(5)},
          "a{is}": {5: "band"}, "as": ["band"], "ai": [1, 2], "aay": [b"data"], "(s)": ["s"]}

WRONG_METRICS = [
    ([], TOO_FEW), (["s"], TOO_FEW), (["s", "a{ss}"], TOO_FEW),
    (["s", "a{ss}", "v", "s"], TOO_MANY), (["s", "a{ss}", "v", "v"], TOO_MANY),
    (["i"], MISMATCH), (["s", "s"], MISMATCH),
    (["i", "a{ss}", "v"], MISMATCH), (["o", "a{ss}", "v"], MISMATCH),
    (["v", "a{ss}", "v"], MISMATCH), (["ay", "a{ss}", "v"], MISMATCH),
    (["s", "a{si}", "v"], MISMATCH), (["s", "a{sv}", "v"], MISMATCH),
    (["s", "a{is}", "v"], MISMATCH), (["s", "as", "v"], MISMATCH), (["s", "s", "v"], MISMATCH),
    (["s", "v", "v"], MISMATCH), (["s", "(s)", "v"], MISMATCH),
    (["s", "a{ss}", "i"], MISMATCH), (["s", "a{ss}", "s"], MISMATCH),
    (["s", "a{ss}", "a{ss}"], MISMATCH), (["s", "a{ss}", "i", "s"], MISMATCH)]
WRONG_LOGS = [
    ([], TOO_FEW), (["s"], TOO_FEW), (["s", "ay", "s"], TOO_MANY), (["s", "ay", "ay"], TOO_MANY),
    (["i"], MISMATCH), (["i", "ay"], MISMATCH), (["o", "ay"], MISMATCH), (["v", "ay"], MISMATCH),
    (["ay", "s"], MISMATCH), (["s", "s"], MISMATCH), (["s", "ai"], MISMATCH),
    (["s", "as"], MISMATCH), (["s", "aay"], MISMATCH), (["s", "v"], MISMATCH),
    (["s", "s", "s"], MISMATCH)]
WRONG_CALLS = {"RecordMetric": WRONG_METRICS, "RecordOfflineData": WRONG_LOGS,
               "RecordStructuredData": WRONG_LOGS}

# The D-Bus specification allows Unicode's noncharacters in a text; the daemon does not.
NONCHARACTERS = ["\uffff", "a\ufdd0b", "\U0010fffe"]
METRICS_WITH: dict[str, Callable[[str], list[Any]]] = {
    "name": lambda text: [text, {}, int32(1)], "label": lambda text: ["n", {text: ""}, int32(1)],
    "label's value": lambda text: ["n", {"k": text}, int32(1)],
    "value": lambda text: ["n", {}, string(text)]}

# Every supported type, and its value in a request.
TYPED_VALUES: dict[str, tuple[Variant, dict[str, Any]]] = {
    "true": (boolean(True), {"boolValue": True}),
    "false": (boolean(False), {"boolValue": False}),
    "byte": (byte(255), {"int64Value": "255"}),
    "int16": (int16(-2**15), {"int64Value": "-32768"}),
    "uint16": (uint16(2**16 - 1), {"int64Value": "65535"}),
    "int32": (int32(-2**31), {"int64Value": "-2147483648"}),
    "uint32": (uint32(2**32 - 1), {"int64Value": "4294967295"}),
    "int64": (int64(-2**63), {"int64Value": "-9223372036854775808"}),
    "int64 max": (int64(2**63 - 1), {"int64Value": "9223372036854775807"}),
    "uint64": (uint64(2**63), {"int64Value": "-9223372036854775808"}),
    "uint64 max": (uint64(2**64 - 1), {"int64Value": "-1"}),
    "zero": (int32(0), {"int64Value": "0"}),
    "double": (double(0.25), {"doubleValue": 0.25}),
    "double tenth": (double(0.1), {"doubleValue": 0.1}),
    "double small": (double(-5e-324), {"doubleValue": -5e-324}),
    "double great": (double(1.7976931348623157e308), {"doubleValue": 1.7976931348623157e308}),
    "double whole": (double(5), {"doubleValue": 5.0}),
    "nan": (double(math.nan), {"doubleValue": None}),
    "infinity": (double(math.inf), {"doubleValue": None}),
    "string": (string("online"), {"stringValue": "online"}),
    "empty": (string(""), {"stringValue": ""}),
    "escapes": (string('"\\/\b\n\r\t\x01\x7f'), {"stringValue": '"\\/\b\n\r\t\x01\x7f'}),
    "unicode": (string("größe 温度 😀"), {"stringValue": "größe 温度 😀"}),
    "digits": (string("12"), {"stringValue": "12"}),
    "variant": (Variant("v", int32(7)), {"int64Value": "7"}),
    "variants": (Variant("v", Variant("v", string("x"))), {"stringValue": "x"}),
}

# Every other type, and its name in the daemon's log.
STRING = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
UNSUPPORTED_VALUES = {
    "o": ("/a/path", "dbus::ObjectPath"),
    "g": ("a{sv}", "dbus::Signature"),
    "as": (["a"], "kestle::Array"),
    "ai": ([], "kestle::Array"),
    "ay": (b"\x00", "std::vector<unsigned char, std::allocator<unsigned char> >"),
    "a{sv}": ({"a": int32(1)},
              f"std::map<{STRING}, kestle::Any, std::less<{STRING} >, "
              f"std::allocator<std::pair<{STRING} const, kestle::Any> > >"),
    "a{ss}": ({"a": "b"}, "kestle::Dictionary"),
    "(is)": ([1, "a"], "kestle::Structure"),
    "v": (Variant("o", "/a/path"), "dbus::ObjectPath"),
}

# Records a file descriptor; prints the error's name.
SEND_DESCRIPTOR = f"""
import asyncio, os
from dbus_next import BusType, Message, Variant
from dbus_next.aio import MessageBus
async def main():
    bus = await MessageBus(bus_type=BusType.SYSTEM, negotiate_unix_fd=True).connect()
    reply = await bus.call(Message(
        destination="{names.DAEMON_SERVICE}", path="{names.DAEMON_PATH}",
        interface="{names.DAEMON_INTERFACE}", member="RecordMetric", signature="sa{{ss}}v",
        body=["ap/file", {{}}, Variant("h", 0)], unix_fds=[os.open("/dev/null", os.O_RDONLY)]))
    print(reply.message_type.name, reply.sender, reply.error_name)
asyncio.run(main())
"""


def busctl(*words: str) -> tuple[str, ...]:
    return ("busctl", "call", names.DAEMON_SERVICE, names.DAEMON_PATH, names.DAEMON_INTERFACE,
            *words)


def points_of(device: Device) -> dict[str, list[tuple[dict, dict]]]:
    """The labels and the values of the points in the one metrics request, by name."""
    device.cloud.wait_for_request(Endpoint.METRICS)
    [request] = device.cloud.requests(Endpoint.METRICS)
    return {group["metricName"]: [split(point) for point in group["points"]]
            for group in request.json["metricPoints"]}


def split(point: dict[str, Any]) -> tuple[dict, dict]:
    rest = {key: value for key, value in point.items()
            if key not in ("labels", "startTime", "endTime")}
    return point["labels"], rest


def logs_of(device: Device, kind: Endpoint, count: int) -> list[tuple[str, str]]:
    """The type URLs and the values of the first logs of a kind."""
    device.cloud.wait_for_request(kind, count=count)
    bodies = [request.json for request in device.cloud.requests(kind)]
    logs = [body["writeLog"][0] if kind == Endpoint.OFFLINE_LOGS else body for body in bodies]
    return [(log["typeUrl"], log["value"]) for log in logs]


# Valid calls.

def test_busctl_can_report(device: Device) -> None:
    start_ready(device)
    runs = [device.run(*busctl("RecordMetric", "sa{ss}v", "ap/clients", "1", "band", "5g",
                               "i", "12")),
            device.run(*busctl("RecordStructuredData", "say", "x", "0")),
            device.run(*busctl("RecordOfflineData", "say", "y", "2", "0", "255"))]
    register(device)

    assert [(run.code, run.output, run.errors) for run in runs] == [(0, "", "")] * 3
    assert points_of(device) == {"ap/clients": [({"band": "5g"}, {"int64Value": "12"})]}
    assert logs_of(device, Endpoint.STRUCTURED_LOGS, 1) == [("x", "")]
    assert logs_of(device, Endpoint.OFFLINE_LOGS, 1) == [("y", "AP8=")]


def test_bytes_travel_unchanged(device: Device) -> None:
    start_ready(device)
    every_byte = bytes(range(256))
    for data in (b"", b"\x00", b"\x00\xff", b"a\x00b", every_byte):
        device.record_structured(EVENT_TYPE, data)
        device.record_offline("", data)
    register(device)

    values = ["", "AA==", "AP8=", "YQBi"]
    structured = logs_of(device, Endpoint.STRUCTURED_LOGS, 5)
    offline = logs_of(device, Endpoint.OFFLINE_LOGS, 5)
    assert structured[:4] == [(EVENT_TYPE, value) for value in values]
    assert offline[:4] == [("", value) for value in values]
    assert structured[4][1] == offline[4][1]
    assert structured[4][1].startswith("AAECAwQFBgcICQoLDA0ODxAR")
    assert structured[4][1].endswith("8PHy8_T19vf4-fr7_P3-_w==")


def test_every_value_reaches_the_cloud_as_what_it_is(device: Device) -> None:
    start_ready(device)
    for name, (value, _) in TYPED_VALUES.items():
        device.record_metric(f"ap/{name}", {}, value)
    register(device)
    assert points_of(device) == {f"ap/{name}": [({}, expected)]
                                 for name, (_, expected) in TYPED_VALUES.items()}


def test_messages_of_either_byte_order_are_accepted(device: Device) -> None:
    start_ready(device)
    run = device.run("python3", "-c", Path(big_endian.__file__).read_text(), names.DAEMON_SERVICE,
                     names.DAEMON_PATH, names.DAEMON_INTERFACE)
    # Each is a method return.
    assert (run.code, run.errors, run.output.splitlines()) == (0, "", ["2 1", "2 2", "2 3", "2 4"])
    register(device)
    assert points_of(device) == {"ap/big": [({"band": "5g"}, {"int64Value": "258"})]}
    assert logs_of(device, Endpoint.STRUCTURED_LOGS, 1) == [("type/big", "AQD_")]
    assert logs_of(device, Endpoint.OFFLINE_LOGS, 1) == [("type/big", "")]


def test_names_and_labels_are_only_text(device: Device) -> None:
    start_ready(device)
    labels = {"a.b": "c.d", "a": "plain", "": "no key", "no value": "", "größe": "温度",
              '"': "\\\n", "labels": "startTime"}
    for name in ("ap.radio.load", "", "ap/größe/温度", 'a "name"\n'):
        device.record_metric(name, labels, True)
    register(device)
    assert points_of(device) == {name: [(labels, {"boolValue": True})] for name in
                                 ("ap.radio.load", "", "ap/größe/温度", 'a "name"\n')}


def test_many_points_and_long_texts_are_taken(device: Device) -> None:
    start_ready(device)
    long = "x" * 20_000
    device.record_metric("ap/long", {long: long}, long)
    device.record_metrics([("ap/many", {}, number) for number in range(900)])
    register(device)
    points = points_of(device)
    assert points["ap/long"] == [({long: long}, {"stringValue": long})]
    assert [value for _, value in points["ap/many"]] == [
        {"int64Value": str(number)} for number in range(900)]


# Invalid calls.

def test_a_call_with_wrong_arguments_fails_and_records_nothing(device: Device) -> None:
    start_ready(device)
    start = settled_mark(device)
    replies, expected = {}, {}
    for method, calls in WRONG_CALLS.items():
        for types, message in calls:
            case = f"{method}({','.join(types)})"
            replies[case] = device.call_raw(method, "".join(types), [VALUES[t] for t in types])
            expected[case] = Reply(error=INVALID_ARGUMENTS, message=message)
    assert replies == expected
    assert messages(device, after=start) == []

    device.record_metric("ap/right", {}, 1)
    device.record_structured("right", b"")
    device.record_offline("right", b"")
    register(device)
    assert logs_of(device, Endpoint.OFFLINE_LOGS, 1) == [("right", "")]
    assert logs_of(device, Endpoint.STRUCTURED_LOGS, 1) == [("right", "")]
    assert points_of(device) == {"ap/right": [({}, {"int64Value": "1"})]}


@pytest.mark.parametrize("bad", NONCHARACTERS)
def test_a_text_with_a_noncharacter_is_rejected(device: Device, bad: str) -> None:
    start_ready(device)
    start = device.mark()
    refusal = Reply(error=INVALID_ARGUMENTS, message=MISMATCH)
    for place, arguments in METRICS_WITH.items():
        assert device.call_raw("RecordMetric", "sa{ss}v", arguments(bad)) == refusal, place
    for method in ("RecordStructuredData", "RecordOfflineData"):
        assert device.call_raw(method, "say", [bad, b""]) == refusal, method
    assert messages(device, after=start) == []
    device.record_metric("ap/right", {}, 1)
    register(device)
    assert points_of(device) == {"ap/right": [({}, {"int64Value": "1"})]}


@pytest.mark.parametrize("words, message", [
    (("RecordMetric", "sa{ss}", "ap/clients", "0"), TOO_FEW),
    (("RecordMetric", "sa{ss}vs", "ap/clients", "0", "i", "12", "more"), TOO_MANY),
    (("RecordMetric", "sa{si}v", "ap/clients", "1", "band", "5", "i", "12"), MISMATCH),
    (("RecordOfflineData", "ss", "x", "data"), MISMATCH),
    (("RecordStructuredData", "sai", "x", "1", "5"), MISMATCH),
    (("RecordStructuredData",), TOO_FEW)])
def test_busctl_prints_the_error_of_a_wrong_call(
        device: Device, words: tuple[str, ...], message: str) -> None:
    device.start_daemon()
    run = device.run(*busctl(*words))
    assert (run.code, run.output, run.errors) == (1, "", f"Call failed: {message}\n")


def test_unknown_objects_and_methods_have_the_standard_errors(device: Device) -> None:
    device.start_daemon()
    error = "org.freedesktop.DBus.Error."
    right = ("sa{ss}v", ["ap/clients", {}, int32(1)])
    assert [device.call_raw("RecordNothing", *right).error,
            device.call_raw("recordMetric", *right).error,
            device.call_raw("RecordMetric", *right, interface="org.quintara.Other").error,
            device.call_raw("RecordMetric", *right, path="/org/quintara/ap/Other").error,
            device.call_raw("RecordMetric", *right, path=OBJECT_MANAGER_PATH).error,
            device.call_raw("RecordMetric", *right, destination="org.quintara.Other").error] == [
        error + "UnknownMethod", error + "UnknownMethod", error + "UnknownMethod",
        error + "UnknownObject", error + "UnknownMethod", error + "ServiceUnknown"]


@pytest.mark.parametrize("signature", UNSUPPORTED_VALUES)
def test_an_unsupported_value_aborts_the_daemon(device: Device, signature: str) -> None:
    value, type_name = UNSUPPORTED_VALUES[signature]
    start_ready(device)
    reply = device.call_raw("RecordMetric", "sa{ss}v", ["ap/odd", {}, Variant(signature, value)])
    assert device.wait_for_exit() == -6
    assert messages(device)[-1] == f"FATAL Unknown type: {type_name}"
    assert reply.error == NO_REPLY, "the caller sees the daemon's end"


def test_the_bus_rejects_a_file_descriptor(device: Device) -> None:
    start_ready(device)
    # The name of the error depends on the bus.
    reply = device.run("python3", "-c", SEND_DESCRIPTOR).output.split()
    assert reply[:2] == ["ERROR", "org.freedesktop.DBus"]
    device.record_metric("ap/number", {}, 1)
    register(device)
    assert points_of(device) == {"ap/number": [({}, {"int64Value": "1"})]}


@pytest.mark.parametrize("lacking", ["a token", "network time"])
def test_an_unsupported_value_is_dropped_while_the_daemon_is_not_ready(
        device: Device, lacking: str) -> None:
    if lacking == "a token":
        device.start_daemon()
    else:
        device.clock.set_source("rtc")
        start_ready(device)
    device.larder.wait_for_call("UpdateState")
    start = settled_mark(device)
    replies = {signature: device.call_raw("RecordMetric", "sa{ss}v",
                                          ["ap/odd", {}, Variant(signature, value)])
               for signature, (value, _) in UNSUPPORTED_VALUES.items()}
    assert replies == dict.fromkeys(UNSUPPORTED_VALUES, Reply())
    assert messages(device, after=start) == []
    assert device.stop_daemon() == 0


# Introspection.

def test_it_describes_its_methods(device: Device) -> None:
    device.start_daemon()
    described = device.run("busctl", "introspect", "--no-legend", "--no-pager",
                           names.DAEMON_SERVICE, names.DAEMON_PATH, names.DAEMON_INTERFACE)
    lines = [line.split()[:3] for line in described.output.splitlines()]
    assert lines == [[f".{method}", "method", signature]
                     for method, signature in METHODS.items()]
    text = device.call_raw("Introspect",
                           interface="org.freedesktop.DBus.Introspectable").values[0]
    found = ElementTree.fromstring(text).find(f"interface[@name='{names.DAEMON_INTERFACE}']")
    assert found is not None, text
    arguments = {method.get("name"): [(argument.get("name"), argument.get("type"),
                                       argument.get("direction")) for argument in method]
                 for method in found}
    log = [("type_url", "s", "in"), ("data", "ay", "in")]
    assert arguments == {
        "RecordMetric": [("name", "s", "in"), ("labels", "a{ss}", "in"), ("value", "v", "in")],
        "RecordOfflineData": log, "RecordStructuredData": log}


def test_its_object_manager_lists_the_manager(device: Device) -> None:
    device.start_daemon()
    reply = device.call_raw("GetManagedObjects", path=OBJECT_MANAGER_PATH,
                            interface="org.freedesktop.DBus.ObjectManager")
    assert (reply.signature, reply.error) == ("a{oa{sa{sv}}}", "")
    [objects] = reply.values
    assert list(objects) == [names.DAEMON_PATH]
    assert objects[names.DAEMON_PATH][names.DAEMON_INTERFACE] == {}
