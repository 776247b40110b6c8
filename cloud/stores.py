"""The command lines of PostgreSQL and VictoriaMetrics, and the preparation of their data."""

import asyncio
import contextlib
import fcntl
import glob
import hashlib
import os
import secrets
import shutil
import subprocess
from collections.abc import Iterator
from pathlib import Path

import asyncpg
import trustme

from cloud.points import RETENTION_DAYS
from cloud.tokens import issue_code

CLIENT_ID = "pelmor"
DATABASE = "cloud"
_SCHEMA = (Path(__file__).resolve().parent / "schema.sql").read_text()
_POSTGRESQL = "/usr/lib/postgresql/{}/bin"
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
            write(self.client_secret, secrets.token_urlsafe(32))
        self._certify(names)
        if not self.postgresql.exists():
            self._initialize()
        self._unlock_database()

    def _initialize(self) -> None:
        fresh = self.path / "postgresql.new"
        shutil.rmtree(fresh, ignore_errors=True)
        # Peer authentication: only the user who runs the cloud may connect.
        _run(self._program("initdb"), "-D", str(fresh), "--auth=peer", "--encoding=UTF8",
             "--no-locale", "--username", "cloud")
        (fresh / "pg_ident.conf").write_text(f'cloud "{_user()}" cloud\n')
        (fresh / "pg_hba.conf").write_text("local all all peer map=cloud\n")
        fresh.rename(self.postgresql)

    def _unlock_database(self) -> None:
        """After a power failure another process of this user may have the number in the lock file,
        and PostgreSQL would not start."""
        lock, working_folder = self.postgresql / "postmaster.pid", ""
        if not lock.exists():
            return
        with contextlib.suppress(OSError):
            working_folder = os.readlink(f"/proc/{lock.read_text().split()[0]}/cwd")
        if working_folder != str(self.postgresql):
            lock.unlink()

    @contextlib.contextmanager
    def locked(self) -> Iterator[None]:
        """Only one cloud may use the folder. The service inherits the lock."""
        with open(self.path / "lock", "w") as file:
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                raise SetUpError(f"another cloud runs on {self.path}: stop it, or choose another"
                                 " folder with --data") from None
            yield

    def _certify(self, names: list[str]) -> None:
        """Devices trust the authority, so it stays when the names change."""
        listed, key = self.path / "names", self.path / "ca.key"
        if listed.exists() and listed.read_text().split() == names:
            return
        if key.exists():
            authority = trustme.CA.from_pem(self.authority.read_bytes(), key.read_bytes())
        else:
            authority = trustme.CA()
            write(self.authority, authority.cert_pem.bytes().decode(), mode=0o644)
            write(key, authority.private_key_pem.bytes().decode())
        issued = authority.issue_cert(*names)
        write(self.certificate, issued.private_key_and_cert_chain_pem.bytes().decode())
        write(listed, "\n".join(names))

    def postgresql_command(self, safe: bool) -> list[str]:
        """A database that is not safe loses data if the machine crashes; for tests."""
        settings = {"listen_addresses": "", "unix_socket_directories": str(self.run),
                    "unix_socket_permissions": "0700", "max_connections": "50"}
        if not safe:
            settings |= {"fsync": "off", "full_page_writes": "off"}
        return [self._program("postgres"), "-D", str(self.postgresql),
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

    def _program(self, name: str) -> str:
        """Of the version that made the database, or the latest for a new one."""
        made = self.postgresql / "PG_VERSION"
        version = made.read_text().strip() if made.exists() else "*"
        found = glob.glob(_POSTGRESQL.format(version))
        if not found:
            package = "postgresql" if version == "*" else f"postgresql-{version}"
            raise SetUpError(f"PostgreSQL is missing: install the Debian package {package}")
        return f"{max(found, key=lambda folder: float(folder.split('/')[4]))}/{name}"

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


def write(path: Path, text: str, mode: int = 0o600) -> None:
    """Replaces a file that other programs may be reading; also a power failure leaves one whole."""
    fresh = path.with_name(f"{path.name}.new")
    with open(os.open(fresh, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode), "w") as file:
        file.write(text)
        file.flush()
        os.fsync(file.fileno())
    fresh.replace(path)


def _user() -> str:
    return subprocess.run(["id", "-un"], capture_output=True, text=True, check=True).stdout.strip()


def _run(*argv: str) -> None:
    done = subprocess.run(argv, capture_output=True, text=True, check=False)
    if done.returncode:
        raise SetUpError(f"{argv[0]} failed: {done.stderr.strip()}")
