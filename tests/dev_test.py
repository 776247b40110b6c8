"""The commands of ./dev, as far as they need no installation."""

import collections
import os
import re
import shutil
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path

from lab.common.tree import ROOT


def run(*command: str | Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)


LISTS = {path.stem: path.read_text().splitlines() for path in (ROOT / "packages").iterdir()}


def packages(*lists: str) -> list[str]:
    return [line.split("#")[0].strip() for name in lists for line in LISTS[name][1:]]


def lists_of_a_command() -> Iterator[list[str]]:
    """The names of the lists that ./dev reads, by place."""
    reads = re.compile(r"^[^#\n]*\b(?:set_up|missing_packages) ([a-z ]+)", re.MULTILINE)
    yield from (match[1].split() for match in reads.finditer((ROOT / "dev").read_text()))


def test_help_names_every_command() -> None:
    result = run("./dev", "help")
    assert result.returncode == 0
    for command in ("demo", "lab [OPTION…]", "test [asan [unit]]", "build [PRESET]",
                    "package [ARCH]", "lean [armhf]", "evidence [DIRECTORY]", "matrix [ROW…]",
                    "boot-test", "bench [FIGURE…]", "coverage", "fuzz [TARGET] [SECONDS]",
                    "soak [MINUTES]", "fleet [--devices N] [--minutes M]", "cloud-check [OPTION…]",
                    "cloud [OPTION…]", "mutants [--count N]", "lint [all]", "format", "help"):
        assert re.search(rf"^  {re.escape(command)} ", result.stdout, re.MULTILINE), command


def test_without_a_command_it_prints_the_help() -> None:
    assert run("./dev").stdout == run("./dev", "help").stdout


def test_an_unknown_argument_fails_with_a_message() -> None:
    for arguments, complaint in (
        (["tset"], "dev: no command 'tset'"),
        (["test", "now"], "dev: 'test' takes 'asan', 'asan unit' or nothing; see ./dev help"),
        (["lint", "now"], "dev: 'lint' takes 'all' or nothing; see ./dev help"),
        (["lean", "mips"], "dev: 'lean' takes 'armhf' or nothing; see ./dev help"),
        (["build", "fast"], "dev: no preset 'fast'; there are release, debug, asan and armhf"),
    ):
        refused = run("./dev", *arguments)
        assert refused.returncode == 1, arguments
        assert complaint in refused.stderr, arguments


def test_every_list_states_its_purpose_and_every_package_its_reason() -> None:
    for name, (purpose, *entries) in LISTS.items():
        assert re.fullmatch(r"# [A-Z].*\.", purpose), name
        assert entries, name
        for line in entries:
            assert re.fullmatch(r"[a-z0-9.+-]+ +# \S.*", line), f"{name}: {line}"


def test_no_package_is_listed_twice() -> None:
    counted = collections.Counter(packages(*LISTS))
    assert [package for package, count in counted.items() if count > 1] == []


def test_every_list_is_read_by_a_command_and_every_list_read_exists() -> None:
    assert {name for lists in lists_of_a_command() for name in lists} == set(LISTS)


def test_the_demo_needs_at_most_twenty_packages() -> None:
    assert len(packages("build", "lab")) <= 20


def without_dpkg(*command: str) -> subprocess.CompletedProcess[str]:
    return run("bwrap", "--dev-bind", "/", "/", "--ro-bind", "/dev/null", "/usr/bin/dpkg-query",
               *command)


def test_without_apt_the_missing_packages_are_printed() -> None:
    refused = without_dpkg("./dev", "demo")
    assert refused.returncode == 1
    assert refused.stderr == ("dev: this system has no apt; install what provides: "
                              f"{' '.join(packages('build', 'lab'))}\n")


def test_without_root_the_boot_test_exits_with_77_and_the_reason() -> None:
    as_user = ["bwrap", "--dev-bind", "/", "/", "--unshare-user", "--uid", "1000", "--gid", "1000"]
    refused = run(*as_user, "./dev", "boot-test")
    assert refused.returncode == 77
    assert refused.stderr == "boot-test: not run: only root can boot a device\n"


class Machine:
    """A tree with only ./dev, on a machine with every package and a fake cmake that records its
    calls."""

    def __init__(self, folder: Path) -> None:
        self._tree = folder / "tree"
        self._status = folder / "status"
        self._cmake = folder / "cmake"
        self._dpkg_query = folder / "dpkg-query"
        self._record = folder / "record"
        shutil.copytree(ROOT / "packages", self._tree / "packages")
        shutil.copy(ROOT / "dev", self._tree)
        write_program(self._dpkg_query, "echo installed")
        write_program(self._cmake, f'echo "$@" >> {self._record}\n'
                      'mkdir -p build/release; touch build/release/build.ninja')
        self.change_packages(seconds_ago=60)

    def change_packages(self, seconds_ago: int) -> None:
        self._status.touch()
        os.utime(self._status, times=(time.time() - seconds_ago,) * 2)

    def build(self) -> list[str]:
        """The arguments of each call of cmake."""
        self._record.write_text("")
        done = run("bwrap", "--dev-bind", "/", "/",
                   "--ro-bind", self._status, "/var/lib/dpkg/status",
                   "--ro-bind", self._cmake, "/usr/bin/cmake",
                   "--ro-bind", self._dpkg_query, "/usr/bin/dpkg-query",
                   self._tree / "dev", "build")
        assert done.returncode == 0, done.stderr
        return self._record.read_text().splitlines()


def write_program(path: Path, script: str) -> None:
    path.write_text(f"#!/bin/sh\n{script}\n")
    path.chmod(0o755)


def test_a_preset_is_configured_once_and_again_after_a_change_of_packages(tmp_path: Path) -> None:
    machine = Machine(tmp_path)
    configure = "--preset release -DCMAKE_COMPILE_WARNING_AS_ERROR=ON -DPELMOR_SHARE_HEADERS=ON"
    first, second = machine.build(), machine.build()
    assert first[0] == configure
    assert [line for line in second if "--build" not in line] == []
    machine.change_packages(seconds_ago=-60)
    assert machine.build()[0] == configure


def test_netdata_is_masked_before_its_installation_would_start_it(tmp_path: Path) -> None:
    record = tmp_path / "record"
    # The only missing package is netdata-core. The build fails at once.
    fakes = {"dpkg-query": '[ "$3" = netdata-core ] || echo installed', "cmake": "false",
             **{name: f'echo {name} "$@" >> {record}' for name in ("systemctl", "apt-get")}}
    binds = []
    for name, script in fakes.items():
        write_program(tmp_path / name, script)
        binds += ["--ro-bind", tmp_path / name, f"/usr/bin/{name}"]
    shutil.copytree(ROOT / "packages", tmp_path / "tree/packages")
    shutil.copy(ROOT / "dev", tmp_path / "tree")
    run("bwrap", "--dev-bind", "/", "/", "--tmpfs", "/run", "--dir", "/run/systemd/system", *binds,
        "--unshare-user", "--uid", "0", tmp_path / "tree/dev", "test")
    masked, *_, installed = [line for line in record.read_text().splitlines()
                             if "--version" not in line]
    assert masked == "systemctl mask --quiet netdata.service"
    assert installed.startswith("apt-get ") and installed.endswith(" netdata-core")
