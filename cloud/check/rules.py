"""What a rule is, and the list of all rules in the order of their checks."""

from collections.abc import Callable
from dataclasses import dataclass
from typing import TypeVar

from cloud.check.cloud import Cloud
from cloud.check.connection import Answer

_UNAUTHORIZED = 401

# Consequences and remedies that several rules share.
LOSES_POINTS = ("The daemon drops all points of the request, those of other reporters too; the "
                "next request fails in the same way.")
BLOCKS_LOGS = ("The daemon keeps the log and sends it in every cycle. It blocks all later logs "
               "until 20 newer ones have pushed it out.")
UNPROVISIONS = ("The daemon deletes its refresh token. It drops all records until the cloud sends "
                "another authorization code.")
TRANSPORT = ("A transport error: the daemon keeps its records and sends them in the next cycle, "
             "where the same happens. Points are lost after 30 minutes.")


class Failure(Exception):
    """The cloud violates the rule; the text says what was seen."""


class Skip(Exception):
    """The rule cannot be tested; the text says why."""


@dataclass(frozen=True)
class Rule:
    name: str
    section: str
    # What the cloud must do; why; what the daemon does otherwise; how to fix it.
    demand: str
    reason: str
    consequence: str
    remedy: str
    check: Callable[[Cloud], None]
    # Rules that must pass first.
    needs: tuple[str, ...] = ()
    # Rules that run first, whatever their result.
    after: tuple[str, ...] = ()


def accepted(cloud: Cloud, answer: Answer, what: str) -> None:
    if not answer.is_success:
        raise Failure(f"{what}: answered with {cloud.quoted(answer)}")


def unauthorized(cloud: Cloud, answer: Answer, what: str) -> None:
    """The service must answer 401."""
    if answer.status != _UNAUTHORIZED:
        raise Failure(f"{what}: answered with {cloud.quoted(answer)}, not 401")


Check = TypeVar("Check", bound=Callable[[Cloud], None])
ALL: dict[str, Rule] = {}


def rule(name: str, section: str, demand: str, *, reason: str, consequence: str, remedy: str,
         needs: tuple[str, ...] = (), after: tuple[str, ...] = ()) -> Callable[[Check], Check]:
    """Adds the decorated function to the rules; those that it names must exist."""
    unknown = [one for one in (*needs, *after) if one not in ALL]
    if unknown or name in ALL:
        raise ValueError(f"{name}: exists, or needs unknown rules {unknown}")

    def add(check: Check) -> Check:
        ALL[name] = Rule(name, section, demand, reason, consequence, remedy, check, needs, after)
        return check
    return add
