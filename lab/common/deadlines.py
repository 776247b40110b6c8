"""The one place where deadlines are scaled: under emulation everything takes longer."""

import os

# Not below one: the tests' own deadlines are the least that a machine is given.
FACTOR = max(1.0, float(os.environ.get("PELMOR_DEADLINE_FACTOR", "1")))


def scaled(seconds: float) -> float:
    """The seconds to wait on this machine for what others do within `seconds`."""
    return seconds * FACTOR
