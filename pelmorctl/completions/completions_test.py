"""The completions of pelmorctl in bash and zsh, and that both cover the tool's help."""

import re
import subprocess
from pathlib import Path

import pytest

FOLDER = Path(__file__).resolve().parent
BASH = FOLDER / "pelmorctl.bash"
ZSH = FOLDER / "_pelmorctl"
USAGE = (FOLDER.parent / "usage.cc").read_text()

COMMANDS = ["metric", "structured", "offline", "check-config", "status", "doctor", "version"]
TYPES = ["int64", "double", "bool", "string"]


def complete(*words: str) -> list[str]:
    """The words that bash offers for the last one, without the program's name."""
    script = ('source "$0"; COMP_WORDS=(pelmorctl "$@"); COMP_CWORD=$#; _pelmorctl; '
              'printf "%s\\n" "${COMPREPLY[@]}"')
    run = subprocess.run(["bash", "--norc", "-uc", script, BASH, *words], cwd=FOLDER, check=True,
                         capture_output=True, text=True)
    assert run.stderr == ""
    return [line for line in run.stdout.splitlines() if line]


@pytest.mark.parametrize("words, offered", [
    ([""], [*COMMANDS, "--help", "--version"]),
    (["m"], ["metric"]),
    (["check"], ["check-config"]),
    (["--v"], ["--version"]),
    (["version", "--daemon", "_pel"], ["_pelmorctl"]),
    (["frob"], []),
    (["metric", "ap/x", "5", "--type", ""], TYPES),
    (["metric", "--type", "d"], ["double"]),
    (["metric", "--type", "=", "b"], ["bool"]),
    (["metric", "--type", "="], TYPES),
    (["metric", "ap/x", "--"], ["--type", "--label", "--stream", "--help"]),
    (["metric", "ap/x", "5", "-l", ""], []),
    (["metric", ""], []),
    (["structured", "type.example/a", "completions_t"], ["completions_test.py"]),
    (["offline", "type.example/a", "_pel"], ["_pelmorctl"]),
    (["offline", "--"], ["--help"]),
    (["check-config", ""], ["--config", "--override", "--strict", "--help"]),
    (["check-config", "--config", "_pel"], ["_pelmorctl"]),
    (["check-config", "--override", "=", "_pel"], ["_pelmorctl"]),
    (["status", ""], ["--json", "--watch", "--help"]),
    (["doctor", "--j"], ["--json"]),
], ids=" ".join)
def test_bash_completes(words: list[str], offered: list[str]) -> None:
    assert complete(*words) == offered


def test_bash_uses_the_function_for_the_program() -> None:
    run = subprocess.run(["bash", "--norc", "-c", f"source {BASH}; complete -p pelmorctl"],
                         check=True, capture_output=True, text=True)
    assert run.stdout == "complete -F _pelmorctl pelmorctl\n"


def test_both_cover_every_command_option_and_type_of_the_help() -> None:
    options = set(re.findall(r"(?<![\w-])--[a-z]+", USAGE))
    assert options == {"--type", "--label", "--config", "--override", "--strict", "--daemon",
                       "--json", "--watch", "--stream", "--help", "--version"}
    for text in (BASH.read_text(), ZSH.read_text()):
        for word in [*options, *COMMANDS, *TYPES]:
            assert re.search(rf"(?<![\w-]){re.escape(word)}(?![\w-])", text), word


# Fakes of zsh's completion functions, which print their arguments.
ZSH_FAKES = r"""
_describe() { print -rl -- "${(@)${(@P)@[-1]}%%:*}"; }
_arguments() { print -rl -- "$@"; }
words=(pelmorctl "${@[2,-1]}"); CURRENT=$#words
complete_it() { source $1; }
complete_it "$1"
"""


def zsh_complete(*words: str) -> str:
    run = subprocess.run(["zsh", "-f", "-c", ZSH_FAKES, "zsh", ZSH, *words], check=True,
                         capture_output=True, text=True)
    assert run.stderr == ""
    return run.stdout


def test_zsh_completes() -> None:
    assert zsh_complete("").splitlines()[:7] == COMMANDS
    assert "--watch[" in zsh_complete("status", "")
    assert f"({' '.join(TYPES)})" in zsh_complete("metric", "")
    assert "--json[" in zsh_complete("doctor", "")
    assert "2:file:_files" in zsh_complete("offline", "type.example/a", "")
    assert ZSH.read_text().startswith("#compdef pelmorctl\n")
