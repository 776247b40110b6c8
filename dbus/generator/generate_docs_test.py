"""Tests of the reference generator: its output, and the descriptions that it rejects."""

import pathlib
import subprocess
import sys

import pytest

TOOL = pathlib.Path(__file__).resolve().parent / "generate_docs.py"

ABOUT = "<!-- A service. -->"
WHOLE = """\
<!--
  What a service
  does.

  And how | well.
-->
<node name="/a/B">
  <interface name="a.B">
    <!--
      Does *it*.
        first:  the one,
                and more of it.
        second: the other | one.
    -->
    <method name="Do">
      <arg name="first" type="a{sv}" direction="in"/>
      <arg name="second" type="a(ib)" direction="out"/>
      <arg name="third" type="ay"/>
    </method>
    <!-- Ends. -->
    <method name="End"/>

    <!-- Both sizes. -->
    <property name="Width" type="i" access="read"/>
    <property name="Height" type="i" access="read"/>
    <!-- Its name. -->
    <property name="Name" type="s" access="read"/>
  </interface>
</node>
"""
PAGE = """\
## a.B

What a service does.

And how | well.

Object: `/a/B`

### Do

Does \\*it\\*.

| argument | | type | |
|---|---|---|---|
| `first` | in | `a{sv}`, dictionary of string to variant | the one, and more of it. |
| `second` | out | `a(ib)`, array of structure of int32, boolean | the other \\| one. |
| `third` | in | `ay`, bytes |  |

### End

Ends.

### Properties

| property | type | |
|---|---|---|
| `Width` | `i`, int32 | Both sizes. |
| `Height` | `i`, int32 | 〃 |
| `Name` | `s`, string | Its name. |
"""


def run(folder, description):
    file, page = folder / "a.xml", folder / "page.md"
    file.write_text(description, encoding="utf-8")
    done = subprocess.run([sys.executable, TOOL, "--output", page, file], capture_output=True,
                          text=True, check=False)
    return done, page.read_text(encoding="utf-8") if page.exists() else ""


def test_the_page_contains_every_comment(tmp_path):
    done, page = run(tmp_path, WHOLE)
    assert (done.returncode, done.stderr) == (0, "")
    assert page[page.index("## a.B"):] == PAGE


@pytest.mark.parametrize("description, fault", [
    ("", "no element found"),
    (f"{ABOUT}<node/>", "expected one interface and one comment above it"),
    ("<node><interface name='a.B'/></node>", "one comment above it"),
    (f"{ABOUT}<node><interface name='a.B'><method name='Do'/></interface></node>",
     "Do: no comment before it"),
    (f"{ABOUT}<node><interface name='a.B'><!-- Does. --><method name='Do'/><method name='Go'/>"
     "</interface></node>", "Go: no comment before it"),
    (f"{ABOUT}<node><interface name='a.B'><property name='P' type='s'/></interface></node>",
     "P: no comment before it"),
    (f"{ABOUT}<node><interface name='a.B'>\n<!--\n  Does.\n    frist: one.\n-->\n"
     "<method name='Do'><arg name='first' type='s'/></method></interface></node>",
     "Do: no argument frist"),
    (f"{ABOUT}<node><interface name='a.B'><!-- Does. --><method name='Do'>"
     "<arg name='first' type='a{s'/></method></interface></node>", "a type is missing"),
    (f"{ABOUT}<node><interface name='a.B'><!-- Does. --><method name='Do'>"
     "<arg name='first' type='a{sss'/></method></interface></node>", "'}' is missing in a type"),
    (f"{ABOUT}<node><interface name='a.B'><!-- Does. --><method name='Do'>"
     "<arg name='first' type='ss'/></method></interface></node>", "is not one complete type"),
    (f"{ABOUT}<node><interface name='a.B'><!-- Does. --><method name='Do'>"
     "<arg name='first' type='z'/></method></interface></node>", "unknown type code 'z'"),
])
def test_a_bad_description_is_rejected(tmp_path, description, fault):
    done, page = run(tmp_path, description)
    assert done.returncode == 1
    assert fault in done.stderr
    assert page == ""


def test_a_missing_file_is_reported(tmp_path):
    done = subprocess.run([sys.executable, TOOL, "--output", tmp_path / "page.md", "nowhere.xml"],
                          capture_output=True, text=True, check=False)
    assert done.returncode == 1
    assert "nowhere.xml" in done.stderr
