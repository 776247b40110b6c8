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
import ssl
import sys
import time
import urllib.request
from collections.abc import Callable
from dataclasses import dataclass

import asyncpg

from cloud import service
from cloud.stores import CLIENT_ID, Folder, SetUpError, write

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
        supervisor = os.getpid()
        self._pid = os.fork()
        if self._pid == 0:
            self._become(supervisor)
        write(self._file, str(self._pid))

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

    def _become(self, supervisor: int) -> None:
        try:
            os.setsid()
            for one in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
                signal.signal(one, signal.SIG_DFL)
            end_with_parent(self._stop, supervisor)
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
    # Of the service, with its name in URLs.
    listener: socket.socket
    host: str
    query_port: int
    context: ssl.SSLContext
    # Where the CA's certificate is, for people.
    authority: str
    token_lifetime: int
    safe: bool


class Supervisor:
    def __init__(self, plan: Plan) -> None:
        self._plan = plan
        self._address = plan.listener.getsockname()[:2]
        self._query_url = f"http://127.0.0.1:{plan.query_port}"
        self._ended = False
        folder = plan.folder
        self._postgresql = Process(folder, "postgresql", signal.SIGINT,
                                   _replaced_by(folder.postgresql_command(plan.safe)))
        self._victoria_metrics = Process(
            folder, "victoria-metrics", signal.SIGINT,
            _replaced_by(folder.victoria_metrics_command(plan.query_port)))
        self._service = Process(folder, "service", signal.SIGTERM, self._serve)
        # In the order of their start.
        self._processes = [self._postgresql, self._victoria_metrics, self._service]

    def run(self) -> None:
        """Until SIGTERM, SIGINT, or SIGHUP unless it is ignored (nohup)."""
        for one in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            if signal.getsignal(one) != signal.SIG_IGN:
                signal.signal(one, self._end)
        try:
            self._start()
            while not self._ended:
                for process in self._processes:
                    process.watch()
                time.sleep(_POLL_SECONDS)
        finally:
            self._plan.listener.close()
            for process in reversed(self._processes):
                process.stop()

    def _end(self, *_: object) -> None:
        self._ended = True

    def _start(self) -> None:
        create = self._plan.folder.create_tables
        for process, try_it in ((self._postgresql, lambda: asyncio.run(create())),
                                (self._victoria_metrics, self._ask_victoria_metrics),
                                (self._service, self._greet)):
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

    def _greet(self) -> None:
        # The kernel accepts connections also without the service.
        ssl.get_server_certificate(self._address, timeout=1)

    def _serve(self) -> None:
        plan = self._plan
        service.run(service.Settings(str(plan.folder.run), self._query_url, plan.listener,
                                     plan.context, plan.token_lifetime),
                    [signal.SIGTERM, signal.SIGINT])

    def _announce(self) -> None:
        """Prints the addresses, and saves them for programs."""
        folder = self._plan.folder
        base = f"https://{self._plan.host}:{self._address[1]}"
        addresses = {"service": base + service.BASE_PATH, "token": base + service.TOKEN_PATH,
                     "query": self._query_url, "client_id": CLIENT_ID}
        write(folder.run / "addresses.json", json.dumps(addresses))
        print(f"""\
The cloud is up.
  Service:        {addresses['service']}
  Token URL:      {addresses['token']}
  CA:             {self._plan.authority}
  Client:         {CLIENT_ID}, with the secret in {folder.client_secret}
  Points:         {self._query_url}
  Logs, texts:    psql --host {folder.run} --username cloud cloud
  Code:           ./dev cloud provision DEVICE --data {folder.path}
Ctrl-C ends it.""", flush=True)


def end_with_parent(how: signal.Signals, parent: int) -> None:
    """Sends this process a signal when its parent ends."""
    ctypes.CDLL(None).prctl(_PR_SET_PDEATHSIG, how)
    if os.getppid() != parent:
        os.kill(os.getpid(), how)


def _replaced_by(argv: list[str]) -> Callable[[], None]:
    return lambda: os.execvp(argv[0], argv)
