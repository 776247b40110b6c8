"""The fate of each record: uploaded, dropped by a rule, pending at the end, or unexplained.

Each record is searched by its number in the requests that the cloud received. If it is missing, the
same requests and the daemon's log must show the rule that dropped it."""

import enum
from collections import Counter
from collections.abc import Iterable, Sequence
from dataclasses import dataclass, field

from lab.common.names import Endpoint
from lab.fleet.cloud import Arrival
from lab.fleet.plan import REQUEST_SECONDS
from lab.fleet.records import Record

# The daemon's own limits.
_MOST_POINTS = 1000
_MOST_LOGS = 20
_OLDEST_SECONDS = 30 * 60.0
_UNAUTHORIZED = 401
# A cycle checks the registration before it moves the points, and sends its request soon after.
_CYCLE_INTERVALS = 0.5
# The longest duration of the log chain of a cycle.
_CHAIN_SECONDS = 1.0


class Fate(enum.StrEnum):
    UPLOADED = "uploaded"
    NO_TOKEN = "not kept: no access token"
    ANSWERED = "dropped: the cloud answered with an error"
    TOO_OLD = "dropped: 30 minutes old"
    TOO_MANY = "dropped: beyond the newest 1000 points"
    PUSHED_OUT = "dropped: beyond the newest 20 logs"
    WAITING = "pending at the end"
    UNEXPLAINED = "unexplained"


@dataclass(frozen=True)
class Seen:
    """A request with records. `tick` is the start of its cycle; None if that is unknown."""

    time: float
    tick: float | None
    endpoint: Endpoint
    status: int
    numbers: frozenset[int]

    @property
    def accepted(self) -> bool:
        return 200 <= self.status < 300


class History:
    """The observations of one device. Times are of one clock; sequences are in their order."""

    def __init__(self, arrivals: Iterable[Arrival], checks: Sequence[float],
                 tokens: Iterable[tuple[float, bool]], interval: float) -> None:
        """`checks` are the times at which the daemon checked its registration; `tokens` those at
        which it logged that it got or lost an access token."""
        seen = [Seen(arrival.time, _tick(checks, arrival.time, interval), arrival.endpoint,
                     arrival.status, frozenset(arrival.numbers)) for arrival in arrivals]
        self._requests = [one for one in seen if one.endpoint == Endpoint.METRICS]
        self._logs = [one for one in seen
                      if one.endpoint in (Endpoint.STRUCTURED_LOGS, Endpoint.OFFLINE_LOGS)]
        self._without_token = _spans_without_token(
            [one.time for one in seen if one.status == _UNAUTHORIZED], tokens)

    def fates(self, records: Sequence[Record], end: float) -> list[Fate]:
        """`end` is the time at which the daemon was stopped."""
        logs = [record for record in records if record.endpoint != Endpoint.METRICS]
        return [self._point(record) if record.endpoint == Endpoint.METRICS
                else self._log(record, logs, end) for record in records]

    def _point(self, record: Record) -> Fate:
        if record.replied is None:
            return Fate.UNEXPLAINED
        sent_in = [request for request in self._requests if record.number in request.numbers]
        for request in sent_in:
            if request.status != _UNAUTHORIZED:
                return Fate.UPLOADED if request.accepted else Fate.ANSWERED
        if not sent_in and self._had_no_token(record):
            return Fate.NO_TOKEN
        since = max([record.replied, *(request.time for request in sent_in)])
        for request in self._requests:
            if request.tick is not None and request.tick > since:
                return _why_missing(record, request)
        return Fate.WAITING

    def _log(self, record: Record, logs: Sequence[Record], end: float) -> Fate:
        if record.replied is None:
            return Fate.UNEXPLAINED
        if any(record.number in request.numbers and request.accepted for request in self._logs):
            return Fate.UPLOADED
        if self._had_no_token(record):
            return Fate.NO_TOKEN
        newer = [request for request in self._logs
                 if request.accepted and min(request.numbers) > record.number]
        if newer:
            behind = [one for one in logs
                      if record.number < one.number and one.sent < newer[0].time]
            # One fewer if the front log was pushed out while in flight: its answer then removes
            # the next one.
            return Fate.PUSHED_OUT if len(behind) >= _MOST_LOGS - 1 else Fate.UNEXPLAINED
        chains = [request for request in self._requests
                  if request.accepted and request.tick is not None
                  and request.tick > record.replied and request.time + _CHAIN_SECONDS < end]
        return Fate.UNEXPLAINED if chains else Fate.WAITING

    def _had_no_token(self, record: Record) -> bool:
        """Whether the daemon had none at some time between the call and its reply."""
        assert record.replied is not None
        return any(record.sent < end and begin < record.replied
                   for begin, end in self._without_token)


def _why_missing(record: Record, request: Seen) -> Fate:
    """`request` is the first one that should have contained the record."""
    if request.time - record.sent >= _OLDEST_SECONDS:
        return Fate.TOO_OLD
    if len(request.numbers) == _MOST_POINTS and min(request.numbers) > record.number:
        return Fate.TOO_MANY
    return Fate.UNEXPLAINED


def _tick(checks: Sequence[float], time: float, interval: float) -> float | None:
    since = time - interval * _CYCLE_INTERVALS
    return next((check for check in checks if since < check < time), None)


def _spans_without_token(refused: Sequence[float],
                         tokens: Iterable[tuple[float, bool]]) -> list[tuple[float, float]]:
    """A loss of the token counts only if the cloud rejected one within the request time before."""
    spans: list[tuple[float, float]] = []
    begin: float | None = float("-inf")
    for time, there in tokens:
        if there and begin is not None:
            spans.append((begin, time))
            begin = None
        elif not there and begin is None and any(
                time - REQUEST_SECONDS < one <= time for one in refused):
            begin = time
    return spans if begin is None else [*spans, (begin, float("inf"))]


@dataclass
class Accounting:
    """Over the whole fleet."""

    recorded: int = 0
    fates: Counter[Fate] = field(default_factory=Counter)
    # How often a record arrived again after it was accepted.
    repeated: int = 0
    # One text for each fault.
    faults: list[str] = field(default_factory=list)

    @property
    def not_accepted(self) -> int:
        return self.fates[Fate.NO_TOKEN]

    @property
    def accepted(self) -> int:
        return self.recorded - self.not_accepted

    @property
    def dropped(self) -> int:
        return sum(self.fates[fate] for fate in (Fate.ANSWERED, Fate.TOO_OLD, Fate.TOO_MANY,
                                                 Fate.PUSHED_OUT))

    @property
    def adds_up(self) -> bool:
        return not self.faults and self.accepted == (
            self.fates[Fate.UPLOADED] + self.dropped + self.fates[Fate.WAITING])

    def add(self, device: str, records: Sequence[Record], arrivals: Sequence[Arrival],
            fates: Sequence[Fate]) -> None:
        """Adds the records of a device and the requests that the cloud received from it."""
        self.recorded += len(records)
        self.fates.update(fates)
        self.faults += [f"{device}: record {record.number}, {record.endpoint}, is unexplained"
                        for record, fate in zip(records, fates, strict=True)
                        if fate == Fate.UNEXPLAINED]
        known = {(record.number, str(record.endpoint)) for record in records}
        came = Counter((number, str(arrival.endpoint)) for arrival in arrivals
                       if 200 <= arrival.status < 300 for number in arrival.numbers)
        self.faults += [f"{device}: record {number} arrived but was never recorded as one of {kind}"
                        for number, kind in sorted(came.keys() - known)]
        self.repeated += sum(times - 1 for times in came.values())
