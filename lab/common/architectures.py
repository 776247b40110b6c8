"""The processors that the tree is cross-compiled for, and which of them a program is for."""

import functools
import struct
from dataclasses import dataclass
from pathlib import Path

from lab.common.tree import ROOT

_TABLE = ROOT / "packaging/cross/architectures"
_ELF_MAGIC = b"\x7fELF"
_ELF_BYTE_ORDER_OFFSET = 5
_ELF_BIG_ENDIAN = 2
_ELF_MACHINE_OFFSET = 18


@dataclass(frozen=True)
class Architecture:
    """A line of packaging/cross/architectures."""

    name: str
    triplet: str
    qemu: str
    processor: str
    machine: int

    @property
    def emulator(self) -> str:
        return f"qemu-{self.qemu}-static"

    @property
    def default_sysroot(self) -> Path:
        return ROOT / "build/sysroot" / self.name


@functools.cache
def all_of_them() -> tuple[Architecture, ...]:
    lines = [line.split() for line in _TABLE.read_text().splitlines() if line[:1] not in ("#", "")]
    return tuple(Architecture(*names, int(machine)) for *names, machine in lines)


def named(name: str) -> Architecture:
    [found] = [each for each in all_of_them() if each.name == name]
    return found


def of_program(program: Path) -> Architecture | None:
    """The architecture that a program must be emulated for; None for any other file."""
    with program.open("rb") as file:
        head = file.read(_ELF_MACHINE_OFFSET + 2)
    if not head.startswith(_ELF_MAGIC) or len(head) < _ELF_MACHINE_OFFSET + 2:
        return None
    order = ">" if head[_ELF_BYTE_ORDER_OFFSET] == _ELF_BIG_ENDIAN else "<"
    [machine] = struct.unpack_from(f"{order}H", head, _ELF_MACHINE_OFFSET)
    return next((each for each in all_of_them() if each.machine == machine), None)
