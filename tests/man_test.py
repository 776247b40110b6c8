"""The manual pages are well formed and complete."""

import re
import subprocess
import xml.etree.ElementTree as ET

import pytest

from lab.common.tree import ROOT
from tests import manual

USAGE = ROOT / "pelmorctl/usage.cc"
INTERFACE = ROOT / "dbus/org.quintara.ap.Pelmor.Manager.xml"


def text_of(page: str) -> str:
    """The page without the marks of its source."""
    return re.sub(r"(?<!\w)[*_]|[*_](?!\w)|\\", "", manual.source(page))


def test_the_pages_are_these() -> None:
    assert manual.PAGES == ["ap-pelmor.8", "org.quintara.ap.Pelmor.5", "pelmor.conf.5",
                            "pelmorctl.1"]


@pytest.mark.parametrize("page", manual.PAGES)
def test_a_page_is_well_formed(page: str) -> None:
    made = subprocess.run(["scdoc"], input=manual.source(page), capture_output=True, text=True,
                          check=True)
    assert made.stderr == ""
    shown = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z"], input=made.stdout,
                           capture_output=True, text=True, check=True)
    assert shown.stderr == ""
    name, section = page.rsplit(".", 1)
    assert manual.source(page).startswith(f"{name}({section})\n\n# NAME\n\n{name} - ")


@pytest.mark.parametrize("page", manual.PAGES)
def test_a_page_refers_to_existing_pages(page: str) -> None:
    ours = {f"{name}({section})" for name, section in
            (one.rsplit(".", 1) for one in manual.PAGES)}
    named = set(re.findall(r"[\w.-]+\(\d\)", text_of(page)))
    assert named - {"busctl(1)", "sd_notify(3)"} <= ours
    assert named & ours > {f"{page.rsplit('.', 1)[0]}({page[-1]})"}


@pytest.mark.parametrize("page", manual.PAGES)
def test_a_page_has_examples_that_can_be_run(page: str) -> None:
    assert manual.examples(page)
    assert all(block[0].startswith("$ ") for block in manual.blocks(page))


def test_the_tools_page_has_every_command_option_and_exit_status_of_its_help() -> None:
    page = text_of("pelmorctl.1")
    usage, *helps = re.findall(r'R"\((.*?)\)"', USAGE.read_text(), re.DOTALL)
    commands = re.findall(r"^  ([a-z][a-z-]+)", usage, re.MULTILINE)
    assert [re.findall(r"\S+", text)[2] for text in helps] == commands
    options = set(re.findall(r"(?<![\w-])--?[a-z]+\b", usage + "".join(helps)))
    assert [option for option in options if not re.search(rf"(?<![\w-]){option}\b", page)] == []
    synopsis = page.split("# DESCRIPTION")[0]
    assert [command for command in commands if f"pelmorctl {command}" not in synopsis
            or not re.search(rf"^{command}\b", page, re.MULTILINE)] == []
    statuses = re.findall(r"\b(\d+) ", usage.split("Exit status:")[1])
    assert statuses == ["0", "1", "64", "69"]
    assert re.findall(r"^(\d+)$", page, re.MULTILINE) == statuses


def test_the_tools_page_has_every_condition_of_the_doctor() -> None:
    sources = "".join(path.read_text() for path in (ROOT / "pelmorctl").glob("*.cc"))
    conditions = set(re.findall(r'kName\[\] = "([a-z-]+)"', sources)) | {"token-endpoint"}
    listed = manual.source("pelmorctl.1").split("# WHAT DOCTOR CHECKS")[1].split("\n# ")[0]
    assert set(re.findall(r"^\*([a-z-]+)\*$", listed, re.MULTILINE)) == conditions


def test_the_configurations_page_has_every_key() -> None:
    configuration = (ROOT / "ap/common/configuration.h").read_text()
    keys = set(re.findall(r'"(PELMOR_\w+)"', configuration))
    assert len(keys) == 5
    assert set(re.findall(r"PELMOR_\w+", text_of("pelmor.conf.5").split("# FAULTS")[0])) == keys


def test_the_interfaces_page_has_every_method_with_its_arguments() -> None:
    [interface] = ET.parse(INTERFACE).getroot()
    page = text_of("org.quintara.ap.Pelmor.5")
    arguments = {method.get("name"): ", ".join(f"{arg.get('type')} {arg.get('name')}"
                                               for arg in method.iter("arg"))
                 for method in interface.iter("method")}
    assert [name for name, types in arguments.items() if f"{name}({types})" not in page] == []
