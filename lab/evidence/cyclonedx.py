"""A bill of materials in CycloneDX 1.6."""

import re
import uuid
from typing import Any

from lab.evidence.components import Component, Linkage
from lab.evidence.subject import Subject

_DESCRIPTIONS = {Linkage.SHARED: "loaded at run time; the device's own version may differ",
                 Linkage.STATIC: "linked in",
                 Linkage.HEADERS: "compiled in from headers; the hash is that of the output of "
                                  "sha256sum for the headers in use, in the order of their paths"}


def _part(reference: str, name: str, version: str, supplier: str, licence: str, digest: str,
          purl: str) -> dict[str, Any]:
    named = re.fullmatch(r"(.*) <(.*)>", supplier)
    organization: dict[str, Any] = {"name": supplier}
    if named:
        organization = {"name": named[1], "contact": [{"email": named[2]}]}
    return {"bom-ref": reference, "name": name, "version": version, "supplier": organization,
            "licenses": [{"expression": licence}], "purl": purl,
            "hashes": [{"alg": "SHA-256", "content": digest}]}


def _reference(component: Component) -> str:
    return f"{component.linkage}/{component.name}/{component.digest[:8]}"


def _component(component: Component) -> dict[str, Any]:
    origin = component.package
    described = _part(_reference(component), component.name, origin.version, origin.supplier,
                      origin.licence, component.digest, origin.purl)
    return described | {"type": "library", "description": _DESCRIPTIONS[component.linkage],
                        "properties": [{"name": "pelmor:linkage", "value": component.linkage}]}


def document(subject: Subject) -> dict[str, Any]:
    ours = _part("package", subject.name, subject.version, subject.supplier, subject.licence,
                 subject.digest, subject.purl)
    references = [_reference(component) for component in subject.components]
    content: dict[str, Any] = {
        "$schema": "http://cyclonedx.org/schema/bom-1.6.schema.json",
        "bomFormat": "CycloneDX", "specVersion": "1.6", "version": 1,
        "metadata": {"timestamp": subject.created, "component": ours | {"type": "application"},
                     "tools": {"components": [{"type": "application",
                                               "name": "ap-pelmor-evidence"}]}},
        "components": [_component(component) for component in subject.components],
        "dependencies": [{"ref": "package", "dependsOn": references}],
        # The libraries of a library are not listed: those of the device count.
        "compositions": [{"aggregate": "complete", "dependencies": ["package"]},
                         {"aggregate": "unknown", "dependencies": references}],
    }
    return content | {"serialNumber": f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_URL, repr(content))}"}
