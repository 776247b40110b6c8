"""What ./dev arm asks for, and what it says where there is no network."""

import os
import shutil
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
NOT_RUN = 77


def test_a_sysroot_that_cannot_be_fetched_is_told_as_not_run(tmp_path: Path) -> None:
    # A tree of its own has no sysroot yet.
    shutil.copytree(ROOT / "packaging/cross", tmp_path / "packaging/cross")
    unreachable = "http://127.0.0.1:9/debian"
    told = subprocess.run([tmp_path / "packaging/cross/test"], capture_output=True, text=True,
                          env={**os.environ, "PELMOR_DEBIAN_MIRROR": unreachable}, check=False)
    assert told.returncode == NOT_RUN
    assert told.stderr == (f"not run: cannot reach {unreachable} "
                           "(PELMOR_DEBIAN_MIRROR names another)\n")
    assert told.stdout == ""


def test_only_arm_asks_for_the_cross_compiler() -> None:
    for package in ("g++-arm-linux-gnueabihf", "qemu-user-static"):
        assert [path.name for path in (ROOT / "packages").iterdir()
                if package in path.read_text()] == ["arm.txt"]
