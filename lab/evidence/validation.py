"""Validates bills of materials with the libraries of SPDX and CycloneDX, in a root of the Debian
release that has both."""

from collections.abc import Callable
from pathlib import Path

from lab.matrix.roots import Roots
from lab.matrix.rows import TESTING
from lab.matrix.space import Runner, in_root

_PACKAGES = ["python3-cyclonedx-lib", "python3-jsonschema", "python3-referencing",
             "python3-spdx-tools"]
_VALIDATOR = Path(__file__).with_name("validator.py")


def are_valid(folder: Path, matrix: Path, report: Callable[[str], None]) -> bool:
    """Whether the bills in the folder are; reports their faults. Raises `NotCreated` or
    `Impossible` if there is no such root, which is kept in the folder of the matrix."""
    runner = Runner()
    root = Roots(matrix, runner, report).get(TESTING, _PACKAGES)
    log = matrix / "logs/validation"
    log.unlink(missing_ok=True)
    bills = sorted(path.name for path in folder.glob("*.json"))
    # Below /src, the only mount point of these roots.
    script = f"cd /src && exec /usr/bin/python3 -BP - {' '.join(bills)} <<'END'\n" \
             f"{_VALIDATOR.read_text()}\nEND"
    status = runner.run(in_root(root, {"/src": folder}, "/src", {}, ["/bin/sh", "-c", script]),
                        log, folder)
    said = log.read_text().strip()
    report(said or f"the validator ended with status {status} and wrote nothing")
    return status == 0
