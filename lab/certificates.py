"""The certificates of the lab's cloud, made once per process."""

import functools
from dataclasses import dataclass

import trustme

from lab.names import Host


@dataclass(frozen=True)
class Certificate:
    """A certificate with its chain and its key, as PEM text."""

    chain: str
    key: str


@functools.cache
def _authority() -> trustme.CA:
    return trustme.CA()


def _issue(authority: trustme.CA, *names: str) -> Certificate:
    issued = authority.issue_cert(*names)
    chain = b"".join(blob.bytes() for blob in issued.cert_chain_pems)
    return Certificate(chain.decode(), issued.private_key_pem.bytes().decode())


def trusted_bundle() -> str:
    """The CA bundle of every device."""
    return _authority().cert_pem.bytes().decode()


@functools.cache
def of_the_cloud() -> Certificate:
    return _issue(_authority(), *Host)


@functools.cache
def of_a_stranger() -> Certificate:
    """The right names, from an authority that no device knows."""
    return _issue(trustme.CA(), *Host)


@functools.cache
def of_another_name() -> Certificate:
    """From the authority that the devices trust, for a name that is not the cloud's."""
    return _issue(_authority(), "elsewhere.quintara.example")
