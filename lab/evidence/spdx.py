"""A bill of materials in SPDX 2.3."""

import re
from itertools import chain
from typing import Any

from lab.evidence.components import Component, Linkage, sha256
from lab.evidence.subject import Subject

_RELATIONSHIPS = {Linkage.SHARED: "DYNAMIC_LINK", Linkage.STATIC: "STATIC_LINK",
                  Linkage.HEADERS: "STATIC_LINK"}
_COMMENTS = {Linkage.SHARED: "Loaded at run time; the device's own version may differ. The hash is "
                             "that of the file that the linker read.",
             Linkage.STATIC: "Linked in.",
             Linkage.HEADERS: "Compiled in from headers. The hash is that of the output of "
                              "sha256sum for the headers in use, in the order of their paths."}
_SUBJECT = "SPDXRef-Package"
_UNKNOWN = "NOASSERTION"


def _package(identifier: str, name: str, version: str, supplier: str, licence: str, digest: str,
             purl: str) -> dict[str, Any]:
    return {
        "SPDXID": identifier, "name": name, "versionInfo": version,
        "supplier": "Organization: " + re.sub(r" <(.*)>$", r" (\1)", supplier),
        "licenseDeclared": licence, "licenseConcluded": licence, "copyrightText": _UNKNOWN,
        "downloadLocation": _UNKNOWN, "filesAnalyzed": False,
        "checksums": [{"algorithm": "SHA256", "checksumValue": digest}],
        "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                          "referenceLocator": purl}],
    }


def _identifier(component: Component) -> str:
    """Unique in a document: a library can be linked in twice, from different files."""
    name = re.sub(r"[^\w.]|_", "-", component.name)
    return f"SPDXRef-{component.linkage}-{name}-{component.digest[:8]}"


def _component(component: Component) -> dict[str, Any]:
    origin = component.package
    described = _package(_identifier(component), component.name, origin.version, origin.supplier,
                         origin.licence, component.digest, origin.purl)
    return described | {"comment": _COMMENTS[component.linkage]}


def _relation(one: str, kind: str, other: str) -> dict[str, str]:
    return {"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}


def _relations(component: Component) -> list[dict[str, str]]:
    """The libraries of a library are not listed: those of the device count."""
    identifier = _identifier(component)
    return [_relation(_SUBJECT, _RELATIONSHIPS[component.linkage], identifier),
            _relation(identifier, "DEPENDS_ON", _UNKNOWN)]


def document(subject: Subject) -> dict[str, Any]:
    ours = _package(_SUBJECT, subject.name, subject.version, subject.supplier, subject.licence,
                    subject.digest, subject.purl)
    content: dict[str, Any] = {
        "spdxVersion": "SPDX-2.3", "SPDXID": "SPDXRef-DOCUMENT", "dataLicense": "CC0-1.0",
        "name": subject.file_name,
        "creationInfo": {"created": subject.created, "creators": ["Tool: ap-pelmor-evidence"]},
        "packages": [ours, *map(_component, subject.components)],
        "relationships": [_relation("SPDXRef-DOCUMENT", "DESCRIBES", _SUBJECT),
                          *chain.from_iterable(map(_relations, subject.components))],
    }
    if subject.licence_text:
        content["hasExtractedLicensingInfos"] = [
            {"licenseId": subject.licence, "name": subject.licence,
             "extractedText": subject.licence_text}]
    unique = sha256(repr(content).encode())
    return content | {
        "documentNamespace": f"https://quintara.example/spdx/{subject.file_name}-{unique}"}
