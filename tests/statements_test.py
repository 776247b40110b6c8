"""That what the documents name exists: files, commands, variables, test suites, identifiers."""

import re
import subprocess
from pathlib import Path

import pytest

from lab.common.tree import ROOT

FILES = [ROOT / name for name in subprocess.run(
    ["git", "ls-files"], cwd=ROOT, capture_output=True, text=True, check=True).stdout.splitlines()
    if (ROOT / name).is_file()]
# The changelog names what was removed, too.
PAGES = [path for path in FILES if path.suffix == ".md" and path.name != "CHANGELOG.md"]
CODE = "\n".join(path.read_text(errors="replace") for path in FILES
                 if path.suffix in {"", ".cc", ".h", ".j2", ".py", ".cmake", ".txt", ".json"})

ARCHITECTURE = (ROOT / "docs/architecture.md").read_text()

PATH = re.compile(r"`((?:[\w.-]+/)+[\w-]+\.(?:cc|h|py|md|xml|yaml|txt|scd|service|conf))`")
IDENTIFIER = re.compile(r"`((?:[A-Z]\w+::)?[A-Z]\w*[a-z]\w*|[a-z]\w*_\w*)`")


@pytest.fixture(params=PAGES, ids=lambda page: str(page.relative_to(ROOT)))
def page(request: pytest.FixtureRequest) -> Path:
    return request.param


def test_every_file_exists(page: Path) -> None:
    places = (ROOT, ROOT / "platform", page.parent)
    missing = [name for name in PATH.findall(page.read_text())
               if not any((place / name).exists() for place in places)]
    assert missing == []


def test_every_command_of_the_front_door_exists(page: Path) -> None:
    commands = re.findall(r"^  ([a-z-]+)", subprocess.run(
        [ROOT / "dev", "help"], capture_output=True, text=True, check=True).stdout, re.MULTILINE)
    assert set(re.findall(r"\./dev ([a-z-]+)", page.read_text())) <= set(commands)


def test_every_variable_of_the_project_exists(page: Path) -> None:
    variables = set(re.findall(r"\bPELMOR_[A-Z_]+\b", page.read_text()))
    assert [name for name in variables if not re.search(rf"\b{name}\b", CODE)] == []


def test_every_identifier_of_the_architecture_exists() -> None:
    named = set(IDENTIFIER.findall(ARCHITECTURE))
    assert len(named) > 20
    assert [name for name in named
            if not re.search(rf"\b{name.split('::')[-1]}\b", CODE)] == []


def test_the_unit_tests_of_the_examples_exist() -> None:
    text = (ROOT / "CONTRIBUTING.md").read_text()
    suites = re.findall(r"(?:gtest_filter='|_test:)(\w+)", text)
    assert len(suites) == 3
    assert all(re.search(rf"^TEST(?:_[FP])?\({suite}, ", CODE, re.MULTILINE) for suite in suites)


def test_the_classes_that_bind_weakly_are_named() -> None:
    declared = "".join(path.read_text() for path in FILES if path.match("ap/*/*.h")
                       or path.parent == ROOT / "dbus/generator/templates")
    [sentence] = re.findall(r"weak pointer: in ([^.]*)\.", ARCHITECTURE)
    assert set(re.findall(r"`(\w+)`", sentence)) == set(
        re.findall(r"WeakPtrFactory<(\w+)>", declared))


def test_the_uploader_is_declared_before_its_collaborators() -> None:
    members = re.findall(r"^  [\w:<>]+ (\w+_)(?: = .*)?;$",
                         (ROOT / "ap/pelmor/daemon.h").read_text(), re.MULTILINE)
    [sentence] = re.findall(r"before its collaborators \(([^)]*)\)", ARCHITECTURE)
    collaborators = re.findall(r"`(\w+)`", sentence)
    assert len(collaborators) == 4
    assert set(collaborators) <= set(members[members.index("uploader_") + 1:])


def test_only_the_platform_includes_its_libraries() -> None:
    users = [str(path.relative_to(ROOT)) for path in FILES if path.suffix in {".cc", ".h", ".j2"}
             and re.search(r"#include <(systemd|curl|nlohmann)/", path.read_text())]
    assert "platform/dbus/bus.h" in users
    assert [user for user in users if not user.startswith(("platform/", "lab/"))] == []


def test_every_fault_of_the_platform_is_a_text_of_the_code() -> None:
    page = (ROOT / "docs/log-messages.md").read_text()
    texts = re.findall(r"`([^`]+)`", page.split("## Faults of the platform")[1])
    literals = " ".join(re.sub(r'"\s*"', "", CODE).split())
    assert len(texts) > 30
    assert [text for text in texts if " ".join(text.split()) not in literals] == []
