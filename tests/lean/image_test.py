"""The daemon that ./dev lean builds: its libraries and its protections."""

import re
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest

from lab.common.tree import ROOT
from tests.hardening_test import PROTECTIONS, dynamic

DAEMON = ROOT / "build/lean/ap/pelmor/ap-pelmor"
LIBCURL = ROOT / "build/libcurl/native/lib/pkgconfig/libcurl.pc"
LIBRARIES = {"libssl", "libcrypto", "libsystemd", "libm", "libc", "ld-linux"}
# Features of libcurl that the daemon does not use, and most of which need another library.
SURPLUS = {"alt-svc", "brotli", "cookies", "GSS-API", "HSTS", "HTTP2", "HTTP3", "IDN", "Kerberos",
           "libz", "NTLM", "PSL", "SPNEGO", "TLS-SRP", "UnixSockets", "zstd"}


def needed(program: Path) -> set[str]:
    """The libraries, without versions and processors."""
    return set(re.findall(r"\(NEEDED\).*\[(ld-linux|[^.]+)", dynamic(program)))


def listed(name: str) -> set[str]:
    """A list of words in the description of the libcurl that was built."""
    [words] = re.findall(rf'^{name}="(.*)"$', LIBCURL.read_text(), re.MULTILINE)
    return set(words.split())


def test_it_loads_no_library_that_a_device_can_do_without() -> None:
    libraries = needed(DAEMON)
    assert "libssl" in libraries
    assert libraries <= LIBRARIES


def test_its_libcurl_has_http_over_openssl_and_nothing_else() -> None:
    assert {protocol.upper() for protocol in listed("supported_protocols")} == {"HTTP", "HTTPS"}
    features = listed("supported_features")
    assert {"SSL", "IPv6", "AsynchDNS"} <= features
    assert not features & SURPLUS


def test_unused_sections_are_left_out() -> None:
    symbols = subprocess.run(["nm", "--defined-only", DAEMON], check=True, capture_output=True,
                             text=True).stdout
    # In the same object files as functions that are used.
    assert " curl_multi_socket_action\n" in symbols
    assert " curl_multi_fdset\n" not in symbols


@pytest.mark.parametrize("protection", PROTECTIONS, ids=lambda one: one.__name__)
def test_it_is_hardened(protection: Callable[[Path], bool]) -> None:
    assert protection(DAEMON)
