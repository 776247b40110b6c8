"""Set-up of every test."""

import signal

import pytest

from lab.common import certificates

# A shell starts background jobs with SIGINT ignored, and the programs that the tests interrupt
# would inherit that.
signal.signal(signal.SIGINT, signal.default_int_handler)


def pytest_configure(config: pytest.Config) -> None:
    """One set of certificates for all the processes among which the tests are divided."""
    if not hasattr(config, "workerinput"):
        certificates.share()
