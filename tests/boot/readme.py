"""The commands of the documents, section by section."""

import re
from pathlib import Path

from lab.common.tree import ROOT

README = ROOT / "README.md"
INTEGRATION = ROOT / "docs/integration.md"


def shell_blocks(heading: str, page: Path = README) -> list[str]:
    """The shell commands of each block of a section, with its subsections."""
    sections = re.split(r"^## ", page.read_text(), flags=re.MULTILINE)
    section = next(section for section in sections if section.startswith(f"{heading}\n"))
    return re.findall(r"^```sh\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)
