"""Puts libpelmor and its Python package on a device."""

from pathlib import Path

from lab.common.tree import ROOT
from lab.device.device import Device, find_daemon

PACKAGE = ROOT / "client/python/pelmor"
FOLDER = "/opt/reporter"
# What runs a program with both.
ENVIRONMENT = ("env", f"LD_LIBRARY_PATH={FOLDER}", f"PYTHONPATH={FOLDER}")


def built(name: str) -> Path:
    """A file of the clients in the build that has the daemon under test."""
    return find_daemon().resolve().parents[2] / "client" / name


def add(device: Device) -> None:
    device.write_file(f"{FOLDER}/libpelmor.so.0", built("libpelmor.so.0").read_bytes())
    for source in PACKAGE.glob("*.py"):
        device.write_file(f"{FOLDER}/pelmor/{source.name}", source.read_bytes())
