"""docs/integration.md agrees with the build, the packaging and the measurements."""

import json
import re
from collections.abc import Iterator
from pathlib import Path

import pytest

from lab.common.tree import ROOT

PAGE = (ROOT / "docs/integration.md").read_text()
PERFORMANCE = (ROOT / "docs/performance.md").read_text()
UNIT = (ROOT / "packaging/ap-pelmor.service").read_text()
PRESETS = json.loads((ROOT / "CMakePresets.json").read_text())["configurePresets"]
SETTING = re.compile(r"^([A-Z]\w+)=(.*)$", re.MULTILINE)
# The first setting of the sandbox, which the page mentions as a whole.
SANDBOX = "NoNewPrivileges"


def build_files() -> Iterator[Path]:
    yield ROOT / "CMakeLists.txt"
    yield from (ROOT / "cmake").glob("*.cmake")
    for folder in ("ap", "client", "dbus", "docs", "lab", "packaging", "pelmorctl", "platform"):
        yield from (ROOT / folder).rglob("CMakeLists.txt")
        yield from (ROOT / folder).rglob("*.cmake")


CMAKE = "\n".join(path.read_text() for path in build_files())


# What defaults are made of, as the page writes it.
VALUES = {"${CMAKE_INSTALL_DATADIR}": "share", "${CMAKE_INSTALL_FULL_SYSCONFDIR}": "/etc",
          "${PELMOR_ARCHITECTURE}": "ARCHITECTURE", "${PELMOR_BUILD_TESTS}": "with the tests",
          "${pelmor_root}/": ""}


def options() -> dict[str, str]:
    """Those of the build by their names, with their defaults as the page writes them."""
    found = dict(re.findall(r'\boption\(\s*(PELMOR_\w+)\s+"[^"]*"\s*([^)\s]*)\s*\)', CMAKE))
    found = {name: default or "OFF" for name, default in found.items()}
    found |= re.findall(r"\bset\(\s*(PELMOR_\w+)\s+([^()]*?)\s*\bCACHE\b", CMAKE)
    found |= {name: "if found" for name in
              re.findall(r"\bfind_[a-z]+\(\s*(PELMOR_\w+)", CMAKE)}
    found |= {name: f"{folder}/{program}, else from PATH" for name, program, folder in
              re.findall(r"\bfind_program\((PELMOR_\w+) (\w+) PATHS (\S+) NO_DEFAULT", CMAKE)}
    for text, value in VALUES.items():
        found = {name: default.replace(text, value) for name, default in found.items()}
    return {name: default.strip('"') for name, default in found.items()}


def documented_options() -> dict[str, str]:
    return {name: default.strip("`") for name, default in
            re.findall(r"^\| `(PELMOR_\w+)` \| (.*?) ?\| ", PAGE, re.MULTILINE)}


def test_the_options_are_found() -> None:
    found = options()
    assert len(found) > 15
    assert {"PELMOR_TOKEN_ENDPOINT_URL", "PELMOR_HARDEN", "PELMOR_SYSROOT",
            "PELMOR_SCDOC"} <= found.keys()
    assert not any("$" in default for default in found.values())


def test_every_option_of_the_build_is_documented() -> None:
    assert documented_options().keys() == options().keys()


@pytest.mark.parametrize("name, default", options().items())
def test_the_defaults_of_the_options_are_documented(name: str, default: str) -> None:
    assert documented_options()[name] == default


def test_every_preset_is_documented() -> None:
    presets = {preset["name"] for preset in PRESETS if not preset.get("hidden")}
    table = PAGE[PAGE.index("| preset | for |"):PAGE.index("| option | default | meaning |")]
    assert set(re.findall(r"`([\w-]+)`(?=[,|` ]*[^|\n]*\| )", table)) == presets


def test_the_settings_of_the_preset_release_are_documented() -> None:
    [release] = [preset["cacheVariables"] for preset in PRESETS if preset["name"] == "release"]
    flags = "CMAKE_CXX_FLAGS_RELEASE"
    [sentence] = re.findall(r"Those of `release` are\s(.*?)\.\n", PAGE, re.DOTALL)
    assert set(re.findall(r"`(\w+=\w+)`", sentence)) == {
        f"{name}={value}" for name, value in release.items() if name != flags}
    assert re.findall(r"`(-\w+)`", sentence) == re.findall(r"-O\w", release[flags])


