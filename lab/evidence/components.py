"""What a package consists of: the libraries whose code is in its binaries, or is loaded by them."""

import enum
import hashlib
import re
import subprocess
from collections import defaultdict
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from pathlib import Path

from lab.common.tree import ROOT
from lab.evidence.debian import Package, UnknownOrigin, records_of

SYSROOTS = ROOT / "build/sysroot"
# Packages of headers with declarations only. The headers of all others count as code, so that no
# library is missing.
_DECLARATIONS = re.compile(r"(curl|libcurl4-\w+-dev|libsystemd-dev|libc6-dev|libgcc-\d+-dev"
                           r"|linux-libc-dev)(-\w+-cross)?")
_ARCHIVE, _ELF = b"!<arch>", b"\x7fELF"


class Linkage(enum.StrEnum):
    SHARED = "shared"
    STATIC = "static"
    HEADERS = "headers"


@dataclass(frozen=True)
class Component:
    """A library file, or the headers of a library that the compiler read."""

    name: str
    linkage: Linkage
    package: Package
    # SHA-256; of headers, that of the lines of sha256sum for each, in the order of their paths.
    digest: str


def sha256(data: bytes) -> str:
    return hashlib.sha256(data).hexdigest()


def is_binary(start: bytes) -> bool:
    """A program, a shared library or an archive."""
    return start.startswith((_ARCHIVE, _ELF))


def _output(*command: str | Path) -> str:
    """Of a command whose messages the caller sees."""
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def needed(binary: Path) -> set[str]:
    """The names of the shared libraries that the dynamic linker loads for it."""
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", _output("readelf", "-dW", binary)))


def soname(library: Path) -> str:
    names = re.findall(r"\(SONAME\).*\[(.*)\]", _output("readelf", "-dW", library))
    return names[0] if names else library.name


class Build:
    """A folder with a finished build by CMake and ninja."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder

    def _ninja(self, tool: str, *arguments: str) -> list[str]:
        return _output("ninja", "-C", self._folder, "-t", tool, *arguments).splitlines()

    def target(self, binary: str) -> str:
        """The target that makes the file of this name."""
        if not (self._folder / "build.ninja").exists():
            raise UnknownOrigin(f"no build of {binary} in {self._folder}: build it again")
        targets = (line.split(": ") for line in self._ninja("targets", "all"))
        found = [target for target, rule in targets
                 if Path(target).name == binary and rule != "phony"]
        if len(found) != 1:
            raise UnknownOrigin(f"{self._folder} has {len(found)} targets for {binary}")
        return found[0]

    def _outside(self, names: Iterable[str]) -> set[Path]:
        """Those that neither this build nor the compiler made, nor belong to the source tree."""
        paths = {(self._folder / name).resolve() for name in names}
        own = (self._folder.resolve(), self._source())
        return {path for path in paths if path.is_file()
                and (_is_foreign(path) or not any(map(path.is_relative_to, own)))}

    def _source(self) -> Path:
        cache = (self._folder / "CMakeCache.txt").read_text()
        found = re.search(r"^CMAKE_HOME_DIRECTORY:INTERNAL=(.*)$", cache, re.MULTILINE)
        assert found
        return Path(found[1]).resolve()

    def linked(self, target: str) -> set[Path]:
        """The files that the linker read."""
        inputs = self._folder / Path(target).parent / f"{Path(target).name}.inputs"
        if not inputs.exists():
            return set()
        rule = inputs.read_text().split("\n\n")[0].replace("\\\n", " ")
        return self._outside(rule.partition(":")[2].split())

    def check_unchanged(self, target: str, files: Iterable[Path]) -> None:
        """Raises `UnknownOrigin` if a file was installed after the target was made of another."""
        made = (self._folder / target).stat().st_mtime
        for path in files:
            if path.stat().st_ctime > made:
                raise UnknownOrigin(f"{path} is newer than {target}: build it again")

    def check_installed(self, binary: Path) -> None:
        """Raises `UnknownOrigin` if the binary was installed before this build made it anew."""
        made = self._folder / self.target(binary.name)
        if binary.stat().st_mtime < made.stat().st_mtime:
            raise UnknownOrigin(f"{binary} is older than {made}: run ./dev lean again")

    def headers(self, target: str) -> set[Path]:
        """The files that the compiler read for all that is linked into the target."""
        inputs, read = set(self._ninja("inputs", target)), set()
        of_target = False
        for line in self._ninja("deps"):
            if not line.startswith(" "):
                of_target = line.partition(": ")[0] in inputs
            elif of_target:
                read.add(line.strip())
        return self._outside(read)


def _is_foreign(path: Path) -> bool:
    return path.is_relative_to(SYSROOTS) or path.is_relative_to(ROOT / "build/libcurl")


def _own_libcurl(file: Path) -> Package | None:
    """The package of a libcurl that packaging/lean/libcurl made, if the file belongs to it."""
    notes = [folder / "source" for folder in file.parents if (folder / "source").is_file()]
    if not notes:
        return None
    source, version, supplier = notes[0].read_text().strip().split(" ", 2)
    return Package(source, source, version, "source", supplier, "debian")


def origin(path: Path) -> Package:
    for root in SYSROOTS.glob("*/"):
        if path.is_relative_to(root):
            return _own_libcurl(path) or records_of(root).owner(path)
    return _own_libcurl(path) or records_of(Path("/")).owner(path)


def libraries(binary: Path, linked: Iterable[Path]) -> Iterator[Component]:
    """The components among what the linker read; raises `UnknownOrigin` if one that the binary
    needs is not among them."""
    missing = needed(binary)
    for path in sorted(linked):
        data = path.read_bytes()
        if data.startswith(_ARCHIVE) or path.suffix == ".o":
            yield Component(path.name, Linkage.STATIC, origin(path), sha256(data))
        elif data.startswith(_ELF) and (name := soname(path)) in missing:
            missing.discard(name)
            yield Component(name, Linkage.SHARED, origin(path), sha256(data))
    if missing:
        raise UnknownOrigin(f"the linker did not read {', '.join(sorted(missing))}")


def header_libraries(headers: Iterable[Path]) -> Iterator[Component]:
    """The libraries whose code the compiler read."""
    lines: dict[Package, list[str]] = defaultdict(list)
    for path in sorted(headers):
        package = origin(path)
        if not _DECLARATIONS.fullmatch(package.name):
            lines[package].append(f"{sha256(path.read_bytes())}  {path.name}\n")
    for package, listed in lines.items():
        digest = sha256("".join(listed).encode())
        yield Component(package.name, Linkage.HEADERS, package, digest)


def components(build: Build, binary: Path) -> set[Component]:
    """Of a program or a shared or static library that the build made."""
    target = build.target(binary.name)
    headers, linked = build.headers(target), build.linked(target)
    build.check_unchanged(target, headers | linked)
    found = set(header_libraries(headers))
    is_archive = binary.read_bytes().startswith(_ARCHIVE)
    return found if is_archive else found | set(libraries(binary, linked))
