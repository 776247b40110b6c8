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


def assert_the_readme_names_the_licence(tree: Path, name: str) -> None:
    readme = (tree / "README.md").read_text()
    is_pending = name == "LicenseRef-internal"
    assert ("\nPending: " in readme, f"\n{name}.\n" in readme) == (is_pending, not is_pending)
    assert (tree / f"LICENSES/{name}.txt").exists()


def test_the_readme_says_that_the_licence_is_pending_until_there_is_one() -> None:
    assert_the_readme_names_the_licence(ROOT, subject.licence()[0])


@pytest.mark.parametrize(("name", "text_of_bill"), [
    ("Apache-2.0", ""), ("LicenseRef-vendor", "The text\n\nof a licence.")])
def test_one_command_puts_every_file_under_a_licence(
        tmp_path: Path, name: str, text_of_bill: str, monkeypatch: pytest.MonkeyPatch) -> None:
    tree = copy_of_the_tree(tmp_path / "tree")
    before = reuse(tree)
    assert before.returncode == 0, before.stdout
    text = tmp_path / "text"
    text.write_text("The text\n\nof a licence.\n")
    subprocess.run([tree / "packaging/licence", name, "text"], cwd=tmp_path, check=True)
    after = reuse(tree)
    assert after.returncode == 0, after.stdout
    assert "LicenseRef-internal" not in after.stdout and name in after.stdout
    stated = (tree / "packaging/debian/copyright").read_text()
    assert f"License: {name}\n The text\n .\n of a licence.\n\nFiles: third_party" in stated
    assert_the_readme_names_the_licence(tree, name)
    monkeypatch.setattr(subject, "_COPYRIGHT", tree / "packaging/debian/copyright")
    assert subject.licence() == (name, text_of_bill)


def test_a_file_without_a_licence_is_detected(tmp_path: Path) -> None:
    tree = copy_of_the_tree(tmp_path)
    (tree / "packaging/debian/copyright").write_text(
        (ROOT / "packaging/debian/copyright").read_text().replace("Files: *", "Files: a"))
    assert "without" in reuse(tree).stdout and reuse(tree).returncode == 1
