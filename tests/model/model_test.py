"""Random sequences of events; after each event the daemon must have done what the model requires.

    /usr/bin/python3 -m pytest tests/model --hypothesis-seed=7    # other sequences
    PELMOR_MODEL_STEPS=200000 /usr/bin/python3 -m pytest -n2 tests/model
"""

import os
from collections.abc import Callable

import hypothesis
import pytest
from hypothesis import HealthCheck, Phase, settings
from hypothesis.stateful import run_state_machine_as_test

from tests.model.machine import DeviceMachine
from tests.model.comparison import Bench

STEPS = int(os.environ.get("PELMOR_MODEL_STEPS", "2000"))
# They run in parallel, each with its part of the steps.
SHARDS = 4
STEPS_A_SEQUENCE = 50
# Per device and seed. The first ten sequences are short.
SEQUENCES_A_ROUND = 22

# "no" skips the search for the shortest sequence, which takes minutes.
PHASES = [Phase.generate] if os.environ.get("PELMOR_MODEL_SHORTEST") == "no" else list(Phase)

SETTINGS = settings(
    max_examples=SEQUENCES_A_ROUND, stateful_step_count=STEPS_A_SEQUENCE, database=None,
    phases=PHASES, deadline=None, suppress_health_check=list(HealthCheck), print_blob=False)


@pytest.fixture
def first_seed(request: pytest.FixtureRequest) -> int:
    """The same in every run, unless the option sets another."""
    return int(request.config.getoption("--hypothesis-seed") or 0)


def run_round(seed: int, chosen: settings = SETTINGS) -> int:
    """Returns the number of steps."""
    with Bench() as bench:
        @hypothesis.seed(seed)
        def machine() -> DeviceMachine:
            return DeviceMachine(bench)

        try:
            run_state_machine_as_test(machine, settings=chosen)
        except BaseException:
            print(f"To reproduce: --hypothesis-seed={seed} -k shard0")
            raise
        return bench.steps


@pytest.mark.parametrize("shard", range(SHARDS), ids=lambda shard: f"shard{shard}")
def test_the_daemon_does_what_the_model_says(
        shard: int, first_seed: int, record_property: Callable[[str, object], None]) -> None:
    steps = 0
    seed = first_seed + shard
    while steps < STEPS // SHARDS:
        steps += run_round(seed)
        seed += SHARDS
    record_property("steps", steps)
