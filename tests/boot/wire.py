"""The test's end of the connections to the simulated programs in a booted device."""

import json
import socketserver
import threading
from pathlib import Path
from typing import Any

from lab.device.events import EventLog
from lab.device.exchange import Exchange

_CALL_DEADLINE = 10.0


class Wire:
    """Listens at a socket, adds the events of the simulated programs to an event log, and sends
    them verbs; safe to use from any thread."""

    def __init__(self, path: Path, event_log: EventLog) -> None:
        self._exchange = Exchange(event_log)
        # By name, the connections of the running programs.
        self._connections: dict[str, socketserver.StreamRequestHandler] = {}
        wire = self

        class Handler(socketserver.StreamRequestHandler):
            def handle(self) -> None:
                wire.serve(self)

        self._server = socketserver.ThreadingUnixStreamServer(str(path), Handler)
        self._server.daemon_threads = True
        # The simulated programs do not run as root.
        path.chmod(0o666)
        threading.Thread(target=self._server.serve_forever, daemon=True, name="wire").start()

    def close(self) -> None:
        self._server.shutdown()
        # Joins no thread: these are daemon threads, and end with their connections.
        self._server.server_close()

    def serve(self, connection: socketserver.StreamRequestHandler) -> None:
        name = json.loads(connection.rfile.readline())["hello"]
        self._connections[name] = connection
        try:
            for line in connection.rfile:
                self._exchange.receive(line)
        except OSError:
            pass  # The device ended at once.

    def call(self, verb: str, **arguments: Any) -> Any:
        """Calls a verb: a program's name, a dot and the verb's name."""
        send = self._connections[verb.partition(".")[0]].wfile.write
        return self._exchange.call(send, verb, arguments, _CALL_DEADLINE)
