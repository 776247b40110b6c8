"""Small loads on the reference cloud: the measurements find what they claim."""

import asyncio
from pathlib import Path

import pytest

from cloud.process import Cloud
from lab.bench.cloud import figures_of
from lab.bench.plan import Settings
from lab.cloud.load import Tally, cpu_seconds, devices_of, differences
from lab.fleet.load import arguments, measured
from tests.cloud.client import wait_until

pytestmark = pytest.mark.xdist_group("cloud")


def test_a_small_fleet_is_accounted_for(cloud: Cloud) -> None:
    wanted = arguments(["--devices", "4", "--interval", "1", "--minutes", "0.05", "--points", "5",
                        "--log-every", "2"])
    result, faults = measured(cloud, wanted)
    # Each has 3 cycles or more within 3 seconds, with a log in the second.
    assert (faults, result["unexplained"], result["failures"]) == ([], 0, {})
    assert 4 * (3 + 1) <= result["requests"] <= 4 * (4 + 2)
    assert 0 < result["median_ms"] <= result["longest_ms"]
    assert all(cost >= 0 for cost in result["cpu_ms_per_request"].values())
    assert 0 < result["cpu_ms_per_request"]["service"] < 1000


def test_a_record_that_is_lost_or_stored_twice_is_unexplained(cloud: Cloud) -> None:
    async def load() -> None:
        secret = cloud.client_secret_file.read_text()
        for device, code in zip(devices, cloud.provision_all([one.device for one in devices])):
            assert await device.provision(code, secret)
            await device.cycle(2, with_log=True)
            await device.close()

    devices = devices_of(cloud, 4, Tally())
    asyncio.run(load())
    wait_until(lambda: not differences(cloud, devices), "the samples")
    devices[0].points += 1
    devices[1].points -= 1
    devices[2].logs -= 1
    assert [fault.partition(":")[0] for fault in differences(cloud, devices)] == [
        device.device for device in devices[:3]]


def test_points_without_a_response_are_repeated_before_they_are_counted(
        cloud: Cloud, monkeypatch: pytest.MonkeyPatch) -> None:
    device, = devices_of(cloud, 1, Tally())
    post, unanswered = device._post, ["metrics:batchCreatePoints"]

    async def lose_first_response(path: str, *rest: str) -> tuple[int, bytes]:
        answer = await post(path, *rest)
        method = path.rpartition("/")[2]
        if method in unanswered:
            unanswered.remove(method)
            raise EOFError
        return answer

    async def load() -> None:
        code, = cloud.provision_all([device.device])
        assert await device.provision(code, cloud.client_secret_file.read_text())
        await device.cycle(2, with_log=True)
        assert (device.points, device.logs) == (0, 1)
        await device.settle()
        assert (device.points, device.logs) == (2, 1)
        await device.close()

    monkeypatch.setattr(device, "_post", lose_first_response)
    asyncio.run(load())
    wait_until(lambda: not differences(cloud, [device]), "the samples")


def test_a_device_without_a_token_is_a_failure(cloud: Cloud) -> None:
    tally = Tally()
    device, = devices_of(cloud, 1, tally)
    assert not asyncio.run(device.provision("unknown", cloud.client_secret_file.read_text()))
    assert tally.failures == {"exchange: 400": 1}


def test_the_requests_of_one_core_are_measured(cloud: Cloud, tmp_path: Path) -> None:
    before = cpu_seconds(cloud)
    typical, largest = figures_of(cloud, Settings(tmp_path, runs=1, shrink=6))
    assert (typical.key, largest.key) == ("cloud-typical", "cloud-largest")
    for figure in (typical, largest):
        assert figure.unit == "requests/s" and len(figure.ours) == 1
    # A request with 20 times the points costs more.
    assert min(typical.ours) > max(largest.ours) > 0
    assert cpu_seconds(cloud)["service"] > before["service"]
