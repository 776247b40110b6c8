"""The Debian roots of the rows. mmdebstrap makes a root once in build/matrix/roots, and again after
changes of its packages or a maximum age. Downloads of apt are kept in build/matrix/apt."""

import hashlib
import json
import os
import re
import shutil
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

from lab.matrix.packages import ROOT
from lab.matrix.space import Runner, on_the_machine

SECONDS_PER_DAY = 24 * 60 * 60
# Debian's testing changes daily, and the stable releases get fixes.
MAX_ROOT_AGE_DAYS = 14
# Of a downloaded package that no root used meanwhile.
MAX_DOWNLOAD_AGE_DAYS = 60

_MIRROR = ROOT / "packaging/cross/mirror"
_ABOUT = "about.json"
_ARCHIVES = "var/cache/apt/archives"
# A change of the options makes all existing roots stale.
_OPTIONS = (
    "--quiet", "--mode=root", "--variant=minbase", "--components=main",
    # The list of a mirror that lags behind may have expired.
    '--aptopt=Acquire::Check-Valid-Until "false"', "--aptopt=Acquire::Retries 2",
    "--dpkgopt=force-unsafe-io", "--dpkgopt=path-exclude=/usr/share/doc/*",
    "--dpkgopt=path-exclude=/usr/share/locale/*", "--dpkgopt=path-exclude=/usr/share/man/*",
    "--skip=download/empty", "--skip=essential/unlink")


# A package that the release does not have is a fault of the lists in the tree.
_UNKNOWN_PACKAGE = re.compile(r"E: (?:Unable to locate package|Package .* has no installation)")


class NotCreated(Exception):
    """The environment cannot be created on this machine; the tree may be correct."""


class Impossible(Exception):
    """The environment cannot be created on any machine: a fault of the tree."""


def key_of(release: str, packages: list[str]) -> str:
    """Equal for roots with the same content."""
    text = json.dumps([release, packages, _OPTIONS])
    return hashlib.sha256(text.encode()).hexdigest()[:16]


def is_fresh(root: Path, now: float) -> bool:
    try:
        made = json.loads((root / _ABOUT).read_text())["made"]
    except (OSError, ValueError, KeyError):
        return False
    return 0 <= now - made < MAX_ROOT_AGE_DAYS * SECONDS_PER_DAY


class Roots:
    def __init__(self, folder: Path, runner: Runner,
                 report: Callable[[str], None] = lambda text: None) -> None:
        """Owns `folder`, in which it keeps the roots."""
        self._folder = folder / "roots"
        self._archives = folder / "apt"
        self._logs = folder / "logs"
        self._runner = runner
        self._report = report

    def get(self, release: str, packages: list[str]) -> Path:
        """A root of that release with these packages, made if there is no fresh one; raises
        `NotCreated` or `Impossible`."""
        root = self._folder / f"{release}-{key_of(release, packages)}"
        self._check_rights()
        if not is_fresh(root, time.time()):
            self._make(root, release, packages, self._mirror(release))
        return root

    def forget_stale(self) -> None:
        """Deletes roots that are too old, and packages that were downloaded long ago."""
        now = time.time()
        for root in self._folder.glob("*"):
            if not is_fresh(root, now):
                shutil.rmtree(root)
        for archive in self._archives.glob("*.deb"):
            # The change time is the last use by a root; the modification time is the server's.
            if now - archive.stat().st_ctime > MAX_DOWNLOAD_AGE_DAYS * SECONDS_PER_DAY:
                archive.unlink()

    @staticmethod
    def _check_rights() -> None:
        if os.geteuid() != 0:
            raise NotCreated("only root can make a Debian root and run programs in it")
        for program, package in (("mmdebstrap", "mmdebstrap"), ("bwrap", "bubblewrap")):
            if not shutil.which(program):
                raise NotCreated(f"there is no {program}: install the Debian package {package}")

    @staticmethod
    def _mirror(release: str) -> str:
        found = subprocess.run([_MIRROR, release], capture_output=True, text=True, check=False)
        if found.returncode != 0:
            raise NotCreated(found.stderr.strip().removeprefix("not run: "))
        return found.stdout.strip()

    def _make(self, root: Path, release: str, packages: list[str], mirror: str) -> None:
        self._report(f"making a root of {release} with {len(packages)} packages")
        for folder in (self._folder, self._archives, self._logs):
            folder.mkdir(parents=True, exist_ok=True)
        new = root.with_name(f"{root.name}.new")
        log = self._logs / f"root-{root.name}"
        log.unlink(missing_ok=True)
        for leftover in (new, root):
            shutil.rmtree(leftover, ignore_errors=True)
        try:
            status = self._runner.run(
                on_the_machine(self._command(new, release, packages, mirror)), log, ROOT)
            if status != 0:
                raise _failure(log)
            (new / _ABOUT).write_text(json.dumps({"made": time.time(), "packages": packages}))
            new.rename(root)
        finally:
            shutil.rmtree(new, ignore_errors=True)

    def _command(self, new: Path, release: str, packages: list[str], mirror: str) -> list[str]:
        fill = (f'mkdir -p "$1/{_ARCHIVES}"; find {self._archives} -name "*.deb" '
                f'-exec cp --link --target-directory="$1/{_ARCHIVES}" {{}} +')
        # The place of the tree, where it is seen inside.
        keep = (f'cp --link --update "$1"/{_ARCHIVES}/*.deb {self._archives}; '
                f'rm "$1"/{_ARCHIVES}/*.deb; mkdir -p "$1/src"')
        return ["mmdebstrap", *_OPTIONS, f"--include={','.join(packages)}",
                f"--setup-hook={fill}", f"--customize-hook={keep}",
                release, str(new), f"deb {mirror} {release} main"]


def _failure(log: Path) -> NotCreated | Impossible:
    lines = log.read_text(errors="replace").splitlines()
    for line in lines:
        if _UNKNOWN_PACKAGE.match(line):
            return Impossible(line)
    errors = [line for line in lines if line.startswith(("E: ", "Err:"))]
    return NotCreated(f"mmdebstrap failed: {(errors or lines or ['no message'])[0]} (see {log})")
