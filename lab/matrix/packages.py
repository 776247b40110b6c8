"""The Debian packages of a row's root: the tree's lists with the changes of the row."""


from lab.common.architectures import named
from lab.common.tree import ROOT
from lab.matrix.rows import Row

# The lists in packages/ for every root.
_LISTS = ("build", "lab", "certificates", "unit", "device", "trace")
_EMULATORS = "qemu-user-static"


def listed(*names: str) -> list[str]:
    lines = [line.partition("#")[0].strip()
             for name in names for line in (ROOT / f"packages/{name}.txt").read_text().splitlines()]
    return [line for line in lines if line]


def of_row(row: Row, launcher: str = "") -> list[str]:
    """In a fixed order; `launcher` is the package of the compiler launcher, if any."""
    packages = listed(*_LISTS, *row.lists)
    if row.architecture:
        packages += [_EMULATORS, f"g++-{named(row.architecture).triplet}"]
    packages += row.extra_packages
    if launcher:
        packages.append(launcher)
    return sorted({row.replaced_packages.get(package, package) for package in packages})
