"""What the presets compile with, and how ./dev configures them."""

import json
import subprocess
from functools import cache
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
ASSERTIONS = "-D_GLIBCXX_ASSERTIONS"


@pytest.fixture(scope="module", name="options")
def fixture_options(tmp_path_factory: pytest.TempPathFactory) -> "Options":
    return Options(tmp_path_factory.mktemp("build"))


class Options:
    """The options that a configured tree compiles a file of the daemon with."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder

    @cache
    def of(self, preset: str, *settings: str) -> list[str]:
        build = self._folder / "-".join([preset, *settings])
        subprocess.run(["cmake", "--preset", preset, "-B", build, *settings], cwd=ROOT, check=True,
                       capture_output=True)
        [command] = [entry["command"]
                     for entry in json.loads((build / "compile_commands.json").read_text())
                     if entry["file"].endswith("/ap/pelmor/main.cc")]
        return command.split()


def test_a_warning_is_an_error_only_on_request(options: Options) -> None:
    assert "-Werror" not in options.of("release")
    assert "-Wextra" in options.of("release")
    assert "-Werror" in options.of("release", "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON")


def test_a_debug_build_checks_the_use_of_the_standard_library(options: Options) -> None:
    assert ASSERTIONS in options.of("debug")
    assert ASSERTIONS not in options.of("release")
