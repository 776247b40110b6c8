"""The size of the shipped binary."""

import shutil
import subprocess
import tempfile
from pathlib import Path

from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.common.tree import ROOT

_BINARY = ROOT / "build/armhf/ap/pelmor/ap-pelmor"
_STRIP = "arm-linux-gnueabihf-strip"
_SOURCES = ("ap", "dbus", "platform", "cmake", "dbus/generator")
_KEY, _WHAT, _GOAL = "armhf-size", "stripped binary, armhf", Goal(400, of_ratio=False)


@measures(_KEY)
def armhf_size(_settings: Settings) -> list[Figure]:
    if not _BINARY.is_file() or not shutil.which(_STRIP):
        return [Figure(_KEY, _WHAT, "kB", _GOAL, why="./dev build armhf makes it")]
    if _newest_source() > _BINARY.stat().st_mtime:
        return [Figure(_KEY, _WHAT, "kB", _GOAL,
                       why="the sources are newer; ./dev build armhf makes it")]
    with tempfile.TemporaryDirectory() as folder:
        stripped = Path(folder) / "ap-pelmor"
        subprocess.run([_STRIP, "-o", stripped, _BINARY], check=True)
        return [Figure(_KEY, _WHAT, "kB", _GOAL, (stripped.stat().st_size / 1000,))]


def _newest_source() -> float:
    return max(path.stat().st_mtime for folder in _SOURCES for path in (ROOT / folder).rglob("*")
               if path.suffix in (".cc", ".h", ".cmake", ".j2", ".xml")
               and not path.name.endswith("_test.cc"))
