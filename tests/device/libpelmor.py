"""Puts libpelmor on a device."""

from pathlib import Path

from lab.device.device import Device, find_daemon

FOLDER = "/opt/reporter"
# What runs a program with it.
ENVIRONMENT = ("env", f"LD_LIBRARY_PATH={FOLDER}")


def built(name: str) -> Path:
    """A file of the clients in the build that has the daemon under test."""
    return find_daemon().resolve().parents[2] / "client" / name


def add(device: Device) -> None:
    device.write_file(f"{FOLDER}/libpelmor.so.0", built("libpelmor.so.0").read_bytes())
