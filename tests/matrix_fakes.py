"""Fakes of what the matrix runs and of its Debian roots."""

from collections.abc import Callable, Mapping, Sequence
from pathlib import Path

from lab.matrix.roots import Roots
from lab.matrix.space import Runner


class FakeRunner(Runner):
    """Takes commands for run; `act` does what a command would."""

    def __init__(self, act: Callable[[Sequence[str], Path], int] = lambda argv, log: 0) -> None:
        super().__init__()
        self.commands: list[list[str]] = []
        self._act = act

    def run(self, argv: Sequence[str], log: Path, folder: Path,
            environment: Mapping[str, str] | None = None) -> int:
        self.check()
        self.commands.append(list(argv))
        return self._act(argv, log)


def make_root(argv: Sequence[str], log: Path) -> int:
    """What mmdebstrap does, as far as anything here can tell."""
    if "mmdebstrap" in argv:
        root = Path(argv[-2])
        root.mkdir()
        (root / "made").touch()
    return 0


class FakeRoots(Roots):
    def __init__(self, folder: Path, error: Exception | None = None) -> None:
        super().__init__(folder, FakeRunner())
        self._error = error
        (folder / "root/var/lib/dpkg").mkdir(parents=True)
        (folder / "root/var/lib/dpkg/status").touch()

    def get(self, release: str, packages: list[str]) -> Path:
        if self._error:
            raise self._error
        return self._folder.parent / "root"
