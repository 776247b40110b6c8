"""The front door, as far as it can be tried without installing anything."""

import re
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


def run(*command: str | Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)


def packages() -> list[str]:
    lines = (ROOT / "packages.txt").read_text().splitlines()
    return [line.split("#")[0].strip() for line in lines if line.split("#")[0].strip()]


def test_help_names_every_command() -> None:
    told = run("./dev", "help")
    assert told.returncode == 0
    for command in ("demo", "lab [OPTION…]", "test", "build [PRESET]", "package [ARCH]", "arm",
                    "boot-test", "bench [FIGURE…]", "coverage", "fuzz [TARGET] [SECONDS]",
                    "soak [MINUTES]",
                    "fleet [--devices N] [--minutes M]",
                    "mutants [--count N]", "lint", "format", "help"):
        assert re.search(rf"^  {re.escape(command)} ", told.stdout, re.MULTILINE), command


def test_without_a_command_it_helps() -> None:
    assert run("./dev").stdout == run("./dev", "help").stdout


def test_what_it_does_not_know_is_named_and_fails() -> None:
    for arguments, complaint in (
        (["tset"], "dev: no command 'tset'"),
        (["test", "now"], "dev: 'test' takes no arguments; see ./dev help"),
        (["build", "fast"], "dev: no preset 'fast'; there are release, debug and asan"),
    ):
        refused = run("./dev", *arguments)
        assert refused.returncode == 1, arguments
        assert complaint in refused.stderr, arguments


def test_every_package_says_what_it_is_for() -> None:
    for packages_list in ROOT.glob("packages*.txt"):
        for line in packages_list.read_text().splitlines():
            assert line.startswith("#") or re.fullmatch(r"[a-z0-9.+-]+ +# \S.*", line), line


def test_a_system_without_apt_is_told_what_is_missing() -> None:
    hide = ["bwrap", "--dev-bind", "/", "/", "--ro-bind", "/dev/null", "/usr/bin/dpkg-query"]
    refused = run(*hide, "./dev", "demo")
    assert refused.returncode == 1
    assert "this system has no apt; install what provides: " in refused.stderr
    for package in packages():
        assert f" {package}" in refused.stderr, package


def test_who_cannot_boot_a_device_is_told_so_in_words_and_by_the_exit_code() -> None:
    nobody = ["bwrap", "--dev-bind", "/", "/", "--unshare-user", "--uid", "1000", "--gid", "1000"]
    refused = run(*nobody, "./dev", "boot-test")
    assert refused.returncode == 77
    assert refused.stderr == "boot-test: not run: only root can boot a device\n"
