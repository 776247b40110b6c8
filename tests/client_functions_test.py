"""The C header, its examples, and the lists of its functions elsewhere."""

import ctypes
import importlib
import re
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest

from lab.common.tree import ROOT
from tests.client_test import SYMBOLS
from tests.python_client_test import load_package

HEADER = ROOT / "client/pelmor/pelmor.h"
TYPES = {
    "void": None, "int": ctypes.c_int, "bool": ctypes.c_bool, "double": ctypes.c_double,
    "size_t": ctypes.c_size_t, "uint32_t": ctypes.c_uint32, "int64_t": ctypes.c_int64,
    "uint64_t": ctypes.c_uint64, "const char*": ctypes.c_char_p,
    # The package passes bytes.
    "const void*": ctypes.c_char_p, "pelmor_client*": ctypes.c_void_p,
    "const pelmor_client*": ctypes.c_void_p,
    "pelmor_client**": ctypes.POINTER(ctypes.c_void_p),
}


def prototypes() -> dict[str, tuple[str, ...]]:
    """The types of the result and of the arguments of each function in the header."""
    text = re.sub(r"//.*|#.*", "", HEADER.read_text())
    found = re.findall(r"^([\w ]+\*?) ?(pelmor_\w+)\(([^)]*)\);", text, re.MULTILINE)
    return {name: (result.strip(), *(" ".join(re.sub(r"\w+$", "", argument).split())
                                     for argument in arguments.split(",") if argument != "void"))
            for result, name, arguments in found}


def header_example() -> str:
    lines = HEADER.read_text().split("\n//\n")[1].splitlines()
    return "\n".join(line.removeprefix("//") for line in lines)


def readme_example() -> str:
    [example] = re.findall(r"```c\n(.*?)```", (ROOT / "README.md").read_text(), re.DOTALL)
    return example


@pytest.mark.parametrize("example", [header_example, readme_example])
@pytest.mark.parametrize("compiler", ["gcc", "clang"])
def test_an_example_compiles_in_strict_c99(example: Callable[[], str], compiler: str,
                                           tmp_path: Path) -> None:
    source = tmp_path / "main.c"
    source.write_text("#include <pelmor/pelmor.h>\n#include <stdio.h>\n#include <string.h>\n"
                      f"int main(void) {{\n{example()}\nreturn 0;\n}}\n")
    assert "pelmor_open" in source.read_text()
    compiled = subprocess.run(
        [compiler, "-std=c99", "-pedantic", "-Wall", "-Wextra", "-Wstrict-prototypes",
         "-Wc++-compat", "-Werror", "-fsyntax-only", f"-I{ROOT / 'client'}", source],
        check=False, capture_output=True, text=True)
    assert compiled.returncode == 0, compiled.stderr


def test_the_lists_of_the_c_librarys_functions_agree() -> None:
    functions = set(prototypes())
    assert len(functions) > 10
    exported = re.findall(r"^    (pelmor_\w+);$", (ROOT / "client/libpelmor.map").read_text(),
                          re.MULTILINE)
    packaged = re.findall(r"^ (pelmor_\w+)@", SYMBOLS.read_text(), re.MULTILINE)
    checked = re.findall(r"kIs<(pelmor_\w+),", (ROOT / "client/c_api_test.cc").read_text())
    for names in (exported, packaged, checked):
        assert sorted(names) == sorted(functions)


def test_the_python_package_has_the_types_of_the_header() -> None:
    load_package()
    library = importlib.import_module("pelmor._library")
    types = {**TYPES, "const pelmor_label*": ctypes.POINTER(library.Label)}
    expected = {name: tuple(types[name] for name in names) for name, names in prototypes().items()}
    # A client connects with its first record.
    del expected["pelmor_connect"]
    assert library.__dict__["_FUNCTIONS"] == expected


def test_the_python_package_has_the_default_timeout_of_the_header() -> None:
    load_package()
    [milliseconds] = re.findall(r"PELMOR_DEFAULT_TIMEOUT_MS (\d+)", HEADER.read_text())
    seconds = importlib.import_module("pelmor._client").DEFAULT_TIMEOUT_SECONDS
    assert seconds * 1000 == int(milliseconds)
