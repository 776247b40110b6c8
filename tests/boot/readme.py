"""The commands of the README, section by section."""

import re
from pathlib import Path

_README = Path(__file__).resolve().parents[2] / "README.md"


def shell_blocks(heading: str) -> list[str]:
    """The shell commands of each block of a section."""
    sections = re.split(r"^## ", _README.read_text(), flags=re.MULTILINE)
    section = next(section for section in sections if section.startswith(f"{heading}\n"))
    return re.findall(r"^```sh\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)
