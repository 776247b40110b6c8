"""The certificates of the simulated cloud, made once per process and shared with its children."""

import functools
import json
import os
import re
import subprocess
import tempfile
from collections.abc import Callable
from dataclasses import asdict, dataclass
from pathlib import Path

import trustme

from lab.common.names import Host

# The system's CAs, as Debian has them: one bundle, and in the same folder a link to each.
FOLDER = "/etc/ssl/certs"
BUNDLE = f"{FOLDER}/ca-certificates.crt"
_CERTIFICATE = re.compile("-----BEGIN CERTIFICATE-----.*?-----END CERTIFICATE-----\n", re.DOTALL)

# Of the environment: all certificates by the names of their functions, as JSON.
_SHARED = "PELMOR_LAB_CERTIFICATES"


@dataclass(frozen=True)
class Certificate:
    """A certificate with its chain and its key, as PEM text."""

    chain: str
    key: str


def _made_once(make: Callable[[], Certificate]) -> Callable[[], Certificate]:
    @functools.cache
    def made() -> Certificate:
        shared = os.environ.get(_SHARED)
        return Certificate(**json.loads(shared)[make.__name__]) if shared else make()
    return functools.wraps(make)(made)


@functools.cache
def _authority() -> trustme.CA:
    return trustme.CA()


def _issue(authority: trustme.CA, *names: str) -> Certificate:
    issued = authority.issue_cert(*names)
    chain = b"".join(blob.bytes() for blob in issued.cert_chain_pems)
    return Certificate(chain.decode(), issued.private_key_pem.bytes().decode())


@_made_once
def of_the_authority() -> Certificate:
    """Without its key, which is needed only here."""
    return Certificate(_authority().cert_pem.bytes().decode(), "")


def trusted_bundle() -> str:
    """The CA bundle of every device."""
    return of_the_authority().chain


@functools.cache
def hashed(bundle: str) -> dict[str, str]:
    """The files of the folder by their paths, next to the bundle: each CA under its hash."""
    with tempfile.TemporaryDirectory() as folder:
        for number, certificate in enumerate(_CERTIFICATE.findall(bundle)):
            (Path(folder) / f"{number}.pem").write_text(certificate)
        subprocess.run(["openssl", "rehash", folder], check=True)
        return {f"{FOLDER}/{link.name}": link.read_text()
                for link in Path(folder).iterdir() if link.is_symlink()}


def system_files(bundle: str) -> dict[str, str]:
    """All the files by which a system trusts these CAs."""
    return {BUNDLE: bundle} | hashed(bundle)


@_made_once
def of_the_cloud() -> Certificate:
    return _issue(_authority(), *Host)


@_made_once
def of_a_stranger() -> Certificate:
    """The right names, from an unknown authority."""
    return _issue(trustme.CA(), *Host)


@_made_once
def of_another_name() -> Certificate:
    """From the trusted authority, for another name."""
    return _issue(_authority(), "elsewhere.quintara.example")


def share() -> None:
    """Makes all certificates now and passes them to child processes, because a key takes 0.1 s."""
    all_of_them = (of_the_authority, of_the_cloud, of_a_stranger, of_another_name)
    os.environ[_SHARED] = json.dumps({make.__name__: asdict(make()) for make in all_of_them})
