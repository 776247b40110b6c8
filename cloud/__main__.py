"""Runs the reference cloud until Ctrl-C, or prints a code for a device.

    ./dev cloud [--data DIR] [--port 8443] …
    ./dev cloud provision DEVICE [--data DIR]
"""

import argparse
import logging
import os
import pwd
import signal
import socket
import ssl
import sys
from pathlib import Path

from cloud.stores import Folder, SetUpError
from cloud.supervisor import Plan, Supervisor, end_with_parent

DEFAULT_PORT = 8443
DEFAULT_QUERY_PORT = 18428
_TOKEN_SECONDS = 3600
# Debian's user for PostgreSQL, which does not run as root.
_USER = "postgres"
_BACKLOG = 1024


def _arguments(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="./dev cloud", description="Runs an identity provider and"
                                     " a monitoring service for devices, until Ctrl-C.",
                                     epilog="./dev cloud --check [OPTION…] starts one, runs ./dev"
                                     " cloud-check with the options, and stops it.")
    parser.add_argument("action", nargs="?", choices=["run", "provision"], default="run",
                        help="provision prints an authorization code for a device")
    parser.add_argument("device", nargs="*", help="of provision: the ids, for a code each")
    parser.add_argument("--data", type=Path, metavar="DIR",
                        help="where everything is kept (default: /var/tmp/pelmor-cloud-USER)")
    parser.add_argument("--address", default="127.0.0.1",
                        help="to listen at (default: the loopback address)")
    parser.add_argument("--port", type=int, default=DEFAULT_PORT,
                        help=f"of the service; 0 is any free one (default: {DEFAULT_PORT})")
    parser.add_argument("--query-port", type=int, default=DEFAULT_QUERY_PORT, metavar="PORT",
                        help="of VictoriaMetrics on the loopback address"
                        f" (default: {DEFAULT_QUERY_PORT})")
    parser.add_argument("--name", action="append", default=[], metavar="HOST",
                        help="a further name of the service in its certificate")
    parser.add_argument("--certificate", type=Path, metavar="FILE",
                        help="a private key with its certificates, in place of generated ones")
    parser.add_argument("--token-lifetime", type=int, default=_TOKEN_SECONDS, metavar="SECONDS",
                        help=f"of an access token (default: {_TOKEN_SECONDS})")
    parser.add_argument("--no-fsync", action="store_true",
                        help="for tests: lose data if the machine crashes")
    parser.add_argument("--parent", type=int, metavar="PID",
                        help="for programs: end with this process, which starts the cloud")
    arguments = parser.parse_args(argv)
    if (arguments.action == "provision") != bool(arguments.device):
        parser.error("provision needs the id of a device, and nothing else takes one")
    return arguments


def _become_user(data: Path | None, is_new: bool) -> Path:
    """Root becomes an unprivileged user, who gets a folder that is new or empty. Returns its
    path."""
    user = pwd.getpwnam(_USER) if os.getuid() == 0 else pwd.getpwuid(os.getuid())
    path = (data or Path(f"/var/tmp/pelmor-cloud-{user.pw_name}")).absolute()
    if is_new:
        path.mkdir(mode=0o700, parents=True, exist_ok=True)
        if os.getuid() == 0 and path.stat().st_uid == 0 and not any(path.iterdir()):
            os.chown(path, user.pw_uid, user.pw_gid, follow_symlinks=False)
    if os.getuid() == 0:
        os.initgroups(user.pw_name, user.pw_gid)
        os.setgid(user.pw_gid)
        os.setuid(user.pw_uid)
        os.environ |= {"HOME": str(path), "USER": user.pw_name, "LOGNAME": user.pw_name}
    try:
        if path.stat().st_uid != user.pw_uid:
            raise SetUpError(f"{path} does not belong to the user {user.pw_name}")
        os.chdir(path)
    except PermissionError:
        raise SetUpError(f"the user {user.pw_name} cannot reach {path}: choose another folder with"
                         " --data") from None
    return path


def _listener(address: str, port: int, option: str) -> socket.socket:
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    try:
        return socket.create_server((address, port), family=family, backlog=_BACKLOG)
    except (OSError, OverflowError) as error:
        raise SetUpError(f"cannot listen at {address}, port {port}: {error}; choose another with"
                         f" {option}") from None


def _tls_context(certificate: Path) -> ssl.SSLContext:
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    try:
        context.load_cert_chain(certificate)
    except OSError as error:
        raise SetUpError(f"no private key with its certificates in {certificate}: {error}"
                         ) from None
    return context


def _run(arguments: argparse.Namespace) -> None:
    # With the rights of root, if it is root.
    listener = _listener(arguments.address, arguments.port, "--port")
    with _listener("127.0.0.1", arguments.query_port, "--query-port") as query:
        query_port = query.getsockname()[1]
    context = arguments.certificate and _tls_context(arguments.certificate.absolute())
    folder = Folder(_become_user(arguments.data, is_new=True))
    if arguments.parent:
        end_with_parent(signal.SIGTERM, arguments.parent)
    with folder.locked():
        own = socket.gethostname()
        folder.prepare(["localhost", "127.0.0.1", own, *arguments.name])
        is_local = arguments.address.startswith(("127.", "localhost", "::1"))
        Supervisor(Plan(
            folder, listener, "localhost" if is_local else [*arguments.name, own][0], query_port,
            context or _tls_context(folder.certificate),
            f"of {arguments.certificate}" if arguments.certificate else str(folder.authority),
            arguments.token_lifetime, not arguments.no_fsync)).run()


def main(argv: list[str]) -> int:
    arguments = _arguments(argv)
    logging.basicConfig(level=logging.INFO, format="%(asctime)s %(levelname)s %(message)s")
    try:
        if arguments.action == "provision":
            folder = Folder(_become_user(arguments.data, is_new=False))
            print("\n".join(folder.issue_codes(arguments.device)))
        else:
            _run(arguments)
    except KeyboardInterrupt:
        return 130
    except (SetUpError, OSError) as error:
        print(f"cloud: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
