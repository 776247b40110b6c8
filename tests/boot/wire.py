"""The test's end of the wire to the stand-ins, which come and go with the device they run in."""

import itertools
import json
import socketserver
import threading
from concurrent.futures import Future, TimeoutError as FutureTimeout
from pathlib import Path
from typing import Any

from lab.errors import LabError
from lab.events import Story
from lab.values import from_json, to_json

_CALL_DEADLINE = 10.0


class Wire:
    """Listens at a socket, puts what the stand-ins tell into a story, and passes verbs on to them;
    safe to use from any thread."""

    def __init__(self, path: Path, story: Story) -> None:
        self._story = story
        self._numbers = itertools.count(1)
        self._lock = threading.Lock()
        # By name, the connections of the stand-ins that run.
        self._connections: dict[str, socketserver.StreamRequestHandler] = {}
        self._replies: dict[int, Future] = {}
        wire = self

        class Handler(socketserver.StreamRequestHandler):
            def handle(self) -> None:
                wire.serve(self)

        self._server = socketserver.ThreadingUnixStreamServer(str(path), Handler)
        self._server.daemon_threads = True
        # The stand-ins are no root.
        path.chmod(0o666)
        threading.Thread(target=self._server.serve_forever, daemon=True, name="wire").start()

    def close(self) -> None:
        self._server.shutdown()
        # Joins no thread: a daemon's threads are left alone, and end with their connections.
        self._server.server_close()

    def serve(self, connection: socketserver.StreamRequestHandler) -> None:
        name = json.loads(connection.rfile.readline())["hello"]
        with self._lock:
            self._connections[name] = connection
        try:
            for line in connection.rfile:
                self._receive(json.loads(line))
        except OSError:
            pass  # The device ended at once.

    def _receive(self, message: dict[str, Any]) -> None:
        if "kind" in message:
            self._story.add(message["time"], message["kind"], from_json(message["details"]))
            return
        with self._lock:
            reply = self._replies.pop(message["number"])
        if "error" in message:
            reply.set_exception(LabError(message["error"]))
        else:
            reply.set_result(from_json(message["result"]))

    def call(self, verb: str, **arguments: Any) -> Any:
        """Of a stand-in, by its name, a dot and the verb's name."""
        number = next(self._numbers)
        line = json.dumps({"number": number, "verb": verb, "arguments": to_json(arguments)})
        reply: Future = Future()
        with self._lock:
            self._replies[number] = reply
            self._connections[verb.partition(".")[0]].wfile.write(line.encode() + b"\n")
        try:
            return reply.result(_CALL_DEADLINE)
        except FutureTimeout:
            raise LabError(f"{verb}: no reply within {_CALL_DEADLINE:g} s") from None
