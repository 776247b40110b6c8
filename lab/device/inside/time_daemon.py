"""Simulates tlsdate, which reports the source of the time."""

import time

from dbus_next import Message

from lab.common import names
from lab.device import verbs
from lab.device.inside.part import Report
from lab.device.inside.program import Answer, SimulatedProgram
from lab.device.inside.reporter import Reporter


class TimeDaemon(SimulatedProgram, verbs.TimeDaemon):
    label = "tlsdate"
    service = names.TLSDATE_SERVICE

    def __init__(self, report: Report, reporter: Reporter) -> None:
        super().__init__(report, reporter)
        self._source = "network"
        self._synced = True

    def set_source(self, source: str, synced: bool) -> None:
        self._source = source
        self._synced = synced

    def emit_time_updated(self, source: str) -> None:
        self.emit(names.TLSDATE_PATH, names.TLSDATE_INTERFACE, "TimeUpdated", "s", source)

    def answer(self, message: Message) -> Answer:
        if (message.interface, message.member, message.path) != (
                names.TLSDATE_INTERFACE, "LastSyncInfo", names.TLSDATE_PATH):
            raise self.unknown(message)
        return "bsx", [self._synced, self._source, int(time.time())]
