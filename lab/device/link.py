"""The host's end of the link to a device."""

import os
import socket
import subprocess
import tempfile
import threading
from concurrent.futures import Future
from typing import Any

from lab.common.errors import LabError
from lab.device.events import EventLog
from lab.device.exchange import Exchange

_CLOSE_DEADLINE = 5.0
_MOST_OUTPUT = 64 * 1024


class Link:
    """Runs the sandbox and talks to it; safe to use from any thread.

    A dedicated thread starts the sandbox, because the kernel ends the sandbox with the thread that
    started it, and then reads from the sandbox until it ends."""

    def __init__(self, argv: list[str], ours: socket.socket, theirs: list[socket.socket],
                 event_log: EventLog) -> None:
        """The sandbox inherits `theirs`, which are closed here."""
        self._socket = ours
        self._exchange = Exchange(event_log)
        # The output of the sandbox's programs; empty unless one of them fails.
        self._output = tempfile.TemporaryFile()
        self._started: Future = Future()
        self._thread = threading.Thread(target=self._run, args=(argv, theirs), daemon=True,
                                        name="device")
        self._thread.start()
        self._process: subprocess.Popen = self._started.result()

    def call(self, verb: str, arguments: dict[str, Any], deadline: float) -> Any:
        return self._exchange.call(self._socket.sendall, verb, arguments, deadline)

    def close(self) -> None:
        """Ends the device and everything in it."""
        self._shut_down()
        try:
            self._process.wait(_CLOSE_DEADLINE)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._thread.join()
        self._socket.close()
        self._output.close()

    def _shut_down(self) -> None:
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # The other end has closed it already.

    def _run(self, argv: list[str], theirs: list[socket.socket]) -> None:
        try:
            process = subprocess.Popen(argv, pass_fds=[one.fileno() for one in theirs],
                                       stdin=subprocess.DEVNULL, stdout=self._output,
                                       stderr=self._output)
        except OSError as error:
            self._started.set_exception(LabError(f"Unable to start the sandbox: {error}"))
            return
        finally:
            for one in theirs:
                one.close()
        self._started.set_result(process)
        try:
            with self._socket.makefile("rb") as lines:
                for line in lines:
                    # A sandbox that is killed can leave a part of its last line.
                    if line.endswith(b"\n"):
                        self._exchange.receive(line)
        except OSError:
            pass  # Closed while reading: the end, too.
        process.wait()
        self._end()

    def _end(self) -> None:
        # Read at its offset: the position is shared with the programs that write it.
        output = os.pread(self._output.fileno(), _MOST_OUTPUT, 0).decode(errors="replace")
        self._exchange.end(f"the device is gone\n{output}")
