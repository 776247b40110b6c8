"""The reference cloud, with real stores, one for all tests of this folder."""

import os
from collections.abc import Iterator

import pytest

from cloud.process import Cloud
from lab.common.names import Host
from tests.cloud.client import Client


@pytest.fixture(scope="session")
def cloud() -> Iterator[Cloud]:
    with Cloud("--no-fsync", "--name", Host.IDENTITY) as one:
        yield one
        # Shown if a test fails.
        print(one.log("service"))


@pytest.fixture
def device_id(request: pytest.FixtureRequest) -> str:
    """A device of this test alone."""
    return f"{request.node.name[:60]}-{os.urandom(4).hex()}".replace("[", "-").replace("]", "")


@pytest.fixture
def client(cloud: Cloud, device_id: str) -> Client:
    """A provisioned device, as far as the cloud can tell."""
    return Client(cloud, device_id)
