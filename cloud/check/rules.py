"""What a rule is, and what the checks of several rules share."""

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from typing import TypeVar

from cloud.check.cloud import Cloud
from cloud.check.connection import Answer, Broken

_UNAUTHORIZED = 401

# Consequences that several rules share.
LOSES_POINTS = "The daemon drops all points of the request, those of all reporters."
BLOCKS_LOGS = "The log blocks later ones until 20 newer logs push it out of the queue."
UNPROVISIONS = ("The device loses its credentials, and drops all records until it gets another "
                "code.")
TRANSPORT = "A transport error: records wait for the next cycle, points for 30 minutes at most."


class Failure(Exception):
    """The cloud violates the rule; the text says what was seen."""


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


@contextmanager
def closing_is_failure() -> Iterator[None]:
    """For requests whose size or pace is why the service closes the connection."""
    try:
        yield
    except Broken as broken:
        if broken.rule != "response-complete":
            raise
        raise Failure(str(broken)) from None


Check = TypeVar("Check", bound=Callable[[Cloud], None])


class Section(list[Rule]):
    """Rules of one subject, in the order of their checks."""

    def __init__(self, title: str) -> None:
        super().__init__()
        self.title = title

    def rule(self, name: str, demand: str, *, reason: str, consequence: str, remedy: str,
             needs: tuple[str, ...] = (), after: tuple[str, ...] = ()) -> Callable[[Check], Check]:
        """Adds a rule that the decorated function checks."""
        def add(check: Check) -> Check:
            self.append(Rule(name, self.title, demand, reason, consequence, remedy, check, needs,
                             after))
            return check
        return add
