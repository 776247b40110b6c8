"""The installed client libraries, found by pkg-config or by CMake, and the Python package."""

import os
import re
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

from lab.common.tree import ROOT

BUILD = Path(os.environ.get("PELMOR_BUILD", ROOT / "build/release"))
EXAMPLE = ROOT / "client/examples/record.cc"
C_EXAMPLE = EXAMPLE.with_name("report.c")
PYTHON_PACKAGE = ROOT / "client/python"
SYMBOLS = ROOT / "packaging/debian/libpelmor0.symbols"
INSTALLED_EXAMPLES = "usr/share/doc/libpelmor-client-dev/examples"

# Has symbols with names of the platform's, which must not collide with those in the library.
CALLER = """
#include <pelmor/client.h>
namespace base { struct MessageLoop { MessageLoop(); }; MessageLoop::MessageLoop() {} }
pelmor::StatusCode Connect() { base::MessageLoop loop; return pelmor::Client().Connect().code(); }
"""
# Needs more memory than it may have, and catches all that is thrown.
WITHOUT_MEMORY = """
#include <pelmor/pelmor.h>
#include <sys/resource.h>
char data[50000000];
int main() {
  pelmor_client* client = nullptr;
  const rlimit limit = {sizeof data + 40000000, sizeof data + 40000000};
  if (pelmor_open(0, &client) < 0 || setrlimit(RLIMIT_AS, &limit) < 0) return 1;
  try {
    pelmor_record_offline_data(client, "t", data, sizeof data);
  } catch (...) {
    return 2;
  }
}
"""
# Its texts are longer than a record may be, and than the memory that is left. No exception is
# caught.
LONG_TEXTS = """
#include <pelmor/pelmor.h>
#include <sys/resource.h>
#include <cerrno>
#include <cstring>
char text[100000001];
int main() {
  std::memset(text, 'x', sizeof text - 1);
  const char* const half = text + sizeof text / 2;
  const pelmor_label labels[] = {{"a", half}, {"b", half}};
  pelmor_client* client = nullptr;
  const rlimit limit = {sizeof text + 90000000, sizeof text + 90000000};
  if (pelmor_open(0, &client) < 0 || setrlimit(RLIMIT_AS, &limit) < 0) return 1;
  const int results[] = {
      pelmor_record_bool(client, text, nullptr, 0, true),
      pelmor_record_bool(client, "n", labels, 2, true),
      pelmor_record_string(client, "n", nullptr, 0, text),
      pelmor_record_structured_data(client, text, nullptr, 0),
      pelmor_record_offline_data(client, text, nullptr, 0),
  };
  for (const int result : results)
    if (result != -EINVAL) return 2;
}
"""
# As `EXAMPLE`, in a project that has another target with the name PkgConfig::SYSTEMD.
PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(record LANGUAGES C CXX)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
add_library(PkgConfig::SYSTEMD INTERFACE IMPORTED)
target_link_libraries(PkgConfig::SYSTEMD INTERFACE no-such-library)
find_package(pelmor-client {version} CONFIG REQUIRED)
add_executable(record {source})
target_compile_options(record PRIVATE -Wall -Wextra -Werror)
target_link_libraries(record PRIVATE pelmor::client)
add_executable(report {c_source})
target_link_libraries(report PRIVATE pelmor::pelmor)
"""
# Values that must not compile: the daemon supports none of their types.
UNFIT_VALUES = ("std::uint64_t{1}", "nullptr", "&client", "std::vector<int>{}", "client")


def output_of(*command: str | Path, cwd: Path = ROOT, **environment: str) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True, cwd=cwd,
                          env={**os.environ, **environment}).stdout


@pytest.fixture(scope="module", name="installed")
def fixture_installed(tmp_path_factory: pytest.TempPathFactory) -> Path:
    root = tmp_path_factory.mktemp("root")
    for component in ("client", "client-dev"):
        output_of("cmake", "--install", BUILD, "--component", component, DESTDIR=str(root))
    return root


def flags_of(package: str, installed: Path) -> list[str]:
    """The flags of pkg-config, as if the installation were the system."""
    [description] = installed.rglob(f"{package}.pc")
    return output_of("pkg-config", "--cflags", "--libs", package,
                     PKG_CONFIG_PATH=str(description.parent),
                     PKG_CONFIG_SYSROOT_DIR=str(installed)).split()


@pytest.fixture(scope="module", name="flags")
def fixture_flags(installed: Path) -> list[str]:
    return flags_of("pelmor-client", installed)


@pytest.fixture(scope="module", name="shared")
def fixture_shared(installed: Path) -> Path:
    [library] = installed.rglob("libpelmor.so.0")
    return library


def compile_with(flags: list[str], *arguments: str | Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(["c++", "-std=c++17", "-Wall", "-Wextra", "-Werror", *arguments, *flags],
                          capture_output=True, text=True, check=False)


def test_the_component_has_a_header_a_library_and_its_description(installed: Path) -> None:
    files = {re.sub(r"^/usr/lib/.*?/?(libpelmor|pkgconfig)", r"LIB/\1",
                    str(path).removeprefix(str(installed)))
             for path in installed.rglob("*") if path.is_file()}
    assert files >= {"/usr/include/pelmor/client.h", "LIB/libpelmor-client.a",
                     "LIB/pkgconfig/pelmor-client.pc"}


def test_pkg_config_asks_for_two_libraries(flags: list[str]) -> None:
    assert [flag for flag in flags if flag.startswith("-l")] == ["-lpelmor-client", "-lsystemd"]


def test_the_header_includes_only_the_standard_library(installed: Path) -> None:
    text = (installed / "usr/include/pelmor/client.h").read_text()
    included = re.findall(r"#include (.*)", text)
    assert included and all(re.fullmatch(r"<[a-z_]+>", header) for header in included)
    assert not re.search(r"sd_bus|systemd|kestle|base::|dbus::", text)


def assert_reports_no_bus(message: str, *record: str | Path, **environment: str) -> None:
    """Without a bus an example reports that, and fails."""
    ran = subprocess.run(record, capture_output=True, text=True, check=False, env={
        **os.environ, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent/bus", **environment})
    assert (ran.returncode, ran.stdout) == (1, "")
    assert message in ran.stderr


NO_BUS = "No connection to the system bus: No such file or directory"


def assert_runs(record: Path) -> None:
    assert_reports_no_bus(f"record: {NO_BUS} (org.freedesktop.DBus.Error.NoServer)\n", record)


def test_the_installed_example_in_cxx_builds_from_the_installation_alone(
        installed: Path, flags: list[str], tmp_path: Path) -> None:
    built = compile_with(flags, installed / INSTALLED_EXAMPLES / "record.cc", "-o",
                         tmp_path / "record")
    assert built.returncode == 0, built.stderr
    assert_runs(tmp_path / "record")


def test_the_installed_example_in_c_builds_as_its_comment_says(
        installed: Path, tmp_path: Path) -> None:
    source = installed / INSTALLED_EXAMPLES / "record.c"
    [command] = re.findall(r"^//   (cc .*) -o record$", source.read_text(), re.MULTILINE)
    output_of("sh", "-c", f"cd {source.parent} && {command} -Wall -Werror -o {tmp_path}/record")
    assert_reports_no_bus("record: no system bus: No such file or directory\n",
                          tmp_path / "record")


def test_the_installed_scripts_run(installed: Path) -> None:
    folder = installed / INSTALLED_EXAMPLES
    assert_reports_no_bus("record.sh: RecordMetric failed: is the telemetry daemon running?\n",
                          folder / "record.sh")
    assert_reports_no_bus("record.py: [Errno 2] No such file or directory\n", folder / "record.py")


def test_the_example_in_python_reports_a_missing_module() -> None:
    # Without Debian's packages, as another Python is.
    assert_reports_no_bus("record.py: /usr/bin/python3 has no module dbus_next: install the Debian "
                          "package python3-dbus-next and run this with /usr/bin/python3, or ",
                          "/usr/bin/python3", "-S", ROOT / "client/examples/record.py")


def version_of(build: Path) -> str:
    [version] = re.findall(r"^CMAKE_PROJECT_VERSION:STATIC=(.*)$",
                           (build / "CMakeCache.txt").read_text(), re.MULTILINE)
    return version


def configure_project(folder: Path, place: Path, version: str,
                      *settings: str) -> subprocess.CompletedProcess[str]:
    (folder / "CMakeLists.txt").write_text(PROJECT.format(
        version=version, source=EXAMPLE, c_source=C_EXAMPLE))
    return subprocess.run(["cmake", "-G", "Ninja", "-S", folder, "-B", folder / "build",
                           f"-Dpelmor-client_DIR={place}", *settings],
                          capture_output=True, text=True, check=False)


def assert_project_builds(folder: Path, place: Path, *settings: str) -> None:
    configured = configure_project(folder, place, version_of(BUILD), *settings)
    assert configured.returncode == 0, configured.stderr
    output_of("cmake", "--build", folder / "build")
    assert_runs(folder / "build/record")
    assert_reports_no_bus(f"report: {NO_BUS}\n", folder / "build/report",
                          LD_LIBRARY_PATH=str(place))


@pytest.mark.parametrize("standard", ["17", "20"])
@pytest.mark.parametrize("compiler", ["g++", "clang++"])
def test_cmake_finds_the_installation(installed: Path, tmp_path: Path, compiler: str,
                                      standard: str) -> None:
    [description] = installed.rglob("pelmor-client-config.cmake")
    assert_project_builds(tmp_path, description.parent, f"-DCMAKE_CXX_COMPILER={compiler}",
                          f"-DCMAKE_CXX_STANDARD={standard}")


def test_the_installed_description_names_no_folder_of_the_build(installed: Path) -> None:
    descriptions = [*installed.rglob("*.cmake"), *installed.rglob("*.pc")]
    assert len(descriptions) == 6
    for description in descriptions:
        assert str(ROOT) not in description.read_text(), description


def test_cmake_finds_the_build_tree(tmp_path: Path) -> None:
    assert_project_builds(tmp_path, BUILD / "client")


def test_cmake_rejects_another_version(tmp_path: Path) -> None:
    major, minor, _ = version_of(BUILD).split(".")
    for version in (f"{major}.{int(minor) + 1}", f"{int(major) + 1}.0"):
        refused = configure_project(tmp_path, BUILD / "client", version)
        assert refused.returncode != 0
        assert f'compatible with requested version "{version}"' in refused.stderr


def test_cmake_without_libsystemd_fails_with_a_message(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("PKG_CONFIG_LIBDIR", str(tmp_path))
    refused = configure_project(tmp_path, BUILD / "client", version_of(BUILD))
    assert refused.returncode != 0
    assert "pkg-config finds no libsystemd" in refused.stderr


def test_only_the_client_is_visible_in_the_library(installed: Path) -> None:
    [library] = installed.rglob("libpelmor-client.a")
    names = output_of("nm", "--demangle", "--extern-only", "--defined-only", "--format=posix",
                      library).splitlines()[1:]
    assert names and all(re.match(r"pelmor::Client::(?!Impl)", name) for name in names), names


def test_a_caller_may_use_the_librarys_internal_names(flags: list[str], tmp_path: Path) -> None:
    (tmp_path / "one.cc").write_text(CALLER)
    (tmp_path / "two.cc").write_text(
        "#include <pelmor/client.h>\npelmor::StatusCode Connect();\n"
        "int main() { return Connect() == pelmor::StatusCode::kNotConnected ? 3 : 1; }\n")
    built = compile_with(flags, tmp_path / "one.cc", tmp_path / "two.cc", "-o", tmp_path / "two")
    assert built.returncode == 0, built.stderr
    ran = subprocess.run([tmp_path / "two"], check=False,
                         env={"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={tmp_path}/bus"})
    assert ran.returncode == 3


def test_a_value_that_would_stop_the_daemon_does_not_compile(flags: list[str],
                                                             tmp_path: Path) -> None:
    template = ("#include <pelmor/client.h>\n"
                "int main() {{ pelmor::Client client; "
                "(void)client.RecordMetric(\"n\", {{}}, {value}); }}\n")
    for value, fits in [("1", True), *((value, False) for value in UNFIT_VALUES)]:
        source = tmp_path / "value.cc"
        source.write_text(template.format(value=value))
        tried = compile_with(flags, "-fsyntax-only", source)
        assert (tried.returncode == 0) == fits, f"{value}: {tried.stderr}"


# The C library.

def test_the_installed_example_in_c_builds_in_each_language_and_runs(
        installed: Path, shared: Path, tmp_path: Path) -> None:
    source = installed / INSTALLED_EXAMPLES / "report.c"
    [command] = re.findall(r"^//   cc (report.c .*) -o report$", source.read_text(), re.MULTILINE)
    assert command == "report.c $(pkg-config --cflags --libs pelmor)"
    flags = flags_of("pelmor", installed)
    assert [flag for flag in flags if flag.startswith("-l")] == ["-lpelmor"]
    for compiler in (("cc", "-std=c99"), ("c++", "-std=c++17", "-xc++")):
        output_of(*compiler, "-Wall", "-Wextra", "-pedantic", "-Werror", source, "-xnone", *flags,
                  "-o", tmp_path / "report")
        assert_reports_no_bus(f"report: {NO_BUS}\n", tmp_path / "report",
                              LD_LIBRARY_PATH=str(shared.parent))


def compare_symbols(library: Path, symbols: str, folder: Path) -> subprocess.CompletedProcess[str]:
    (folder / "debian").mkdir()
    shutil.copy(SYMBOLS.with_name("control"), folder / "debian")
    (folder / "symbols").write_text(symbols)
    # Symbols of the version that is built may still be removed: so, for a later one.
    return subprocess.run(["dpkg-gensymbols", "-c4", "-v9999", "-plibpelmor0", f"-e{library}",
                           "-Isymbols", "-O/dev/null"],
                          cwd=folder, capture_output=True, text=True, check=False)


def test_the_shared_library_exports_the_committed_symbols(shared: Path, tmp_path: Path) -> None:
    compared = compare_symbols(shared, SYMBOLS.read_text(), tmp_path)
    assert compared.returncode == 0, compared.stdout + compared.stderr


@pytest.mark.parametrize("symbols", [
    pytest.param(SYMBOLS.read_text() + " pelmor_old@PELMOR_0 0.1.0\n", id="removed"),
    pytest.param(SYMBOLS.read_text().replace(" pelmor_open@PELMOR_0 0.1.0\n", ""), id="added"),
])
def test_another_set_of_symbols_is_found(shared: Path, tmp_path: Path, symbols: str) -> None:
    assert compare_symbols(shared, symbols, tmp_path).returncode != 0


def test_the_shared_library_needs_few_others(shared: Path) -> None:
    dynamic = output_of("readelf", "--dynamic", shared)
    assert re.findall(r"SONAME.*\[(.*)\]", dynamic) == ["libpelmor.so.0"]
    needed = set(re.findall(r"NEEDED.*\[(.*?)\.so", dynamic))
    assert "libsystemd" in needed
    assert needed <= {"libsystemd", "libstdc++", "libgcc_s", "libc", "ld-linux-x86-64"}


def run_with_little_memory(source: str, installed: Path, shared: Path, folder: Path) -> int:
    (folder / "main.cc").write_text(source)
    built = compile_with(flags_of("pelmor", installed), folder / "main.cc", "-o", folder / "main")
    assert built.returncode == 0, built.stderr
    return subprocess.run([folder / "main"], check=False, capture_output=True,
                          env={"LD_LIBRARY_PATH": str(shared.parent)}).returncode


def test_without_memory_the_process_ends_and_no_exception_leaves_the_c_library(
        installed: Path, shared: Path, tmp_path: Path) -> None:
    ran = run_with_little_memory(WITHOUT_MEMORY, installed, shared, tmp_path)
    assert ran == -signal.SIGABRT


def test_a_text_longer_than_a_record_is_not_copied_by_the_c_library(
        installed: Path, shared: Path, tmp_path: Path) -> None:
    assert run_with_little_memory(LONG_TEXTS, installed, shared, tmp_path) == 0


# The Python package.

def test_the_python_package_installs_from_the_tree(installed: Path, shared: Path,
                                                   tmp_path: Path) -> None:
    [command] = re.findall("^pip (install .*)$", (ROOT / "README.md").read_text(), re.MULTILINE)
    arguments = command.replace("FOLDER", str(tmp_path / "packages")).split()
    # The build writes beside its sources.
    shutil.copytree(PYTHON_PACKAGE, tmp_path / "client/python")
    output_of("/usr/bin/python3", "-m", "pip", *arguments, "--quiet", "--no-index", cwd=tmp_path)
    place = {"PYTHONPATH": str(tmp_path / "packages"), "LD_LIBRARY_PATH": str(shared.parent)}
    assert (tmp_path / "packages/pelmor/py.typed").is_file()
    example = installed / INSTALLED_EXAMPLES / "report.py"
    assert_reports_no_bus(f"report.py: {NO_BUS}\n", example, **place)
    print_versions = ("import importlib.metadata, pelmor\n"
                      "print(importlib.metadata.version('pelmor'), pelmor.version())")
    version = version_of(BUILD)
    assert output_of("/usr/bin/python3", "-c", print_versions, **place) == f"{version} {version}\n"


def test_the_example_through_libpelmor_reports_what_is_missing(installed: Path) -> None:
    example = installed / INSTALLED_EXAMPLES / "report.py"
    assert_reports_no_bus("report.py: No module named 'pelmor': install the package pelmor of "
                          "client/python for /usr/bin/python3, ", example)
    assert_reports_no_bus("report.py: libpelmor.so.0: cannot open shared object file: No such file "
                          "or directory: install ", example, PYTHONPATH=str(PYTHON_PACKAGE))
