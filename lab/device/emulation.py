"""A daemon for another processor, in the same sandbox: qemu-user runs it, with the libraries of its
architecture's sysroot.

It does not depend on the kernel's binfmt_misc: each emulated program is replaced by a launcher, a
program of the machine's own. PELMOR_SYSROOT overrides build/sysroot/ARCHITECTURE."""

import os
import shutil
import subprocess
from pathlib import Path

from lab.common.architectures import Architecture, of_program
from lab.common.errors import LabError

_LAUNCHER_SOURCE = Path(__file__).resolve().parent / "emulate.c"
# In the sandbox.
_PROGRAMS_FOLDER = "/opt/emulated"
_SYSROOT = "/opt/sysroot"
_LIBRARY_FOLDERS = ("lib", "usr/lib")


def compiler(architecture: Architecture | None) -> list[str]:
    """The command of the C compiler for that architecture, or for the machine's own."""
    if not architecture:
        return ["gcc"]
    return [f"{architecture.triplet}-gcc", f"--sysroot={_sysroot_of(architecture)}"]


def command(program: Path, place: str) -> list[str]:
    """What runs, in the sandbox, the machine's `program` that is written to `place` there."""
    architecture = of_program(program)
    if not architecture:
        return [place]
    return [_emulator(architecture), _loader(architecture), "--library-path",
            _libraries(architecture), place]


def threads_of_its_own(program: Path) -> int:
    """How many threads a process has besides those of the program that it runs."""
    return 1 if of_program(program) else 0


def binds_of_programs(programs: dict[str, Path], made_in: Path) -> list[str]:
    """What bubblewrap is to bind so that each of `programs` can be started at its place. A launcher
    that has to be compiled is left in the folder `made_in`."""
    binds: list[str] = []
    emulated = None
    for place, program in programs.items():
        if architecture := of_program(program):
            emulated = architecture
            binds += ["--ro-bind", str(program), f"{_PROGRAMS_FOLDER}/{Path(place).name}",
                      "--ro-bind", str(_launcher(architecture, made_in)), place]
        else:
            binds += ["--ro-bind", str(program), place]
    return binds + (_binds_of_libraries(emulated) if emulated else [])


def _sysroot_of(architecture: Architecture) -> Path:
    sysroot = Path(os.environ.get("PELMOR_SYSROOT") or architecture.default_sysroot).resolve()
    if not (sysroot / "usr/lib" / architecture.triplet).is_dir():
        raise LabError(f"No libraries for {architecture.name} in {sysroot}: "
                       f"packaging/cross/sysroot {architecture.name} makes them, or name others in "
                       "PELMOR_SYSROOT")
    return sysroot


def _binds_of_libraries(architecture: Architecture) -> list[str]:
    sysroot = _sysroot_of(architecture)
    return [word for folder in _LIBRARY_FOLDERS
            for word in ("--ro-bind", str(sysroot / folder), f"{_SYSROOT}/{folder}")]


def _launcher(architecture: Architecture, made_in: Path) -> Path:
    launcher = made_in / f"emulate-{architecture.name}"
    if not launcher.exists():
        subprocess.run(["gcc", "-std=c11", "-O2", "-static",
                        f'-DEMULATOR="{_emulator(architecture)}"',
                        f'-DLOADER="{_loader(architecture)}"',
                        f'-DLIBRARIES="{_libraries(architecture)}"',
                        f'-DEMULATED_FOLDER="{_PROGRAMS_FOLDER}"', "-o", launcher,
                        _LAUNCHER_SOURCE], check=True)
    return launcher


def _loader(architecture: Architecture) -> str:
    """In the sandbox, what loads the architecture's programs."""
    [loader] = (_sysroot_of(architecture) / "lib").glob("ld*.so.*")
    return f"{_SYSROOT}/lib/{loader.name}"


def _libraries(architecture: Architecture) -> str:
    return ":".join(f"{_SYSROOT}/{folder}/{architecture.triplet}" for folder in _LIBRARY_FOLDERS)


def _emulator(architecture: Architecture) -> str:
    emulator = shutil.which(architecture.emulator)
    if not emulator:
        raise LabError(f"No emulator for {architecture.name}: install the Debian package "
                       "qemu-user-static")
    return emulator
