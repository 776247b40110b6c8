"""Checks bills of materials with SPDX's and CycloneDX's own libraries: `validator.py FILE…`. Prints
each fault; exits with 1 if there is one. Runs in a Debian that has both libraries."""

import sys
from collections.abc import Iterator
from pathlib import Path

from cyclonedx.schema import SchemaVersion
from cyclonedx.validation.json import JsonStrictValidator
from spdx_tools.spdx.parser.error import SPDXParsingError
from spdx_tools.spdx.parser.parse_anything import parse_file
from spdx_tools.spdx.validation.document_validator import validate_full_spdx_document


def spdx_faults(path: str) -> Iterator[str]:
    try:
        document = parse_file(path)
    except SPDXParsingError as error:
        yield from error.get_messages()
        return
    for message in validate_full_spdx_document(document):
        yield message.validation_message


def cyclonedx_faults(path: str) -> Iterator[str]:
    validator = JsonStrictValidator(SchemaVersion.V1_6)
    for fault in validator.validate_str(Path(path).read_text(), all_errors=True) or ():
        yield str(fault).partition("\n")[0]


def main(paths: list[str]) -> int:
    faults = [f"{Path(path).name}: {fault}" for path in paths
              for fault in (spdx_faults if path.endswith(".spdx.json") else cyclonedx_faults)(path)]
    print("\n".join(dict.fromkeys(faults)) or f"{len(paths)} valid bills of materials")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