def cached(preset: str, variable: str) -> str | None:
    """Its value in the preset; that of an earlier parent counts."""
    [found] = [one for one in PRESETS if one["name"] == preset]
    parents = found.get("inherits", [])
    values = [found.get("cacheVariables", {}).get(variable)]
    values += [cached(parent, variable) for parent in
               ([parents] if isinstance(parents, str) else parents)]
    return next((value for value in values if value), None)


def test_the_presets_without_tests_are_documented() -> None:
    [named] = re.findall(r"^\| `PELMOR_BUILD_TESTS` .* `OFF` in the presets (.*) \|$", PAGE,
                         re.MULTILINE)
    assert set(re.findall(r"`([\w-]+)`", named)) == {
        preset["name"] for preset in PRESETS if not preset.get("hidden")
        and cached(preset["name"], "PELMOR_BUILD_TESTS") == "OFF"}


def test_every_folder_of_the_installation_is_documented() -> None:
    used = {name.replace("FULL_", "") for name in
            re.findall(r"\bCMAKE_INSTALL_(?:FULL_)?[A-Z]+DIR\b", CMAKE)}
    assert len(used) > 5
    assert [name for name in used if f"`{name}`" not in PAGE] == []


def test_every_component_is_documented() -> None:
    table = PAGE[PAGE.index("| component | content |"):PAGE.index("### Another processor")]
    assert set(re.findall(r"^\| `([\w-]+)` \|", table, re.MULTILINE)) == set(
        re.findall(r"\bCOMPONENT ([a-z][\w-]*)", CMAKE))


def test_every_setting_of_the_unit_but_the_sandbox_is_documented() -> None:
    used = SETTING.findall(UNIT[:UNIT.index(f"\n{SANDBOX}=")])
    skipped = {"Description", "Documentation", "ExecStart"}
    assert len(used) > 20
    assert [name for name, _ in used if name not in skipped and f"`{name}=" not in PAGE] == []


def test_the_documented_settings_are_those_of_the_unit() -> None:
    named = re.findall(r"`([A-Z][a-z]\w+)=([^`…]*)(…?)`", PAGE)
    assert len(named) > 20
    for name, value, more in named:
        assert re.search(rf"^{name}={re.escape(value)}{'.*' if more else ''}$", UNIT,
                         re.MULTILINE), f"{name}={value}"


def test_the_programs_that_the_services_for_runit_use_are_documented() -> None:
    scripts = "\n".join(path.read_text() for path in (ROOT / "packaging/runit").rglob("*")
                        if path.is_file())
    every_image = {"chmod", "chown", "mkdir", "printf", "sleep"}
    shell = {"case", "do", "done", "esac", "exec", "fi", "if", "set", "umask", "until"}
    used = {"setpriv", *re.findall(r"^ *(?:exec )?([a-z][a-z-]+)(?: |$)", scripts, re.MULTILINE)}
    assert re.search(r" setpriv -", scripts)
    [sentence] = re.findall(r"^The services use (.*?)\.$", PAGE, re.MULTILINE | re.DOTALL)
    assert set(re.findall(r"`([a-z-]+)`", sentence)) == used - every_image - shell


def test_the_sizes_are_those_of_the_benchmark() -> None:
    cells = re.findall(r"([\d ]+ kB) \(`([\w-]+)`\)", PAGE)
    assert len(cells) >= 10
    results = PERFORMANCE[PERFORMANCE.index("\n## Results"):PERFORMANCE.index("\n## Figures")]
    measured = dict(re.findall(r"^\| `([\w-]+)`[^|]* \| ([^|]+) \|", results, re.MULTILINE))
    assert {name: value.strip() for value, name in cells} == {
        name: measured[name] for _, name in cells}


@pytest.mark.parametrize("profile, step", [("release", "packaged: "), ("lean", "without unused")])
def test_the_sizes_of_the_builds_are_those_of_their_comparison(profile: str, step: str) -> None:
    built = re.search(rf"^\| {step}[^|]* \| ([^|]+) \| (\d+) \|", PERFORMANCE, re.MULTILINE)
    documented = re.search(rf"^\| `{profile}`, x86-64 \| ([^|]+) \| (\d+) libraries \|", PAGE,
                           re.MULTILINE)
    assert built and documented and documented.groups() == built.groups()
