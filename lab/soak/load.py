"""The records of the run, and those that the cloud received."""

import random
import time
from dataclasses import dataclass, field

from lab.common.errors import LabError
from lab.common.names import Endpoint
from lab.device.device import Device
from lab.soak.minute import is_quiet

# Seconds between two batches of points; every so many batches contain logs.
PAUSE = 0.25
_BATCHES_TO_A_LOG = 20
_MOST_POINTS = 20
# Distinguishes its points from those of a flood.
_PREFIX = "ap/soak/"
# The bus rejects a call with this error while the daemon's queue is full.
_FULL = "org.freedesktop.DBus.Error.LimitsExceeded"
_BANDS = ("2g", "5g", "6g")


@dataclass
class Load:
    """Numbers its points, so that each can be found at the cloud."""

    device: Device
    recorded: int = 0
    batches: int = 0
    # Batches in which the bus rejected calls.
    rejected: int = 0
    # Of synchronous calls, in seconds, with the time of each.
    latencies: list[tuple[float, float]] = field(default_factory=list)
    _random: random.Random = field(default_factory=lambda: random.Random(1))

    def batch(self, now: float) -> None:
        """In a quiet time no call may be rejected."""
        try:
            self._record(now)
        except LabError as error:
            if _FULL not in str(error) or is_quiet(now):
                raise
            self.rejected += 1
        self.batches += 1

    def _record(self, now: float) -> None:
        count = self._random.randint(1, _MOST_POINTS)
        self.device.record_metrics([self._point() for _ in range(count)])
        began = time.monotonic()
        self.device.record_metric(*self._point())
        self.latencies.append((now, time.monotonic() - began))
        if self.batches % _BATCHES_TO_A_LOG == 0:
            data = self._random.randbytes(self._random.randint(0, 4096))
            self.device.record_structured("type.quintara.example/soak", data)
            self.device.record_offline("type.quintara.example/soak", data)

    def _point(self) -> tuple[str, dict[str, str], float | int]:
        self.recorded += 1
        name = f"{_PREFIX}{self.recorded % 7}"
        labels = {"band": self._random.choice(_BANDS), "number": str(self.recorded)}
        return name, labels, self._random.choice((self.recorded, self.recorded / 7))


def uploaded(device: Device) -> dict[int, int]:
    """How often each point, by its number, arrived at the cloud."""
    seen: dict[int, int] = {}
    for request in device.cloud.requests(Endpoint.METRICS):
        for group in request.json["metricPoints"]:
            if not group["metricName"].startswith(_PREFIX):
                continue
            for point in group["points"]:
                number = int(point["labels"]["number"])
                seen[number] = seen.get(number, 0) + 1
    return seen
