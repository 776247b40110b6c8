"""The reference cloud: the requests per second that one instance serves with one core."""

import asyncio

from cloud.process import Cloud, CloudFailed
from lab.bench.figures import Figure
from lab.bench.plan import Settings, measures
from lab.cloud.load import LoadDevice, Tally, cpu_seconds, devices_of

_DEVICES = 16
_TYPICAL_POINTS = 50
_MOST_POINTS = 1000
_TYPICAL_CYCLES = 60
_CYCLES = 6
_WHATS = {"cloud-typical": f"reference cloud, one core, batches of {_TYPICAL_POINTS} points",
          "cloud-largest": f"reference cloud, one core, batches of {_MOST_POINTS} points"}


@measures(*_WHATS)
def capacity(settings: Settings) -> list[Figure]:
    """By the processor time of the service, so that the devices may share its processor."""
    try:
        with Cloud() as cloud:
            return figures_of(cloud, settings)
    except (CloudFailed, OSError) as error:
        return [Figure(key, what, "requests/s", why=str(error)) for key, what in _WHATS.items()]


def figures_of(cloud: Cloud, settings: Settings) -> list[Figure]:
    runs = asyncio.run(_runs(cloud, settings))
    return [Figure(key, what, "requests/s", None, tuple(rates))
            for (key, what), rates in zip(_WHATS.items(), runs, strict=True)]


async def _runs(cloud: Cloud, settings: Settings) -> tuple[list[float], list[float]]:
    tally = Tally()
    devices = devices_of(cloud, _DEVICES, tally)
    secret = cloud.client_secret_file.read_text()
    for device, code in zip(devices, cloud.provision_all([one.device for one in devices])):
        await device.provision(code, secret)
    typical, largest = [], []
    for _ in range(settings.runs):
        typical.append(await _rate(cloud, devices, _TYPICAL_POINTS,
                                   settings.scaled(_TYPICAL_CYCLES)))
        largest.append(await _rate(cloud, devices, _MOST_POINTS, settings.scaled(_CYCLES)))
    if tally.failures:
        raise OSError(f"failed requests: {dict(tally.failures)}")
    for device in devices:
        await device.close()
    return typical, largest


async def _rate(cloud: Cloud, devices: list[LoadDevice], points: int, cycles: int) -> float:
    """Requests per second of the service's processor time."""
    async def work(device: LoadDevice) -> None:
        for _ in range(cycles):
            await device.cycle(points, with_log=False)

    before = (await asyncio.to_thread(cpu_seconds, cloud))["service"]
    await asyncio.gather(*map(work, devices))
    return len(devices) * cycles / ((await asyncio.to_thread(cpu_seconds, cloud))["service"]
                                    - before)
