"""Scales deadlines, because everything takes longer under emulation."""

import os

# At least 1: no machine gets less time than the tests state.
FACTOR = max(1.0, float(os.environ.get("PELMOR_DEADLINE_FACTOR", "1")))


def scaled(seconds: float) -> float:
    """The seconds to wait on this machine for an event that is due within `seconds`."""
    return seconds * FACTOR
