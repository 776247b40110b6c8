"""The rules of TLS."""

import ssl
import time

from cloud.check.cloud import Cloud
from cloud.check.connection import Broken, Connection
from cloud.check.rules import TRANSPORT, Failure, Section

RULES = Section("TLS")
_RESUMED_CONNECTIONS = 3
_LEAST_DAYS = 14
_DAY = 24 * 3600
# How long tickets may take after a handshake.
_TICKET_SECONDS = 2
_LISTEN_SECONDS = 0.02


@RULES.rule(
    "tls-certificate",
    "Both servers present a certificate for their name, with all intermediate certificates.",
    reason="The daemon verifies name and chain against the device's CA bundle; it fetches no "
           "missing certificate.",
    consequence=TRANSPORT,
    remedy="Configure the full chain, without its root, and check the name in the URL.")
def certificate(cloud: Cloud) -> None:
    for target in cloud.targets().values():
        cloud.connect(target).close()


@RULES.rule(
    "tls-expiry", f"The certificates are valid for {_LEAST_DAYS} more days.",
    reason="All devices reject an expired certificate at the same moment.", consequence=TRANSPORT,
    remedy="Renew it automatically, and monitor its end.", needs=("tls-certificate",))
def expiry(cloud: Cloud) -> None:
    for name, target in cloud.targets().items():
        with cloud.connect(target) as connection:
            certificate_ = connection.tls.getpeercert() or {}
        end = ssl.cert_time_to_seconds(str(certificate_["notAfter"]))
        if end - time.time() < _LEAST_DAYS * _DAY:
            raise Failure(f"{name}: valid until {certificate_['notAfter']}")


def _version(version: str, reason: str) -> None:
    @RULES.rule(
        f"tls-{version}", f"Both servers accept TLS {version}.",
        reason=reason, consequence="Those devices upload nothing.",
        remedy=f"Enable TLS {version} with the usual cipher suites.", needs=("tls-certificate",))
    def check(cloud: Cloud) -> None:
        for name, target in cloud.targets().items():
            try:
                cloud.connect(target, cloud.context_of(version)).close()
            except Broken as broken:
                raise Failure(f"{name}: {broken}") from None


_version("1.2", "The TLS libraries of some devices have nothing newer.")
_version("1.3", "The configuration of some devices allows nothing older.")


@RULES.rule(
    "tls-resumption", "Both servers resume TLS sessions on new connections.",
    reason="At an upload interval over two minutes each cycle connects anew.",
    consequence="Each cycle makes full handshakes: 4 kB more with a usual chain, and a signature "
                "at the server.",
    remedy="Issue session tickets that outlive the upload interval; share their keys among all "
           "instances.",
    needs=("tls-certificate",))
def resumption(cloud: Cloud) -> None:
    for name, target in cloud.targets().items():
        session = None
        for number in range(1 + _RESUMED_CONNECTIONS):
            with cloud.connect(target, session=session) as connection:
                if session and not connection.tls.session_reused:
                    raise Failure(f"{name}: connection {number + 1} made a full handshake")
                session = _session(connection)


def _session(connection: Connection) -> ssl.SSLSession | None:
    """A TLS 1.3 server sends its tickets after the handshake."""
    deadline = time.monotonic() + _TICKET_SECONDS
    while time.monotonic() < deadline:
        session = connection.tls.session
        if session and (session.has_ticket or session.id):
            return session
        connection.listen(_LISTEN_SECONDS)
    return connection.tls.session
