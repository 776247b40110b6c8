"""Follows the upload cycles of a daemon by its calls of Larder and by its status."""

from lab.device.events import Event
from lab.device.status import Status

# The calls of one cycle are closer together; the shortest interval is twice as long.
_SAME_CYCLE = 0.5


class Cycles:
    """Counts a cycle for each tick of the upload timer, also if Larder is not called."""

    def __init__(self) -> None:
        self.number = 0
        self._last_check = -_SAME_CYCLE
        self._is_refused = False
        self._ticks = 0

    def begins(self, event: Event) -> bool:
        """Whether the event begins a cycle."""
        if event.kind == "daemon.started":
            self._ticks = 0
        if event.kind != "larder.call" or event["method"] != "CheckDeviceRegistered":
            return False
        has_begun = event.time - self._last_check > _SAME_CYCLE
        self._last_check = event.time
        self._is_refused = event["outcome"] == "refused"
        self.number += has_begun
        return has_begun

    def has_ticked(self, event: Event, status: Status) -> bool:
        """Whether the event is the first status after a tick."""
        ticks = int(status.get("ticks", {}).get("count", 0))
        is_new, self._ticks = ticks > self._ticks, ticks
        if is_new and event.time - self._last_check > _SAME_CYCLE:
            self.number += 1
            self._is_refused = False
        return is_new

    def closed_gate(self, status: Status) -> str:
        """What ended the latest cycle before its requests, in the order of the daemon's checks;
        empty if nothing did."""
        gates = status.get("gates", {})
        if gates.get("refresh_token") is False:
            return "no refresh token"
        if gates.get("registered") == "unknown":
            return "not registered" if self._is_refused else "Larder is down"
        if gates.get("access_token") is False:
            return "no access token"
        return "no network time" if gates.get("network_time") is False else ""
