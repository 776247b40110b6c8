"""For all tests."""

import signal

import pytest

from lab.common import certificates

# A shell has what it runs in the background ignore an interrupt, and that would be handed on to the
# programs that the tests interrupt.
signal.signal(signal.SIGINT, signal.default_int_handler)


def pytest_configure(config: pytest.Config) -> None:
    """One set of certificates for all the processes among which the tests are divided."""
    if not hasattr(config, "workerinput"):
        certificates.share()
