"""The installed files of the release build, and the libraries that they need."""

import re
import subprocess
import sysconfig
from pathlib import Path

import pytest

from lab.common.tree import ROOT
from tests import manual

BUILD = ROOT / "build/release"
DAEMON = BUILD / "ap/pelmor/ap-pelmor"
[VERSION] = re.findall(r"^project\(ap-pelmor VERSION ([\d.]+)",
                       (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
MULTIARCH = sysconfig.get_config_var("MULTIARCH")


def output_of(*command: str | Path) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


@pytest.fixture(scope="module")
def installed(tmp_path_factory: pytest.TempPathFactory) -> Path:
    root = tmp_path_factory.mktemp("root")
    environment = {"DESTDIR": str(root), "PATH": "/usr/bin:/bin"}
    subprocess.run(["cmake", "--install", BUILD], env=environment, check=True, capture_output=True)
    return root


def test_the_installation_has_exactly_these_files(installed: Path) -> None:
    files = sorted(str(path.relative_to(installed)) for path in installed.rglob("*")
                   if path.is_file())
    assert files == sorted([
        "etc/apparmor.d/usr.sbin.ap-pelmor",
        "usr/include/pelmor/client.h",
        "usr/include/pelmor/pelmor.h",
        *(f"usr/lib/{MULTIARCH}/cmake/pelmor-client/pelmor-client-{part}.cmake"
          for part in ("config", "config-version", "targets", "targets-release")),
        f"usr/lib/{MULTIARCH}/libpelmor-client.a",
        *(f"usr/lib/{MULTIARCH}/libpelmor.so{version}" for version in ("", ".0", f".{VERSION}")),
        *(f"usr/lib/{MULTIARCH}/pkgconfig/{library}.pc" for library in ("pelmor", "pelmor-client")),
        "usr/bin/pelmorctl",
        "usr/lib/systemd/system/ap-pelmor.service",
        "usr/lib/sysusers.d/ap-pelmor.conf",
        "usr/lib/tmpfiles.d/ap-pelmor.conf",
        "usr/sbin/ap-pelmor",
        "usr/share/bash-completion/completions/pelmorctl",
        "usr/share/dbus-1/interfaces/org.quintara.Larder.Command.xml",
        "usr/share/dbus-1/interfaces/org.quintara.Larder.Manager.xml",
        "usr/share/dbus-1/interfaces/org.quintara.ap.Pelmor.Manager.xml",
        "usr/share/dbus-1/system.d/org.quintara.ap.Pelmor.conf",
        "usr/share/doc/ap-pelmor/log-messages.md",
        *(f"usr/share/doc/libpelmor-client-dev/examples/record.{suffix}"
          for suffix in ("c", "cc", "py", "sh")),
        "usr/share/doc/libpelmor-client-dev/examples/report.c",
        "usr/share/man/man1/pelmorctl.1",
        "usr/share/man/man5/org.quintara.ap.Pelmor.5",
        "usr/share/man/man5/pelmor.conf.5",
        "usr/share/man/man8/ap-pelmor.8",
        "usr/share/zsh/vendor-completions/_pelmorctl",
    ])


def test_the_manual_names_installed_files(installed: Path) -> None:
    named = {path for page in manual.PAGES for path in
             re.findall(r"_(/usr/share/\S+)_", manual.source(page).replace("\\_", "_"))}
    assert len(named) == 4
    assert [path for path in named if not (installed / path[1:]).is_file()] == []


def test_the_installed_daemon_runs(installed: Path) -> None:
    assert output_of(installed / "usr/sbin/ap-pelmor", "--help").startswith("Usage: ")


def test_only_libraries_in_use_are_linked() -> None:
    dynamic = output_of("readelf", "-d", DAEMON)
    needed = {line.split("[")[1].rstrip("]") for line in dynamic.splitlines() if "(NEEDED)" in line}
    assert needed <= {"libcurl.so.4", "libsystemd.so.0", "libstdc++.so.6", "libgcc_s.so.1",
                      "libm.so.6", "libc.so.6", "ld-linux-x86-64.so.2"}
    assert {"libcurl.so.4", "libsystemd.so.0"} <= needed


def test_the_default_token_endpoint_is_a_reserved_name() -> None:
    # A name reserved by RFC 2606.
    assert b"https://oauth2.quintara.example/token\0" in DAEMON.read_bytes()
