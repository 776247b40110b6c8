"""The lists of the C library's functions, which agree."""

import ctypes
import importlib
import re

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
