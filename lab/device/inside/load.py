"""A load of metric points: waves, recorded at a constant rate for a given time."""

import asyncio
import itertools
import math
import time
from typing import Any

from lab.common import names
from lab.device.inside.part import Report, verb
from lab.device.inside.reporter import Reporter
from lab.device.values import double

# How often the points that have become due are recorded.
_BEAT = 0.1
_PERIOD = 40.0
_MEAN = 50.0
_SWING = 30.0


class Load:
    def __init__(self, report: Report, reporter: Reporter) -> None:
        self._report = report
        self._reporter = reporter
        self._task: asyncio.Task | None = None

    @verb
    async def start(self, rate: float, metrics: list[str], label_sets: list[dict[str, str]],
                    seconds: float) -> None:
        """Records `rate` points per second, of each metric and label set in turn; replaces the
        load that runs. A daemon that replies slowly gets fewer."""
        await self.stop()
        self._report("load.started", rate=rate, seconds=seconds)
        series = [(metric, labels) for metric in metrics for labels in label_sets]
        self._task = asyncio.create_task(self._run(rate, series, seconds))

    @verb
    async def stop(self) -> None:
        task, self._task = self._task, None
        if task:
            task.cancel()
            await asyncio.wait([task])

    async def _run(self, rate: float, series: list[tuple[str, dict]], seconds: float) -> None:
        began = time.monotonic()
        turns = itertools.cycle(enumerate(series))
        recorded = failed = 0
        try:
            while (passed := time.monotonic() - began) < seconds:
                due = int(passed * rate) - recorded
                # Points that a slow daemon missed are not recorded later.
                burst = min(due, math.ceil(2 * _BEAT * rate))
                replies = await asyncio.gather(
                    *(self._record(passed, *next(turns)) for _ in range(burst)))
                recorded += due
                failed += replies.count(False)
                await asyncio.sleep(_BEAT)
        finally:
            self._report("load.ended", recorded=recorded, failed=failed)

    async def _record(self, passed: float, number: int, series: tuple[str, dict]) -> bool:
        wave = math.sin(2 * math.pi * passed / _PERIOD + number)
        value = round(_MEAN + _SWING * wave + 3 * math.sin(7 * passed + number), 2)
        arguments: list[Any] = [*series, double(value)]
        try:
            reply = await self._reporter.call(
                names.DAEMON_SERVICE, names.DAEMON_PATH, names.DAEMON_INTERFACE, "RecordMetric",
                "sa{ss}v", arguments)
        except (asyncio.TimeoutError, ConnectionError):
            return False
        return not reply["error"]
