"""Every file has a licence, and adding the owner's is one command."""

import shutil
import subprocess
from pathlib import Path

import pytest

from lab.common.tree import ROOT
from lab.evidence import subject


def reuse(tree: Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(["reuse", "--root", tree, "lint"], capture_output=True, text=True,
                          check=False)


def copy_of_the_tree(folder: Path) -> Path:
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT,
                            capture_output=True, text=True, check=True).stdout.splitlines()
    for name in listed:
        if (ROOT / name).exists():
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, folder / name, follow_symlinks=False)
    return folder


def test_the_readme_says_that_the_licence_is_pending_until_there_is_one() -> None:
    name, _ = subject.licence()
    readme = (ROOT / "README.md").read_text()
    assert ("\nPending: " in readme) == name.startswith("LicenseRef-")
    assert (ROOT / f"LICENSES/{name}.txt").exists()


def test_one_command_puts_every_file_under_a_licence(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    tree = copy_of_the_tree(tmp_path / "tree")
    before = reuse(tree)
    assert before.returncode == 0, before.stdout
    text = tmp_path / "text"
    text.write_text("The text\n\nof a licence.\n")
    subprocess.run([tree / "packaging/licence", "Apache-2.0", "text"], cwd=tmp_path, check=True)
    after = reuse(tree)
    assert after.returncode == 0, after.stdout
    assert "LicenseRef-internal" not in after.stdout and "Apache-2.0" in after.stdout
    stated = (tree / "packaging/debian/copyright").read_text()
    assert "License: Apache-2.0\n The text\n .\n of a licence.\n\nFiles: third_party" in stated
    assert "\nApache-2.0.\n" in (tree / "README.md").read_text()
    monkeypatch.setattr(subject, "_COPYRIGHT", tree / "packaging/debian/copyright")
    assert subject.licence() == ("Apache-2.0", "")


def test_a_licence_that_is_not_of_the_list_comes_with_its_text(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(subject, "_COPYRIGHT", tmp_path / "copyright")
    (tmp_path / "copyright").write_text(
        "Format: x\n\nFiles: *\nCopyright: y\nLicense: LicenseRef-own\n For us\n only.\n\n"
        "Files: a\nLicense: MIT\n Another.\n")
    assert subject.licence() == ("LicenseRef-own", "For us only.")


def test_a_file_without_a_licence_is_detected(tmp_path: Path) -> None:
    tree = copy_of_the_tree(tmp_path)
    (tree / "packaging/debian/copyright").write_text(
        (ROOT / "packaging/debian/copyright").read_text().replace("Files: *", "Files: a"))
    assert "without" in reuse(tree).stdout and reuse(tree).returncode == 1
