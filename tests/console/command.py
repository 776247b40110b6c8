"""The console as a command."""

import contextlib
import json
import queue
import re
import signal
import subprocess
import sys
import threading
import time
import urllib.request
from pathlib import Path

from lab.common.tree import ROOT

DEADLINE = 120


class Command:
    """Runs the console as a process; a context manager."""

    def __init__(self, *options: str) -> None:
        self.process = subprocess.Popen(
            [sys.executable, "-m", "lab.console", "--port", "0", "--interval", "1", *options],
            cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.output = ""
        self._lines: queue.Queue[str] = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def __enter__(self) -> "Command":
        try:
            self.address = self.wait_for(r"Page: +(\S+)")
            self.bus = self.wait_for(r"DBUS_SYSTEM_BUS_ADDRESS=(\S+)")
        except queue.Empty:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        # SIGKILL would leave its folder behind.
        self.process.terminate()
        self.process.wait(DEADLINE)

    def _read(self) -> None:
        for line in self.process.stdout:
            self._lines.put(line)

    def wait_for(self, pattern: str) -> str:
        """The first group of the first match in the output."""
        latest = time.monotonic() + DEADLINE
        while not (found := re.search(pattern, self.output)):
            self.output += self._lines.get(timeout=max(latest - time.monotonic(), 0))
        return found[1]

    def end(self, how: signal.Signals) -> int:
        self.process.send_signal(how)
        code = self.process.wait(DEADLINE)
        while not self._lines.empty():
            self.output += self._lines.get()
        return code

    def press(self, control: str, **fields: object) -> None:
        request = urllib.request.Request(
            f"{self.address}api/controls/{control}", json.dumps(fields).encode(),
            {"Content-Type": "application/json"})
        urllib.request.urlopen(request).close()

    def family(self) -> set[int]:
        """The ids of all its descendants."""
        found: set[int] = set()
        new = {self.process.pid}
        while new:
            found |= new
            new = {child for parent in new for child in children_of(parent)} - found
        return found


def children_of(parent: int) -> set[int]:
    children = Path(f"/proc/{parent}/task").glob("*/children")
    with contextlib.suppress(OSError):
        return {int(child) for file in children for child in file.read_text().split()}
    return set()
