"""Simulates systemd as far as it shows the status of the daemon's unit."""

from dbus_next import Message

from lab.common import names
from lab.device.inside.part import Report
from lab.device.inside.program import Answer, SimulatedProgram
from lab.device.inside.reporter import Reporter
from lab.device.values import string

_PROPERTIES = "org.freedesktop.DBus.Properties"


class Systemd(SimulatedProgram):
    label = "systemd"
    service = names.SYSTEMD_SERVICE

    def __init__(self, report: Report, reporter: Reporter) -> None:
        super().__init__(report, reporter)
        self.status = ""

    def answer(self, message: Message) -> Answer:
        if (message.interface, message.member, message.path, message.body) != (
                _PROPERTIES, "Get", names.SYSTEMD_UNIT_PATH,
                [names.SYSTEMD_UNIT_INTERFACE, "StatusText"]):
            raise self.unknown(message)
        return "v", [string(self.status)]
