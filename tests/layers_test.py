"""The direction of dependence: nothing includes, links or imports upward, and no two components use
each other."""

import re
import subprocess
from collections.abc import Iterable, Iterator
from functools import cache
from graphlib import CycleError, TopologicalSorter
from pathlib import Path

import pytest

from lab.common.tree import ROOT

# From the bottom up. A folder may use itself and the folders below it; folders of one line do not
# use each other.
LAYERS = (
    ("platform/base",),
    ("platform/metrics", "platform/dbus"),
    ("platform/kestle",),
    ("dbus",),
    ("ap/common",),
    ("client",),
    ("ap/pelmor", "pelmorctl"),
    ("cloud/check",),
    ("cloud",),
    ("lab/common",),
    ("lab/cloud",),
    ("lab/device",),
    ("lab/bench", "lab/console", "lab/coverage", "lab/fleet", "lab/fuzz", "lab/matrix",
     "lab/mutation", "lab/soak"),
    ("lab/evidence",),
    ("tests",),
)
RANKS = {folder: rank for rank, line in enumerate(LAYERS) for folder in line}
# Where the compiler looks for what is included.
INCLUDE_ROOTS = ("", "platform", "client", "lab/bench")
# What the generator makes.
GENERATED = {"bindings": "dbus"}


def layer_of(path: str) -> str | None:
    return next((folder for folder in RANKS if path.startswith(folder + "/")), None)


def allows(user: str, used: str) -> bool:
    return user == used or RANKS[used] < RANKS[user]


@cache
def tracked(*patterns: str) -> list[str]:
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", *patterns], cwd=ROOT,
                            capture_output=True, text=True, check=True).stdout.split()
    return [path for path in listed if (ROOT / path).is_file()]


def resolve(user: str, name: str) -> str | None:
    """The file of this tree that `#include "name"` means in `user`."""
    places = [Path(user).parent, *map(Path, INCLUDE_ROOTS)]
    return next((str(place / name) for place in places if (ROOT / place / name).is_file()), None)


def includes(path: str) -> Iterator[tuple[str, str]]:
    """The name in each line of this file that includes one of ours, and what provides it."""
    for name in re.findall(r'^\s*#include "([^"]+)"', (ROOT / path).read_text(), re.MULTILINE):
        folder = GENERATED.get(name.split("/")[0])
        yield name, f"{folder}/{name}" if folder else resolve(path, name) or ""


def upward(uses: Iterable[tuple[str, str]]) -> list[str]:
    """Of pairs of files, where the first uses the second, those that no layer allows."""
    return [f"{user} uses {used}" for user, used in uses
            if (below := layer_of(used)) and (above := layer_of(user)) and not allows(above, below)]


def sources() -> list[str]:
    """All C and C++, except for our module of clang-tidy, which includes that program's headers."""
    return [path for path in tracked("*.cc", "*.h", "*.c") if not path.startswith("cmake/tidy/")]


def test_every_source_belongs_to_a_layer() -> None:
    assert [path for path in sources() if not layer_of(path)] == []


def test_every_included_file_is_found() -> None:
    assert [(path, name) for path in sources() for name, used in includes(path)
            if not used] == []


def test_no_source_includes_upward() -> None:
    assert upward((path, used) for path in sources() for _, used in includes(path)) == []


def test_no_module_imports_upward() -> None:
    def imports(path: str) -> Iterator[str]:
        for module in re.findall(r"^\s*(?:from|import) ((?:cloud|lab|tests)[\w.]*)",
                                 (ROOT / path).read_text(), re.MULTILINE):
            yield module.replace(".", "/") + "/"
    assert upward((path, used) for path in tracked("*.py") for used in imports(path)) == []


def commands(text: str, *names: str) -> Iterator[list[str]]:
    """The words of each call of one of these CMake commands."""
    for call in re.findall(rf"^\s*(?:{'|'.join(names)})\(([^)]*)\)",
                           re.sub(r"#.*", "", text), re.MULTILINE):
        yield call.split()


def cmake_lists() -> dict[str, str]:
    return {path: (ROOT / path).read_text() for path in tracked("*CMakeLists.txt")
            if layer_of(path)}


def test_no_target_links_upward() -> None:
    lists = cmake_lists()
    owners = {words[0]: path for path, text in lists.items()
              for words in commands(text, "add_library", "add_executable")}
    uses = [(path, owners[word]) for path, text in lists.items()
            for words in commands(text, "target_link_libraries", "pelmor_unit_test",
                                  "pelmor_fuzzer", "bench_program")
            for word in words[1:] if word in owners]
    assert len(uses) > len(lists)
    assert upward(uses) == []


def component(path: str) -> str:
    """A header and its source are one."""
    return str(Path(path).with_suffix(""))


def cycle_of(graph: dict[str, set[str]]) -> list[str]:
    try:
        TopologicalSorter(graph).prepare()
    except CycleError as error:
        return error.args[1]
    return []


def test_no_components_use_each_other() -> None:
    graph: dict[str, set[str]] = {}
    for path in sources():
        used = {component(file) for _, file in includes(path) if file} - {component(path)}
        graph.setdefault(component(path), set()).update(used)
    assert len(graph) > 100
    assert cycle_of(graph) == []


# The checks themselves.

@pytest.mark.parametrize(("user", "used", "allowed"), [
    ("ap/pelmor/a.cc", "ap/common/b.h", True),
    ("ap/pelmor/a.cc", "ap/pelmor/b.h", True),
    ("ap/common/a.cc", "ap/pelmor/b.h", False),
    ("pelmorctl/a.cc", "ap/pelmor/b.h", False),
    ("platform/base/a.cc", "platform/kestle/b.h", False),
    ("dbus/generator/a.py", "lab/common/b.py", False),
])
def test_a_use_is_judged_by_its_layers(user: str, used: str, allowed: bool) -> None:
    assert (upward([(user, used)]) == []) == allowed


def test_a_cycle_is_found() -> None:
    assert cycle_of({"a": {"b"}, "b": {"a"}})
    assert not cycle_of({"a": {"b"}, "b": set()})
