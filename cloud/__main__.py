"""Runs the reference cloud until Ctrl-C, or prints a code for a device.

    ./dev cloud [--data DIR] [--port 8443] …
    ./dev cloud provision DEVICE [--data DIR]
"""

import argparse
import logging
import os
import pwd
import socket
import sys
from pathlib import Path

from cloud.stores import Folder, SetUpError
from cloud.supervisor import Plan, Supervisor

DEFAULT_PORT = 8443
DEFAULT_QUERY_PORT = 18428
_TOKEN_SECONDS = 3600
# Debian's user for PostgreSQL, which does not run as root.
_USER = "postgres"


def _arguments(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="./dev cloud", description="Runs an identity provider and"
                                     " a monitoring service for devices, until Ctrl-C.")
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
    parser.add_argument("--certificate", metavar="FILE",
                        help="a private key with its certificates, in place of generated ones")
    parser.add_argument("--token-lifetime", type=int, default=_TOKEN_SECONDS, metavar="SECONDS",
                        help=f"of an access token (default: {_TOKEN_SECONDS})")
    parser.add_argument("--no-fsync", action="store_true",
                        help="for tests: lose data if the machine crashes")
    arguments = parser.parse_args(argv)
    if (arguments.action == "provision") != bool(arguments.device):
        parser.error("provision needs the id of a device, and nothing else takes one")
    return arguments


def _become_user(data: Path | None) -> Path:
    """Root becomes an unprivileged user, who gets the folder. Returns its path."""
    user = pwd.getpwuid(os.getuid())
    if user.pw_uid == 0:
        user = pwd.getpwnam(_USER)
    path = (data or Path(f"/var/tmp/pelmor-cloud-{user.pw_name}")).absolute()
    path.mkdir(mode=0o700, parents=True, exist_ok=True)
    if os.getuid() == 0:
        os.chown(path, user.pw_uid, user.pw_gid)
        os.initgroups(user.pw_name, user.pw_gid)
        os.setgid(user.pw_gid)
        os.setuid(user.pw_uid)
        os.environ |= {"HOME": str(path), "USER": user.pw_name, "LOGNAME": user.pw_name}
    try:
        if path.stat().st_uid != user.pw_uid:
            raise SetUpError(f"{path} belongs to another user")
        os.chdir(path)
    except PermissionError:
        raise SetUpError(f"the user {user.pw_name} cannot reach {path}: choose another folder with"
                         " --data") from None
    return path


def main(argv: list[str]) -> int:
    arguments = _arguments(argv)
    logging.basicConfig(level=logging.INFO, format="%(asctime)s %(levelname)s %(message)s")
    certificate = arguments.certificate and os.path.abspath(arguments.certificate)
    try:
        folder = Folder(_become_user(arguments.data))
        if arguments.action == "provision":
            print("\n".join(folder.issue_codes(arguments.device)))
            return 0
        names = ["localhost", "127.0.0.1", socket.gethostname(), *arguments.name]
        folder.prepare(names)
        Supervisor(Plan(folder, arguments.address, arguments.port, arguments.query_port, names,
                        certificate, arguments.token_lifetime, not arguments.no_fsync)).run()
    except (SetUpError, OSError) as error:
        print(f"cloud: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
