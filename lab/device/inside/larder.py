"""Simulates Larder: a manager object, commands, and the object manager that announces them."""

from typing import Any

from dbus_next import Message

from lab.common import names
from lab.device import verbs
from lab.device.inside.dbus_values import from_dbus
from lab.device.inside.part import Report
from lab.device.inside.program import Answer, Refusal, SimulatedProgram
from lab.device.inside.reporter import Reporter
from lab.device.values import Variant, string, variant_of, variants_of

_OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
_PROPERTIES = "org.freedesktop.DBus.Properties"
_UNKNOWN_OBJECT = "org.freedesktop.DBus.Error.UnknownObject"
_UNKNOWN_PROPERTY = "org.freedesktop.DBus.Error.UnknownProperty"
_DEVICE_ID = "device-0001"

# The state of a command after each of its methods.
_COMMAND_STATES = {"SetProgress": "inProgress", "Complete": "done", "Abort": "aborted",
                   "SetError": "error", "Cancel": "cancelled"}

Properties = dict[str, Variant]


def _manager_properties(device_id: str) -> Properties:
    texts = {"Status": "online", "DeviceId": device_id, "State": "{}", "OemName": "Quintara",
             "ModelName": "Access point", "ModelId": "AAAAA", "Name": "access point",
             "Description": "", "Location": "", "QTDBootstrapState": ""}
    return {name: string(text) for name, text in texts.items()} | {
        "PairingInfo": Variant("a{sv}", {})}


def _command_properties(path: str, name: str, state: str, parameters: dict) -> Properties:
    empty = Variant("a{sv}", {})
    return {"Name": string(name), "Id": string(path.rpartition("/")[2]), "State": string(state),
            "Parameters": Variant("a{sv}", parameters), "Progress": empty, "Results": empty,
            "Origin": string("cloud")}


class Larder(SimulatedProgram, verbs.Larder):
    label = "larder"
    service = names.LARDER_SERVICE

    def __init__(self, report: Report, reporter: Reporter) -> None:
        super().__init__(report, reporter)
        self._device_id = _DEVICE_ID
        # By path: the one interface of the object, and its properties.
        self._objects: dict[str, tuple[str, Properties]] = {}
        self.add_manager(names.LARDER_MANAGER_PATH)

    def register(self, device_id: str) -> None:
        self._device_id = device_id
        for path, (interface, _) in self._objects.items():
            if interface == names.LARDER_MANAGER:
                self.change_property(path, "DeviceId", device_id)

    def add_manager(self, path: str) -> None:
        self._add(path, names.LARDER_MANAGER, _manager_properties(self._device_id))

    def remove_manager(self, path: str) -> None:
        self._remove(path)

    def add_command(self, path: str, name: str, state: str,
                    parameters: dict[str, Any] | None) -> None:
        self._add(path, names.LARDER_COMMAND,
                  _command_properties(path, name, state, variants_of(parameters or {})))

    def remove_command(self, path: str) -> None:
        self._remove(path)

    def replace_command(self, path: str, name: str, state: str,
                        parameters: dict[str, Any] | None) -> None:
        self._remove(path)
        self.add_command(path, name, state, parameters)

    def change_property(self, path: str, name: str, value: Any) -> None:
        interface, properties = self._objects[path]
        properties[name] = variant_of(value)
        self.emit(path, _PROPERTIES, "PropertiesChanged", "sa{sv}as", interface,
                  {name: properties[name]}, [])

    def invalidate_property(self, path: str, name: str) -> None:
        interface, _ = self._objects[path]
        self.emit(path, _PROPERTIES, "PropertiesChanged", "sa{sv}as", interface, {}, [name])

    def _add(self, path: str, interface: str, properties: Properties) -> None:
        self._objects[path] = (interface, properties)
        self.emit(names.LARDER_PATH, _OBJECT_MANAGER, "InterfacesAdded", "oa{sa{sv}}", path,
                  {interface: properties})

    def _remove(self, path: str) -> None:
        interface, _ = self._objects.pop(path)
        self.emit(names.LARDER_PATH, _OBJECT_MANAGER, "InterfacesRemoved", "oas", path,
                  [interface])

    def answer(self, message: Message) -> Answer:
        if message.interface == _OBJECT_MANAGER and message.path == names.LARDER_PATH:
            return self._managed_objects(message)
        if message.interface == _PROPERTIES:
            return self._properties(message)
        if message.interface == names.LARDER_MANAGER:
            return self._manager_method(message)
        if message.interface == names.LARDER_COMMAND:
            return self._command_method(message)
        raise self.unknown(message)

    def _managed_objects(self, message: Message) -> Answer:
        if message.member != "GetManagedObjects":
            raise self.unknown(message)
        return "a{oa{sa{sv}}}", [{path: {interface: properties} for path, (interface, properties)
                                  in self._objects.items()}]

    def _properties(self, message: Message) -> Answer:
        interface, properties = self._object(message)
        if message.body[0] != interface:
            raise Refusal(_UNKNOWN_PROPERTY, f"no interface {message.body[0]} here")
        if message.member == "GetAll":
            return "a{sv}", [properties]
        if message.member == "Get" and message.body[1] in properties:
            return "v", [properties[message.body[1]]]
        raise Refusal(_UNKNOWN_PROPERTY, "no such property to read")

    def _object(self, message: Message) -> tuple[str, Properties]:
        if message.path not in self._objects:
            raise Refusal(_UNKNOWN_OBJECT, f"no object {message.path} here")
        return self._objects[message.path]

    def _manager_method(self, message: Message) -> Answer:
        # The methods exist only at this path, even if the manager is announced at another one.
        if message.path != names.LARDER_MANAGER_PATH:
            raise Refusal(_UNKNOWN_OBJECT, f"no object {message.path} here")
        answers: dict[tuple[str, str], Answer] = {
            ("CheckDeviceRegistered", ""): ("s", [self._device_id]),
            ("RegisterDevice", "s"): ("s", [self._device_id]),
            ("UpdateDeviceInfo", "sss"): ("", []),
            ("UpdateServiceConfig", "sssss"): ("", []),
            ("UpdateState", "a{sv}"): ("", []),
            ("GetState", ""): ("s", ["{}"]),
            ("AddCommand", "s"): ("s", ["1"]),
            ("TestMethod", "s"): ("s", message.body),
        }
        answer = answers.get((message.member, message.signature))
        if not answer:
            raise self.unknown(message)
        return answer

    def _command_method(self, message: Message) -> Answer:
        interface, _ = self._object(message)
        state = _COMMAND_STATES.get(message.member)
        if interface != names.LARDER_COMMAND or not state:
            raise self.unknown(message)
        self._change_command(message, state)
        return "", []

    def _change_command(self, message: Message, state: str) -> None:
        kept: dict[str, Any] = {"SetProgress": "Progress", "Complete": "Results"}
        if message.member in kept:
            value = Variant("a{sv}", from_dbus(message.body[0]))
            self.change_property(message.path, kept[message.member], value)
        self.change_property(message.path, "State", state)
