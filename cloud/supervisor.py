"""Starts PostgreSQL, VictoriaMetrics and the service, replaces each that ends, and stops them.

Runs in one thread without an event loop, so that it can fork the service: after root has become
another user, the source tree may not be readable any more."""

import asyncio
import ctypes
import json
import logging
import os
import signal
import socket
import sys
import time
import urllib.request
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import asyncpg

from cloud import service
from cloud.stores import CLIENT_ID, Folder, SetUpError

_START_SECONDS = 60
_STOP_SECONDS = 30
# Also the least distance of two starts of VictoriaMetrics, whose start time is in whole seconds.
_REPLACE_SECONDS = 1.0
_POLL_SECONDS = 0.1
_PR_SET_PDEATHSIG = 1
_LOG = logging.getLogger(__name__)


class Process:
    """A child that is replaced when it ends. It has its own session, because Ctrl-C in a terminal
    must end the service before its stores, and it ends with the supervisor."""

    def __init__(self, folder: Folder, name: str, stop: signal.Signals,
                 execute: Callable[[], None]) -> None:
        self._file = folder.run / f"{name}.pid"
        self._log = folder.logs / f"{name}.log"
        self.name = name
        self._stop = stop
        self._execute = execute
        self._pid = 0
        self._due = 0.0

    def start(self) -> None:
        self._due = time.monotonic() + _REPLACE_SECONDS
        self._pid = os.fork()
        if self._pid == 0:
            self._become()
        _publish(self._file, str(self._pid))

    def watch(self) -> None:
        """Replaces it if it has ended."""
        if self._pid and self.has_ended():
            _LOG.warning("%s has ended and is started again; its log is %s", self.name, self._log)
            self._pid = 0
            self._due = time.monotonic() + _REPLACE_SECONDS
        if not self._pid and time.monotonic() >= self._due:
            self.start()

    def has_ended(self) -> bool:
        return not self._pid or os.waitpid(self._pid, os.WNOHANG)[0] != 0

    def stop(self) -> None:
        if not self._pid:
            return
        os.kill(self._pid, self._stop)
        due = time.monotonic() + _STOP_SECONDS
        while not self.has_ended():
            if time.monotonic() > due:
                os.kill(self._pid, signal.SIGKILL)
            time.sleep(_POLL_SECONDS)
        self._file.unlink()

    def _become(self) -> None:
        try:
            ctypes.CDLL(None).prctl(_PR_SET_PDEATHSIG, self._stop)
            os.setsid()
            for one in (signal.SIGTERM, signal.SIGINT):
                signal.signal(one, signal.SIG_DFL)
            log = os.open(self._log, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
            os.dup2(log, sys.stdout.fileno())
            os.dup2(log, sys.stderr.fileno())
            self._execute()
        except BaseException as error:  # A fork must not return into its parent's code.
            _LOG.error("%s: %s: %s", self.name, type(error).__name__, error)
            os._exit(1)
        os._exit(0)


@dataclass(frozen=True)
class Plan:
    folder: Folder
    address: str
    port: int
    query_port: int
    names: list[str]
    # The user's own, or None.
    certificate: str | None
    token_lifetime: int
    safe: bool


class Supervisor:
    def __init__(self, plan: Plan) -> None:
        self._plan = plan
        self._port = plan.port or _free_port(plan.address)
        self._query_url = f"http://127.0.0.1:{plan.query_port or _free_port('127.0.0.1')}"
        self._ended = False
        folder = plan.folder
        self._postgresql = Process(folder, "postgresql", signal.SIGINT,
                                   _replaced_by(folder.postgresql_command(plan.safe)))
        query_port = int(self._query_url.rpartition(":")[2])
        self._victoria_metrics = Process(folder, "victoria-metrics", signal.SIGINT,
                                         _replaced_by(folder.victoria_metrics_command(query_port)))
        self._service = Process(folder, "service", signal.SIGTERM, self._serve)
        # In the order of their start.
        self._processes = [self._postgresql, self._victoria_metrics, self._service]

    def run(self) -> None:
        """Until SIGTERM or SIGINT."""
        for one in (signal.SIGTERM, signal.SIGINT):
            signal.signal(one, self._end)
        try:
            self._start()
            while not self._ended:
                for process in self._processes:
                    process.watch()
                time.sleep(_POLL_SECONDS)
        finally:
            for process in reversed(self._processes):
                process.stop()

    def _end(self, *_: object) -> None:
        self._ended = True

    def _start(self) -> None:
        create = self._plan.folder.create_tables
        for process, try_it in ((self._postgresql, lambda: asyncio.run(create())),
                                (self._victoria_metrics, self._ask_victoria_metrics),
                                (self._service, self._connect)):
            process.start()
            self._await(process, try_it)
            if self._ended:
                return
        self._announce()

    def _await(self, process: Process, try_it: Callable[[], object]) -> None:
        due = time.monotonic() + _START_SECONDS
        while not self._ended:
            try:
                try_it()
                return
            except (OSError, asyncpg.PostgresError) as error:
                if time.monotonic() > due:
                    raise SetUpError(f"{process.name} did not start: {error}; see the logs in"
                                     f" {self._plan.folder.logs}") from None
            process.watch()
            time.sleep(_POLL_SECONDS)

    def _ask_victoria_metrics(self) -> None:
        urllib.request.urlopen(f"{self._query_url}/health").close()

    def _connect(self) -> None:
        socket.create_connection((self._plan.address, self._port)).close()

    def _serve(self) -> None:
        plan = self._plan
        service.run(service.Settings(
            str(plan.folder.run), self._query_url, plan.address, self._port,
            plan.certificate or str(plan.folder.certificate), plan.token_lifetime),
            [signal.SIGTERM, signal.SIGINT])

    def _announce(self) -> None:
        """Prints the addresses, and saves them for programs."""
        folder = self._plan.folder
        base = f"https://{self._plan.names[0]}:{self._port}"
        addresses = {"service": base + service.BASE_PATH, "token": base + service.TOKEN_PATH,
                     "query": self._query_url, "client_id": CLIENT_ID}
        _publish(folder.run / "addresses.json", json.dumps(addresses))
        print(f"""\
The cloud is up.
  Service:        {addresses['service']}
  Token URL:      {addresses['token']}
  CA:             {self._plan.certificate or folder.authority}
  Client:         {CLIENT_ID}, with the secret in {folder.client_secret}
  Points:         {self._query_url}
  Logs, texts:    psql --host {folder.run} --username cloud cloud
  Code:           ./dev cloud provision DEVICE --data {folder.path}
Ctrl-C ends it.""", flush=True)


def _publish(path: Path, text: str) -> None:
    """Writes a file that other programs may be reading."""
    fresh = path.with_suffix(".new")
    fresh.write_text(text)
    fresh.replace(path)


def _replaced_by(argv: list[str]) -> Callable[[], None]:
    return lambda: os.execvp(argv[0], argv)


def _free_port(address: str) -> int:
    with socket.create_server((address, 0)) as listener:
        return listener.getsockname()[1]
