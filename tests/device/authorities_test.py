"""Trusted are the CAs of the system's bundle, whether or not a folder has a link to each of them,
and a change of them takes effect without a restart."""

from collections.abc import Callable

import pytest
import trustme

from lab.common import certificates
from lab.common.names import Endpoint, Host
from lab.device.device import Device
from tests.device.helpers import numbers_of, record_numbers, start_ticking, tick, upload

pytestmark = pytest.mark.movable_clocks

OUR_AUTHORITY = certificates.trusted_bundle()
ANOTHER_AUTHORITY = trustme.CA().cert_pem.bytes().decode()
LOCAL_FOLDER = "/etc/local-authorities"


def replace_files(device: Device, files: dict[str, str]) -> None:
    device.delete_folder(certificates.FOLDER)
    for path, text in files.items():
        device.write_file(path, text)


def by_bundle(device: Device, *authorities: str) -> None:
    replace_files(device, {certificates.BUNDLE: "".join(authorities)})


def by_folder(device: Device, *authorities: str) -> None:
    replace_files(device, certificates.system_files("".join(authorities)))


def by_debian(device: Device, *authorities: str) -> None:
    """By Debian's own program, which changes links first and the bundle last."""
    device.make_folder(LOCAL_FOLDER)
    device.delete_folder(LOCAL_FOLDER)
    for authority in authorities:
        device.write_file(f"{LOCAL_FOLDER}/{hash(authority)}.crt", authority)
    device.write_file("/etc/no-others.conf", "# Only the local ones.\n")
    run = device.run("update-ca-certificates", "--localcertsdir", LOCAL_FOLDER, "--certsconf",
                     "/etc/no-others.conf", "--hooksdir", "")
    assert run.code == 0, run.errors


Trust = Callable[..., None]
every_way = pytest.mark.parametrize("trust", [by_bundle, by_folder, by_debian])


def assert_untrusted(device: Device) -> None:
    before = tick(device)
    line = device.wait_for_log("Error uploading metrics: ", after=before)["text"]
    assert "certificate" in line, line


@every_way
def test_a_change_of_the_trusted_authorities_takes_effect_with_the_next_request(
        device: Device, trust: Trust) -> None:
    trust(device, ANOTHER_AUTHORITY, OUR_AUTHORITY)
    start_ticking(device)
    record_numbers(device, 1)
    upload(device)
    trust(device, ANOTHER_AUTHORITY)
    record_numbers(device, 2)
    assert_untrusted(device)
    trust(device, ANOTHER_AUTHORITY, OUR_AUTHORITY)
    assert numbers_of(upload(device)) == [2]


@every_way
@pytest.mark.parametrize("reason", ["stranger", "name"])
def test_an_invalid_certificate_is_rejected(device: Device, trust: Trust, reason: str) -> None:
    trust(device, ANOTHER_AUTHORITY, OUR_AUTHORITY)
    start_ticking(device)
    device.cloud.refuse_tls(Host.MONITORING, reason)
    record_numbers(device, 1)
    assert_untrusted(device)
    assert not device.cloud.requests(Endpoint.METRICS)
    device.cloud.trust_tls(Host.MONITORING)
    assert numbers_of(upload(device)) == [1]


def test_an_authority_that_only_the_bundle_has_is_trusted(device: Device) -> None:
    by_folder(device, ANOTHER_AUTHORITY)
    device.write_file(certificates.BUNDLE, ANOTHER_AUTHORITY + OUR_AUTHORITY)
    start_ticking(device)
    record_numbers(device, 1)
    assert numbers_of(upload(device)) == [1]


def test_the_folder_may_be_created_and_lost(device: Device) -> None:
    for number, trust in enumerate([by_bundle, by_folder, by_bundle]):
        trust(device, ANOTHER_AUTHORITY, OUR_AUTHORITY)
        if not number:
            start_ticking(device)
        record_numbers(device, number)
        assert numbers_of(upload(device)) == [number]
