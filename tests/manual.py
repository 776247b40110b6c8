"""The literal blocks and shell commands in the sources of the manual pages.

In a block, `$ …` is a command, `> …` continues it, and other lines are its output, in which `...`
matches any text, or on a line of its own any lines.
"""

import re
from dataclasses import dataclass

from lab.common.tree import ROOT

FOLDER = ROOT / "docs/man"
PAGES = sorted(path.name.removesuffix(".scd") for path in FOLDER.glob("*.scd"))


@dataclass
class Example:
    command: str
    output: str = ""

    def fits(self, printed: str) -> bool:
        pattern = "".join(
            "(.*\n)*" if line == "..." else re.escape(line).replace(r"\.\.\.", ".*") + "\n"
            for line in self.output.splitlines())
        return re.fullmatch(pattern, printed) is not None


def source(page: str) -> str:
    return (FOLDER / f"{page}.scd").read_text()


def blocks(page: str) -> list[list[str]]:
    """The lines of each literal block, their escapes resolved."""
    found = re.findall(r"^```\n(.*?)^```$", source(page), re.MULTILINE | re.DOTALL)
    return [re.sub(r"\\(.)", r"\1", block).splitlines() for block in found]


def examples(page: str) -> list[Example]:
    found: list[Example] = []
    for block in blocks(page):
        for line in block:
            if line.startswith("$ "):
                found.append(Example(line[2:]))
            elif line.startswith("> ") or line == ">":
                found[-1].command += "\n" + line[2:]
            else:
                found[-1].output += f"{line}\n"
    return found
