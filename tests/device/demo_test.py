"""The output of the demo."""

import subprocess
import sys
from pathlib import Path

import pytest

from lab.common.tree import ROOT
from lab.device.device import find_daemon

pytestmark = pytest.mark.plain_build("a test of the demo: a sanitized daemon adds nothing")


def run_demo(daemon: Path | str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([sys.executable, "-m", "lab.device.demo", "--daemon", daemon], cwd=ROOT,
                          capture_output=True, text=True, check=False)


def test_the_demo_prints_each_step_in_order_and_the_request_of_the_cloud() -> None:
    demo = run_demo(find_daemon())
    assert demo.returncode == 0, demo.stdout + demo.stderr
    at = 0
    for step in ("device up", "daemon started", "credentials arrived", "code exchanged",
                 "refresh token and access token received", "time from network", "recorded",
                 "upload cycle: the device is registered", "request received",
                 "POST https://pelmor.quintara.example/v1/devices/device-0001/"
                 "metrics:batchCreatePoints",
                 '"metricName": "ap/clients"', "The daemon's own metrics:"):
        found = demo.stdout.find(step, at)
        assert found >= 0, f"{step!r} does not follow in:\n{demo.stdout}"
        at = found


def test_the_demo_prints_no_secret() -> None:
    demo = run_demo(find_daemon())
    assert "authorization: Bearer ********" in demo.stdout
    for secret in ("code-1", "secret-1", "refresh-1", "access-1"):
        assert secret not in demo.stdout + demo.stderr, secret


def test_a_step_that_does_not_happen_is_named() -> None:
    demo = run_demo("/bin/true")
    assert demo.returncode == 1
    assert "The demo failed. The daemon did not start" in demo.stderr
    assert "daemon.exited  code=0" in demo.stderr
