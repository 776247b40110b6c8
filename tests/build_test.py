"""The compiler options of the presets."""

import json
import subprocess
from collections.abc import Callable
from dataclasses import dataclass
from functools import cache
from pathlib import Path

import pytest

from lab.common.tree import ROOT

ASSERTIONS = "-D_GLIBCXX_ASSERTIONS"


@dataclass(frozen=True)
class Configured:
    """A configured build folder, and the warnings of configuring it."""

    build: Path
    warnings: str

    def options(self) -> list[str]:
        """The compiler options of a file of the daemon."""
        [command] = [entry["command"]
                     for entry in json.loads((self.build / "compile_commands.json").read_text())
                     if entry["file"].endswith("/ap/pelmor/main.cc")]
        return command.split()

    def merges_with(self, option: str) -> bool:
        """Whether the option is among those that merge the client library."""
        [merging] = [line for line in (self.build / "build.ninja").read_text().splitlines()
                     if "--force-group-allocation" in line]
        return option in merging.split()


@pytest.fixture(scope="module", name="configure")
def fixture_configure(tmp_path_factory: pytest.TempPathFactory) -> Callable[..., Configured]:
    @cache
    def configure(preset: str, *settings: str) -> Configured:
        build = tmp_path_factory.mktemp("build")
        done = subprocess.run(["cmake", "--preset", preset, "-B", build, *settings], cwd=ROOT,
                              check=True, capture_output=True, text=True)
        return Configured(build, done.stderr)
    return configure


def test_a_warning_is_an_error_only_on_request(configure: Callable[..., Configured]) -> None:
    plain = configure("release").options()
    assert "-Wextra" in plain
    assert "-Werror" not in plain
    assert "-Werror" in configure("release", "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON").options()


def test_a_debug_build_checks_the_use_of_the_standard_library(
        configure: Callable[..., Configured]) -> None:
    assert ASSERTIONS in configure("debug").options()
    assert ASSERTIONS not in configure("release").options()


def test_the_client_library_is_merged_by_options_that_the_compiler_has(
        configure: Callable[..., Configured]) -> None:
    assert configure("release").merges_with("-flinker-output=nolto-rel")
    with_clang = configure("release", "-DCMAKE_CXX_COMPILER=clang++", "-DCMAKE_C_COMPILER=clang")
    assert not with_clang.merges_with("-flinker-output=nolto-rel")


def test_a_toolchain_that_cannot_optimise_at_link_time_still_builds(
        configure: Callable[..., Configured]) -> None:
    usual = configure("release")
    assert {"-flto", "-flto=auto"} & set(usual.options())
    assert usual.warnings == ""
    without = configure("release", "-DCMAKE_CXX_COMPILER_AR=/bin/false")
    assert not [option for option in without.options() if option.startswith("-flto")]
    assert "Without link-time optimisation" in without.warnings
