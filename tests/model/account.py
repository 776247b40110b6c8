"""The daemon's counters, by the numbers of the records."""

from collections import Counter
from collections.abc import Set
from typing import Any

REASONS = ("no_token", "no_network_time", "too_old", "over_limit", "rejected", "pushed_out")
_RFC_6749 = ("invalid_request", "invalid_client", "invalid_grant", "unauthorized_client",
             "unsupported_grant_type", "invalid_scope", "unexpected_response")


class Account:
    """The account of the points, or of the logs."""

    def __init__(self) -> None:
        self._refused: Counter[str] = Counter()
        self._kept: set[int] = set()
        self._accepted: set[int] = set()
        # The first reason why each was removed from its queue.
        self._left: dict[int, str] = {}
        self._lost = 0
        self._dropped_at: int | None = None

    def refuse(self, reason: str) -> None:
        self._refused[reason] += 1

    def keep(self, number: int) -> None:
        self._kept.add(number)

    def leave(self, number: int, reason: str) -> None:
        self._left.setdefault(number, reason)

    def accept(self, numbers: Set[int]) -> None:
        self._accepted |= numbers

    def counts(self, in_requests: Set[int], surplus: int, now: int) -> dict[str, int]:
        """`in_requests` are the records of requests in flight; `surplus` is the number of records
        in the queue that the daemon drops, since they could never be sent. Call this after each
        event, for the time of the last drop."""
        undecided = self._kept - self._accepted
        dropped = Counter(reason for number, reason in self._left.items()
                          if number in undecided - in_requests)
        dropped["over_limit"] += surplus
        if sum(dropped.values()) > self._lost:
            self._lost, self._dropped_at = sum(dropped.values()), now
        in_flight = len(undecided & in_requests)
        dropped += self._refused
        counts = {"recorded": len(self._kept) + sum(self._refused.values()),
                  "accepted": len(self._accepted),
                  "pending": len(undecided - in_requests - set(self._left)) - surplus,
                  "in_flight": in_flight} | {reason: dropped[reason] for reason in REASONS}
        return counts if self._dropped_at is None else counts | {"dropped_at": self._dropped_at}


def token_error(status: int, fields: dict[str, Any] | None) -> str:
    """The status's error for an unusable token response."""
    if fields is None:
        return "no JSON object"
    if status < 400:
        return "no token"
    named = fields.get("error", "unexpected_response")
    return named if named in _RFC_6749 else "an error that RFC 6749 does not name"
