"""What happens to a fleet, and when: all in upload intervals, so that a short run tells the same
story as a long one."""

import enum
from dataclasses import dataclass, replace

# Of the whole story below.
INTERVALS = 40
_SECONDS_TO_A_MINUTE = 60
# After which a daemon gives a request up.
REQUEST_SECONDS = 10
# How long a server commonly keeps an unused connection.
_USUAL_IDLE_SECONDS = 75.0
# When it is to have closed them all by the next cycle.
_SHORT_IDLE_INTERVALS = 0.2


class Manner(enum.Enum):
    """How the cloud deals with connections."""

    KEEP = "keeps unused connections"
    CLOSE = "closes unused connections before the next cycle"
    REFUSE = "refuses connections"
    SILENCE = "takes connections and never answers"

    @property
    def is_outage(self) -> bool:
        return self in (Manner.REFUSE, Manner.SILENCE)


@dataclass(frozen=True)
class Phase:
    name: str
    intervals: float
    manner: Manner
    # Whether no access token is good any more from its start.
    tokens_expire: bool = False


# The daemons tick at whole intervals after the power came; the half keeps the borders between.
STORY = (
    Phase("power-up", 2.5, Manner.KEEP),
    Phase("connections kept", 11, Manner.KEEP),
    Phase("connections closed", 8, Manner.CLOSE),
    Phase("first outage", 5, Manner.REFUSE),
    Phase("recovery", 4, Manner.KEEP),
    Phase("second outage", 5, Manner.SILENCE),
    Phase("recovery, tokens expired", 4.5, Manner.KEEP, tokens_expire=True),
)


def _without_silence(story: tuple[Phase, ...]) -> tuple[Phase, ...]:
    """When several requests of a daemon wait for an answer at a time, the first answer decides for
    the points of them all; what then became of a point can't be told from outside."""
    return tuple(replace(phase, manner=Manner.REFUSE) if phase.manner == Manner.SILENCE else phase
                 for phase in story)


@dataclass(frozen=True)
class Plan:
    """`interval` is in seconds; `rate` in records per second and device."""

    devices: int
    interval: int
    rate: float
    story: tuple[Phase, ...] = STORY

    @staticmethod
    def of(devices: int, minutes: float, rate: float) -> "Plan":
        interval = max(1, int(minutes * _SECONDS_TO_A_MINUTE / INTERVALS))
        return Plan(devices, interval, rate,
                    STORY if interval > REQUEST_SECONDS else _without_silence(STORY))

    @property
    def seconds(self) -> float:
        return self.interval * sum(phase.intervals for phase in self.story)

    def idle_seconds(self, manner: Manner) -> float:
        """After how long the cloud closes an unused connection."""
        if manner == Manner.CLOSE:
            return self.interval * _SHORT_IDLE_INTERVALS
        return max(_USUAL_IDLE_SECONDS, 2.0 * self.interval)
