"""The phases of a run, in upload intervals, so that short and long runs have the same course."""

import enum
from dataclasses import dataclass, replace

# The sum of the phases below.
INTERVALS = 40
_SECONDS_TO_A_MINUTE = 60
# The time limit of a request of the daemon.
REQUEST_SECONDS = 10
# How long a server commonly keeps an unused connection.
_USUAL_IDLE_SECONDS = 75.0
# So short that all connections are closed before the next cycle.
_SHORT_IDLE_INTERVALS = 0.2


class CloudMode(enum.Enum):
    """How the cloud treats connections."""

    KEEP = "keeps unused connections"
    CLOSE = "closes unused connections before the next cycle"
    REFUSE = "refuses connections"
    SILENCE = "takes connections and never answers"

    @property
    def is_outage(self) -> bool:
        return self in (CloudMode.REFUSE, CloudMode.SILENCE)


@dataclass(frozen=True)
class Phase:
    name: str
    intervals: float
    mode: CloudMode
    # Whether all access tokens expire at its start.
    tokens_expire: bool = False


# The daemons tick at whole intervals after power-up; the half keeps ticks away from the borders.
PHASES = (
    Phase("power-up", 2.5, CloudMode.KEEP),
    Phase("connections kept", 11, CloudMode.KEEP),
    Phase("connections closed", 8, CloudMode.CLOSE),
    Phase("first outage", 5, CloudMode.REFUSE),
    Phase("recovery", 4, CloudMode.KEEP),
    Phase("second outage", 5, CloudMode.SILENCE),
    Phase("recovery, tokens expired", 4.5, CloudMode.KEEP, tokens_expire=True),
)


def _without_silence(phases: tuple[Phase, ...]) -> tuple[Phase, ...]:
    """If several requests of a daemon are in flight, the first answer decides on the points of all
    of them, so that the fate of a point cannot be observed from outside."""
    return tuple(replace(phase, mode=CloudMode.REFUSE) if phase.mode == CloudMode.SILENCE else phase
                 for phase in phases)


@dataclass(frozen=True)
class Plan:
    """`interval` is in seconds; `rate` in records per second and device."""

    devices: int
    interval: int
    rate: float
    phases: tuple[Phase, ...] = PHASES

    @staticmethod
    def of(devices: int, minutes: float, rate: float) -> "Plan":
        interval = max(1, int(minutes * _SECONDS_TO_A_MINUTE / INTERVALS))
        return Plan(devices, interval, rate,
                    PHASES if interval > REQUEST_SECONDS else _without_silence(PHASES))

    @property
    def seconds(self) -> float:
        return self.interval * sum(phase.intervals for phase in self.phases)

    def idle_seconds(self, mode: CloudMode) -> float:
        """The time after which the cloud closes an unused connection."""
        if mode == CloudMode.CLOSE:
            return self.interval * _SHORT_IDLE_INTERVALS
        return max(_USUAL_IDLE_SECONDS, 2.0 * self.interval)
