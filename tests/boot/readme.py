"""The commands of the README, section by section."""

import re

from lab.common.tree import ROOT

_README = ROOT / "README.md"


def shell_blocks(heading: str) -> list[str]:
    """The shell commands of each block of a section."""
    sections = re.split(r"^## ", _README.read_text(), flags=re.MULTILINE)
    section = next(section for section in sections if section.startswith(f"{heading}\n"))
    return re.findall(r"^```sh\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)
