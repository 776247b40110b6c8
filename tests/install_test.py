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
        "etc/ap/pelmor.conf",
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
        *(f"usr/share/doc/libpelmor-client-dev/examples/report.{suffix}" for suffix in ("c", "py")),
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


# With settings of an image that is not Debian's.

LAYOUT = {
    "CMAKE_INSTALL_PREFIX": "/opt/pelmor",
    "CMAKE_INSTALL_SBINDIR": "bin",
    "PELMOR_UNIT_DIR": "/etc/systemd/system",
    "PELMOR_SYSUSERS_DIR": "",
    "PELMOR_TMPFILES_DIR": "",
    "PELMOR_BUS_POLICY_DIR": "/etc/dbus-1/system.d",
    "PELMOR_APPARMOR_DIR": "",
    "PELMOR_RUNIT_DIR": "/srv/sv",
}


@pytest.fixture(scope="module")
def relocated(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """What packaging/ installs into such an image, with its own CMake project."""
    build, root = (tmp_path_factory.mktemp(name) for name in ("build", "root"))
    subprocess.run(["cmake", "--preset", "release", "-B", build,
                    *(f"-D{name}={value}" for name, value in LAYOUT.items())],
                   cwd=ROOT, check=True, capture_output=True)
    install_service(build, root)
    return root


def install_service(build: Path, root: Path) -> None:
    for component in ("daemon", "runit"):
        subprocess.run(["cmake", f"-DCMAKE_INSTALL_COMPONENT={component}", "-P",
                        build / "packaging/cmake_install.cmake"],
                       env={"DESTDIR": str(root), "PATH": "/usr/bin:/bin"}, check=True,
                       capture_output=True)


def test_every_folder_of_the_service_can_be_chosen_or_left_out(relocated: Path) -> None:
    files = {str(path.relative_to(relocated)) for path in relocated.rglob("*")
             if path.is_symlink() or path.is_file()}
    assert files == {
        "etc/ap/pelmor.conf",
        "etc/dbus-1/system.d/org.quintara.ap.Pelmor.conf",
        "etc/systemd/system/ap-pelmor.service",
        "opt/pelmor/share/doc/ap-pelmor/log-messages.md",
        *(f"srv/sv/ap-pelmor/{name}" for name in ("check", "finish", "run", "supervise", "log/run",
                                                  "log/supervise")),
    }


def test_the_service_names_the_daemon_where_it_is_installed(relocated: Path) -> None:
    unit = (relocated / "etc/systemd/system/ap-pelmor.service").read_text()
    assert "\nExecStart=/opt/pelmor/bin/ap-pelmor\n" in unit
    assert "\nExecPaths=/opt/pelmor/bin/ap-pelmor " in unit
    script = relocated / "srv/sv/ap-pelmor/run"
    assert " /opt/pelmor/bin/ap-pelmor'\n" in script.read_text()
    assert script.stat().st_mode & 0o777 == 0o755


def test_an_installation_keeps_the_configuration_of_the_device(tmp_path: Path) -> None:
    configuration = tmp_path / "etc/ap/pelmor.conf"
    install_service(BUILD, tmp_path)
    assert configuration.read_text() == (ROOT / "packaging/pelmor.conf").read_text()
    assert configuration.stat().st_mode & 0o777 == 0o400
    configuration.chmod(0o600)
    configuration.write_text("PELMOR_CLIENT_SECRET=secret-1\n")
    install_service(BUILD, tmp_path)
    assert configuration.read_text() == "PELMOR_CLIENT_SECRET=secret-1\n"
