"""The shipped binaries are hardened."""

import re
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest

from lab.common.tree import ROOT

BUILD = ROOT / "build/release"
BINARIES = {"ap-pelmor": BUILD / "ap/pelmor/ap-pelmor",
            "pelmorctl": BUILD / "pelmorctl/pelmorctl"}


def output_of(*command: str | Path) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def dynamic(binary: Path) -> str:
    return output_of("readelf", "-dW", binary)


def segment_flags(binary: Path, kind: str) -> list[str]:
    """The access that each segment of a kind has: some of "R", "W" and "E"."""
    found = re.findall(rf"^ +{kind} +(?:0x\w+ +){{5}}([RWE ]{{3}})",
                       output_of("readelf", "-lW", binary), re.MULTILINE)
    return [flags.replace(" ", "") for flags in found]


def imports(binary: Path) -> set[str]:
    symbols = output_of("nm", "-D", "--undefined-only", "--format=just-symbols", binary)
    return {symbol.split("@")[0] for symbol in symbols.split()}


def is_position_independent(binary: Path) -> bool:
    return (bool(re.search(r"Type: +DYN", output_of("readelf", "-h", binary)))
            and bool(re.search(r"FLAGS_1.*\bPIE\b", dynamic(binary))))


def has_read_only_tables(binary: Path) -> bool:
    return segment_flags(binary, "GNU_RELRO") == ["R"]


def binds_at_once(binary: Path) -> bool:
    return bool(re.search(r"FLAGS_1.*\bNOW\b", dynamic(binary)))


def guards_its_stack(binary: Path) -> bool:
    return "__stack_chk_fail" in imports(binary)


def checks_library_calls(binary: Path) -> bool:
    return any(re.fullmatch(r"__\w+_chk", name) for name in imports(binary))


def has_no_executable_stack(binary: Path) -> bool:
    return segment_flags(binary, "GNU_STACK") == ["RW"]


def has_no_writable_code(binary: Path) -> bool:
    loaded = segment_flags(binary, "LOAD")
    return loaded != [] and "RWE" not in loaded and "TEXTREL" not in dynamic(binary)


def looks_for_libraries_nowhere_else(binary: Path) -> bool:
    return "RPATH" not in dynamic(binary) and "RUNPATH" not in dynamic(binary)


# By protection, the options of a build without it.
PROTECTIONS: dict[Callable[[Path], bool], list[str]] = {
    is_position_independent: ["-no-pie"],
    has_read_only_tables: ["-Wl,-z,norelro"],
    binds_at_once: ["-Wl,-z,lazy"],
    guards_its_stack: ["-fno-stack-protector"],
    checks_library_calls: ["-U_FORTIFY_SOURCE"],
    has_no_executable_stack: ["-Wl,-z,execstack"],
    has_no_writable_code: ["-Wl,-z,notext", "-DCODE_WITH_A_POINTER"],
    looks_for_libraries_nowhere_else: ["-Wl,-rpath,/opt/lib"],
}
HARDENED = ["-O2", "-fPIE", "-pie", "-fstack-protector-strong", "-D_FORTIFY_SOURCE=2",
            "-Wl,-z,relro,-z,now,-z,noexecstack"]
PROGRAM = """\
#include <string.h>
#ifdef CODE_WITH_A_POINTER
__asm__(".pushsection .text; .quad main; .popsection");
#endif
int main(int count, char **arguments) {
  char text[16];
  strcpy(text, arguments[count - 1]);
  return text[0];
}
"""


def compiled(folder: Path, *options: str) -> Path:
    (folder / "program.c").write_text(PROGRAM)
    program = folder / "program"
    subprocess.run(["gcc", *HARDENED, *options, folder / "program.c", "-o", program], check=True,
                   stderr=subprocess.DEVNULL)
    return program


@pytest.mark.parametrize("protection", PROTECTIONS, ids=lambda one: one.__name__)
@pytest.mark.parametrize("name", BINARIES)
def test_the_shipped_binaries_are_hardened(name: str, protection: Callable[[Path], bool]) -> None:
    assert protection(BINARIES[name])


@pytest.mark.parametrize("protection", PROTECTIONS, ids=lambda one: one.__name__)
def test_a_missing_protection_is_detected(
        tmp_path: Path, protection: Callable[[Path], bool]) -> None:
    assert protection(compiled(tmp_path))
    assert not protection(compiled(tmp_path, *PROTECTIONS[protection]))
