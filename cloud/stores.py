"""The command lines of PostgreSQL and VictoriaMetrics, and the preparation of their data."""

import asyncio
import glob
import hashlib
import os
import secrets
import subprocess
from pathlib import Path

import asyncpg
import trustme

from cloud.points import RETENTION_DAYS
from cloud.tokens import issue_code

CLIENT_ID = "pelmor"
DATABASE = "cloud"
_SCHEMA = (Path(__file__).resolve().parent / "schema.sql").read_text()
_POSTGRESQL = "/usr/lib/postgresql/*/bin"
# PostgreSQL's: a socket's path is at most 107 bytes.
_SOCKET = ".s.PGSQL.5432"
_MOST_SOCKET_BYTES = 107


class SetUpError(Exception):
    """The cloud cannot run; the text says what to do."""


class Folder:
    """The data of one cloud."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.run = path / "run"
        self.logs = path / "log"
        self.postgresql = path / "postgresql"
        self.victoria_metrics = path / "victoria-metrics"
        self.authority = path / "ca.pem"
        self.certificate = path / "certificate.pem"
        self.client_secret = path / "client_secret"
        if len(os.fsencode(self.run / _SOCKET)) > _MOST_SOCKET_BYTES:
            raise SetUpError(f"the path {path} is too long for the socket of PostgreSQL")

    def prepare(self, names: list[str]) -> None:
        """Creates what is missing; `names` are those of the certificate."""
        for folder in (self.run, self.logs, self.victoria_metrics):
            folder.mkdir(exist_ok=True)
        if not self.client_secret.exists():
            _write(self.client_secret, secrets.token_urlsafe(32))
        self._certify(names)
        if not self.postgresql.exists():
            fresh = self.path / "postgresql.new"
            # Peer authentication: only the user who runs the cloud may connect.
            _run(_program("initdb"), "-D", str(fresh), "--auth=peer", "--encoding=UTF8",
                 "--no-locale", "--username", "cloud")
            (fresh / "pg_ident.conf").write_text(f'cloud "{_user()}" cloud\n')
            (fresh / "pg_hba.conf").write_text("local all all peer map=cloud\n")
            fresh.rename(self.postgresql)

    def _certify(self, names: list[str]) -> None:
        listed = self.path / "names"
        if listed.exists() and listed.read_text().split() == names:
            return
        authority = trustme.CA()
        issued = authority.issue_cert(*names)
        _write(self.certificate, issued.private_key_and_cert_chain_pem.bytes().decode())
        authority.cert_pem.write_to_path(self.authority)
        listed.write_text("\n".join(names))

    def postgresql_command(self, safe: bool) -> list[str]:
        """A database that is not safe loses data if the machine crashes; for tests."""
        settings = {"listen_addresses": "", "unix_socket_directories": str(self.run),
                    "unix_socket_permissions": "0700", "max_connections": "50"}
        if not safe:
            settings |= {"fsync": "off", "full_page_writes": "off"}
        return [_program("postgres"), "-D", str(self.postgresql),
                *(part for name, value in settings.items() for part in ("-c", f"{name}={value}"))]

    def victoria_metrics_command(self, port: int) -> list[str]:
        return ["victoria-metrics", f"-storageDataPath={self.victoria_metrics}",
                f"-httpListenAddr=127.0.0.1:{port}", f"-retentionPeriod={RETENTION_DAYS}d",
                # Samples that are sent again are stored once.
                "-dedup.minScrapeInterval=1ms",
                # More than cloud/points.py lets through: beyond them, labels are cut.
                "-maxLabelsPerTimeseries=120", "-maxLabelValueLen=16384",
                # Points are visible at once, and late ones too.
                "-search.latencyOffset=0s", "-search.disableCache"]

    async def connect(self, database: str = DATABASE) -> asyncpg.Connection:
        return await asyncpg.connect(host=str(self.run), database=database, user="cloud")

    async def create_tables(self) -> None:
        maintenance = await self.connect("postgres")
        if not await maintenance.fetchval("SELECT 1 FROM pg_database WHERE datname = $1", DATABASE):
            await maintenance.execute(f"CREATE DATABASE {DATABASE}")
        await maintenance.close()
        connection = await self.connect()
        await connection.execute(_SCHEMA)
        secret = hashlib.sha256(self.client_secret.read_bytes()).digest()
        await connection.execute("INSERT INTO clients VALUES ($1, $2) ON CONFLICT (client_id)"
                                 " DO UPDATE SET secret_hash = $2", CLIENT_ID, secret)
        await connection.close()

    def issue_codes(self, devices: list[str]) -> list[str]:
        async def issue() -> list[str]:
            connection = await self.connect()
            return [await issue_code(connection, CLIENT_ID, device) for device in devices]

        if not all(device and "/" not in device and device.isprintable() for device in devices):
            raise SetUpError("a device id is not empty, printable and without a slash")
        try:
            return asyncio.run(issue())
        except (OSError, asyncpg.PostgresError) as error:
            raise SetUpError(f"no cloud runs on {self.path}: {error}") from None


def _write(path: Path, text: str) -> None:
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w") as file:
        file.write(text)


def _user() -> str:
    return subprocess.run(["id", "-un"], capture_output=True, text=True, check=True).stdout.strip()


def _program(name: str) -> str:
    folders = glob.glob(_POSTGRESQL)
    if not folders:
        raise SetUpError("PostgreSQL is missing: install the Debian package postgresql")
    return f"{max(folders, key=lambda folder: float(folder.split('/')[4]))}/{name}"


def _run(*argv: str) -> None:
    done = subprocess.run(argv, capture_output=True, text=True, check=False)
    if done.returncode:
        raise SetUpError(f"{argv[0]} failed: {done.stderr.strip()}")
