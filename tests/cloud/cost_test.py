"""What the reference cloud costs, as docs/fleet.md states it."""

import json

from lab.common.tree import ROOT
from lab.fleet import projection

PAGE = (ROOT / "docs/fleet.md").read_text()


def test_the_instances_follow_from_the_cost_of_a_request() -> None:
    cost = projection.CloudCost.of({"cpu_ms_per_request": {
        "service": 2.5, "postgresql": 1, "victoria-metrics": 0.1}})
    case = projection.Case(devices=1_000_000, interval=600, logs=0.5, spread=30)
    # 2500 requests a second, and 50,000; half of each processor.
    assert [line.value for line in projection.cloud_lines(cost, case)] == [
        "13", "250", "5", "1"]


def test_the_page_projects_the_measured_cost_of_the_cloud() -> None:
    result = json.loads((ROOT / "docs/fleet/cloud.json").read_text())
    assert (result["unexplained"], result["failures"]) == (0, {})
    cost = projection.CloudCost.of(result)
    assert projection.cloud_inputs(cost) in PAGE
    assert projection.cloud_table(cost, projection.Case()) in PAGE
    devices = f"{result['devices']:,}".replace(",", " ")
    assert (f"{devices} devices with {result['points']} points in"
            f" {result['interval']:g} s") in PAGE
