"""A failing sequence is reported as it is: the difference, and the shortest sequence with it."""

from functools import partial
from unittest.mock import MagicMock

import pytest
from hypothesis import settings

from tests.model import comparison
from tests.model.model_test import SETTINGS, run_round

pytestmark = pytest.mark.plain_build("a test of the model's machine, without a daemon")
DIFFERENCE = "the daemon: 1, the model: 2"


class FakeDevice:
    """Fails its start while its daemon runs."""

    def __init__(self, **_: object) -> None:
        self._runs = False

    def __enter__(self) -> "FakeDevice":
        return self

    def __exit__(self, *_: object) -> None:
        pass

    def start_daemon(self) -> None:
        if self._runs:
            raise RuntimeError("the daemon runs already")
        self._runs = True

    def stop_daemon(self) -> None:
        self._runs = False


def differing(verb: str, device: FakeDevice) -> MagicMock:
    """In place of a `Comparison`: finds a difference in one of its verbs."""
    pair = MagicMock()
    pair.start.side_effect = lambda _: device.start_daemon()
    pair.end.side_effect = device.stop_daemon
    getattr(pair, verb).side_effect = AssertionError(DIFFERENCE)
    return pair


@pytest.mark.parametrize("verb", ["answer_all_well", "empty", "end"])
def test_a_difference_is_reported_with_the_shortest_sequence(
        monkeypatch: pytest.MonkeyPatch, verb: str) -> None:
    monkeypatch.setattr(comparison, "Device", FakeDevice)
    monkeypatch.setattr(comparison, "Comparison", partial(differing, verb))
    with pytest.raises(AssertionError, match=DIFFERENCE) as raised:
        run_round(0, settings(SETTINGS, max_examples=5, stateful_step_count=1))
    assert any("state.first_start(period=7, provisioned=True, well=True)" in note
               for note in raised.value.__notes__)
