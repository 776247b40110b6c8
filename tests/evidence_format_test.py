"""The two formats of a bill of materials, of a made-up package."""

import dataclasses
from typing import Any

import pytest

from lab.evidence import cyclonedx, spdx
from lab.evidence.components import Component, Linkage
from lab.evidence.debian import Package
from lab.evidence.subject import Subject

SUPPLIER = "A Maintainer <one@debian.org>"
SYSTEMD = Package("libsystemd0", "systemd", "252.39-1+b1", "armhf", SUPPLIER, "debian")
GCC = Package("libgcc-12-dev", "gcc-12", "12.2", "armhf", SUPPLIER, "debian")
JSON = Package("nlohmann-json3-dev", "nlohmann-json3", "3.11", "all", SUPPLIER, "debian")
SUBJECT = Subject(
    "sample", "1.2+a", "armhf", SUPPLIER, "MIT", "", "0" * 64, "2026-01-02T03:04:05Z", (
        # Of two files with one name.
        Component("crt.o", Linkage.STATIC, GCC, "1" * 64),
        Component("crt.o", Linkage.STATIC, GCC, "2" * 64),
        Component("libsystemd.so.0", Linkage.SHARED, SYSTEMD, "3" * 64),
        Component("nlohmann-json3-dev", Linkage.HEADERS, JSON, "4" * 64)))
LIBRARIES = range(len(SUBJECT.components))


def spdx_package(number: int) -> dict[str, Any]:
    """That of a component; the first package is the subject."""
    return spdx.document(SUBJECT)["packages"][1 + number]


def cyclonedx_component(number: int) -> dict[str, Any]:
    return cyclonedx.document(SUBJECT)["components"][number]


@pytest.mark.parametrize("number", LIBRARIES)
def test_both_formats_describe_each_component(number: int) -> None:
    component = SUBJECT.components[number]
    expected = (component.name, component.package.version, component.package.licence,
                component.digest, component.package.purl)
    text = spdx_package(number)
    assert (text["name"], text["versionInfo"], text["licenseDeclared"],
            text["checksums"][0]["checksumValue"],
            text["externalRefs"][0]["referenceLocator"]) == expected
    assert text["supplier"] == "Organization: A Maintainer (one@debian.org)"
    text = cyclonedx_component(number)
    assert (text["name"], text["version"], text["licenses"][0]["expression"],
            text["hashes"][0]["content"], text["purl"]) == expected
    assert text["supplier"] == {"name": "A Maintainer", "contact": [{"email": "one@debian.org"}]}


def test_nothing_else_is_listed() -> None:
    assert len(spdx.document(SUBJECT)["packages"]) == 1 + len(LIBRARIES)
    assert len(cyclonedx.document(SUBJECT)["components"]) == len(LIBRARIES)


def test_a_purl_is_encoded() -> None:
    assert SYSTEMD.purl == "pkg:deb/debian/libsystemd0@252.39-1%2Bb1?arch=armhf&upstream=systemd"
    assert SUBJECT.purl == "pkg:deb/quintara/sample@1.2%2Ba?arch=armhf&upstream=ap-pelmor"


@pytest.mark.parametrize(("number", "kind", "linkage"), [
    (0, "STATIC_LINK", "static"), (2, "DYNAMIC_LINK", "shared"), (3, "STATIC_LINK", "headers")])
def test_both_formats_say_how_a_library_is_linked(number: int, kind: str, linkage: str) -> None:
    assert {"spdxElementId": "SPDXRef-Package", "relationshipType": kind,
            "relatedSpdxElement": spdx_package(number)["SPDXID"]
            } in spdx.document(SUBJECT)["relationships"]
    assert cyclonedx_component(number)["properties"] == [
        {"name": "pelmor:linkage", "value": linkage}]


def test_identifiers_are_unique() -> None:
    for found in ([one["SPDXID"] for one in spdx.document(SUBJECT)["packages"]],
                  [one["bom-ref"] for one in cyclonedx.document(SUBJECT)["components"]]):
        assert len(set(found)) == len(found)


def test_every_reference_has_a_target() -> None:
    text = spdx.document(SUBJECT)
    known = {"NOASSERTION", text["SPDXID"], *(one["SPDXID"] for one in text["packages"])}
    assert {one[end] for one in text["relationships"]
            for end in ("spdxElementId", "relatedSpdxElement")} == known
    assert text["relationships"][0] == {
        "spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES",
        "relatedSpdxElement": text["packages"][0]["SPDXID"]}
    text = cyclonedx.document(SUBJECT)
    listed = [one["bom-ref"] for one in text["components"]]
    assert text["metadata"]["component"]["bom-ref"] == "package"
    assert text["dependencies"] == [{"ref": "package", "dependsOn": listed}]


def test_the_libraries_of_a_library_are_not_claimed_to_be_listed() -> None:
    text = cyclonedx.document(SUBJECT)
    assert text["compositions"] == [
        {"aggregate": "complete", "dependencies": ["package"]},
        {"aggregate": "unknown", "dependencies": [one["bom-ref"] for one in text["components"]]}]
    assert {"spdxElementId": spdx_package(2)["SPDXID"], "relationshipType": "DEPENDS_ON",
            "relatedSpdxElement": "NOASSERTION"} in spdx.document(SUBJECT)["relationships"]


def test_a_licence_of_our_own_comes_with_its_text() -> None:
    assert "hasExtractedLicensingInfos" not in spdx.document(SUBJECT)
    own = dataclasses.replace(SUBJECT, licence="LicenseRef-own", licence_text="The text.")
    assert spdx.document(own)["hasExtractedLicensingInfos"] == [
        {"licenseId": "LicenseRef-own", "name": "LicenseRef-own", "extractedText": "The text."}]


def test_bills_of_different_packages_have_different_identities() -> None:
    other = dataclasses.replace(SUBJECT, digest="5" * 64)
    assert spdx.document(SUBJECT)["documentNamespace"] != spdx.document(other)["documentNamespace"]
    assert cyclonedx.document(SUBJECT)["serialNumber"] != cyclonedx.document(other)["serialNumber"]


def test_the_time_of_a_bill_is_that_of_its_package() -> None:
    assert spdx.document(SUBJECT)["creationInfo"]["created"] == SUBJECT.created
    assert cyclonedx.document(SUBJECT)["metadata"]["timestamp"] == SUBJECT.created
