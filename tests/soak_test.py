"""The findings of the soak run."""


import pytest

from lab.common.errors import LabError
from lab.soak import samples, verdict

STATUS = """\
FDSize:	64
VmHWM:	   25472 kB
VmRSS:	   15240 kB
RssAnon:	    2112 kB
Threads:	1
"""
# A sample each five seconds, for an hour.
TIMES = [5.0 * number for number in range(720)]


def series(rss: list[int]) -> list[samples.Sample]:
    return [samples.Sample(time, one, 2000, 20000, 64, 1)
            for time, one in zip(TIMES, rss, strict=True)]


def test_a_sample_is_read_from_proc() -> None:
    assert samples.parse(STATUS, 5.0) == samples.Sample(5.0, 15240, 2112, 25472, 64, 1)
    with pytest.raises(LabError, match="No Threads in"):
        samples.parse(STATUS.replace("Threads", "Processes"), 5.0)


def test_a_straight_line_is_fitted() -> None:
    trend = samples.fit([0.0, 10.0, 20.0, 30.0], [100.0, 110.0, 120.0, 130.0])
    assert (trend.mean, trend.growth) == pytest.approx((115, 30))
    assert trend.noise == pytest.approx(0, abs=1e-9)
    assert samples.fit([0.0, 1.0, 2.0], [1.0, 4.0, 1.0]).noise > 1


@pytest.mark.parametrize(("rss", "good"), [
    pytest.param([15000] * 720, True, id="flat"),
    pytest.param([15000 + 400 * (number % 2) for number in range(720)], True, id="up and down"),
    pytest.param([12000] * 100 + [15000] * 620, True, id="grows while it warms up"),
    pytest.param([15000 + number for number in range(720)], False, id="leaks 1 kB a second or so"),
    pytest.param([16000 - number for number in range(720)], True, id="shrinks"),
    pytest.param([15000 + (number % 12 < 5) * 20 * number for number in range(720)], True,
                 id="grows in faults, which are over by the quiet times"),
])
def test_memory_must_not_grow_after_the_warm_up(rss: list[int], good: bool) -> None:
    found = {finding.what: finding for finding in verdict.judge(series(rss))}
    assert found["RSS"].good is good
    assert found["anonymous"].good


@pytest.mark.parametrize(("peak", "good"), [(32 * 1024, True), (32 * 1024 + 1, False)])
def test_half_of_the_allowed_memory_is_never_exceeded(peak: int, good: bool) -> None:
    found = verdict.peak([samples.Sample(5.0, 15000, 2000, peak, 64, 1)])
    assert found.good is good
    assert str(peak) in found.text


@pytest.mark.parametrize(("values", "good"), [
    ([12, 14, 12] * 10, True), ([12] * 10 + [14] * 10 + [13] * 10, False),
    ([14] + [12] * 29, True)])
def test_descriptors_may_vary_but_not_accumulate(values: list[int], good: bool) -> None:
    assert verdict.count("descriptors", values).good is good


def test_calls_must_not_become_slower() -> None:
    assert verdict.latency([0.001] * 30).good
    assert verdict.latency([0.001] * 20 + [0.0014] * 10).good
    assert not verdict.latency([0.001] * 20 + [0.0016] * 10).good


def test_a_point_of_a_quiet_time_must_arrive_and_may_arrive_twice() -> None:
    assert verdict.points({1: 48.0, 2: 49.0}, {1: 1, 2: 3, 7: 1}, 9).good
    missing = verdict.points({1: 48.0, 2: 169.5, 3: 170.0}, {1: 1}, 9)
    assert not missing.good
    assert missing.text.endswith("of the 3 recorded in quiet times 2 are missing, the first 2, of "
                                 "minute 3, second 49.5")
