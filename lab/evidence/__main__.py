"""`./dev evidence [DIRECTORY]`: see `python3 -m lab.evidence --help`."""

import argparse
import json
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from lab.common.tree import ROOT
from lab.evidence import cyclonedx, page, spdx
from lab.evidence.components import Build
from lab.evidence.debian import UnknownOrigin
from lab.evidence.subject import Subject, of_image, of_package
from lab.evidence.validation import are_valid
from lab.matrix.page import latest
from lab.matrix.roots import Impossible, NotCreated

_MATRIX = ROOT / "build/matrix"
# By preset of ./dev lean, the architecture.
_LEAN = {"lean": "amd64", "lean-armhf": "armhf"}
_NOT_RUN = 77


def _report(text: str) -> None:
    print(f"==> {text}", file=sys.stderr, flush=True)


def _arguments(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="./dev evidence", description="Writes bills of materials, validates them, and writes "
        "the last results of the long runs. Exits with 1 if a bill is invalid, and with 77 if none "
        "can be validated here.")
    parser.add_argument("directory", nargs="?", type=Path, default=ROOT / "build/evidence")
    parser.add_argument("--packages", type=Path, default=ROOT / "build/package",
                        help="what packaging/build wrote (default: build/package)")
    parser.add_argument("--bills-only", action="store_true",
                        help="only those of the packages, without a validation")
    return parser.parse_args(argv)


def _packages(folder: Path) -> Iterator[Subject]:
    """Those with debug information contain no code of others."""
    for deb in sorted(folder.glob("*.deb")):
        if "-dbgsym_" not in deb.name:
            architecture = deb.stem.rpartition("_")[2]
            yield of_package(deb, Build(folder / architecture / "source/build/package"))


def _images() -> Iterator[Subject]:
    for preset, architecture in _LEAN.items():
        folder = ROOT / f"build/{preset}"
        if (folder / "image").exists():
            yield of_image(folder / "image", Build(folder), architecture)


def _write(folder: Path, subject: Subject) -> None:
    for suffix, form in (("spdx", spdx), ("cdx", cyclonedx)):
        text = json.dumps(form.document(subject), indent=1, ensure_ascii=False) + "\n"
        (folder / f"{subject.file_name}.{suffix}.json").write_text(text)


def _validate(folder: Path) -> int:
    try:
        return 0 if are_valid(folder, _MATRIX, _report) else 1
    except NotCreated as reason:
        _report(f"the bills of materials were not validated: {reason}")
        return _NOT_RUN
    except Impossible as reason:
        _report(f"the bills of materials cannot be validated: {reason}")
        return 1


def main(argv: list[str]) -> int:
    wanted = _arguments(argv)
    bills = wanted.directory.resolve() / "sbom"
    shutil.rmtree(bills, ignore_errors=True)
    bills.mkdir(parents=True)
    try:
        subjects = [*_packages(wanted.packages), *([] if wanted.bills_only else _images())]
        for subject in subjects:
            _write(bills, subject)
    except (UnknownOrigin, subprocess.CalledProcessError, OSError) as error:
        print(f"evidence: {error}", file=sys.stderr)
        return 1
    if not subjects:
        print(f"evidence: no packages in {wanted.packages}: run ./dev package", file=sys.stderr)
        return 1
    if wanted.bills_only:
        return 0
    (wanted.directory / "results.md").write_text(page.page(latest(_MATRIX)))
    _report(f"{len(subjects)} bills of materials in {bills}, results in {wanted.directory}")
    return _validate(bills)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
